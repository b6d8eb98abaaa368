#include <Qel/RenderPasses/support/Images.h>

#include <QFileInfo>
#include <QImageReader>

#include <algorithm>

#include <Qel/core/Memory.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

QImage loadImage(const QString& path, int limit, QString* problem)
{
    const QFileInfo file(path);
    if (!file.isFile()) {
        *problem = file.exists() ? u"is not a file"_s : u"does not exist"_s;
        return {};
    }
    QImageReader reader(path);
    const auto isTooLarge = [&](const QSize& size) {
        if (std::max(size.width(), size.height()) > limit) {
            *problem =
                u"has %1x%2 pixels, more than the driver's limit of %3 in one direction"_s.arg(size.width())
                    .arg(size.height())
                    .arg(limit);
            return true;
        }
        // The decoded image, at up to 64 bits per pixel, and its conversion.
        if (!fitsMemory(12.0 * size.width() * size.height())) {
            *problem = u"has %1x%2 pixels, more than fit into the memory of this machine"_s.arg(size.width())
                           .arg(size.height());
            return true;
        }
        return false;
    };
    // Not all formats tell their size before they are decoded.
    if (isTooLarge(reader.size())) {
        return {};
    }
    const QImage image = reader.read();
    if (image.isNull()) {
        *problem = u"cannot be read as an image: %1"_s.arg(reader.errorString());
        return {};
    }
    if (isTooLarge(image.size())) {
        return {};
    }
    return image.convertToFormat(QImage::Format_ARGB32);
}

QImage makeTexel(const QColor& color)
{
    QImage texel(1, 1, QImage::Format_ARGB32);
    texel.fill(color);
    return texel;
}

} // namespace Morvane::Qel
