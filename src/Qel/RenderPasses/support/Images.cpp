#include <Qel/RenderPasses/support/Images.h>

#include <QFileInfo>
#include <QImageReader>

#include <algorithm>

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
    const QImage image = reader.read();
    if (image.isNull()) {
        *problem = u"cannot be read as an image: %1"_s.arg(reader.errorString());
        return {};
    }
    if (std::max(image.width(), image.height()) > limit) {
        *problem =
            u"has %1x%2 pixels, more than the driver's limit of %3 in one direction"_s.arg(image.width())
                .arg(image.height())
                .arg(limit);
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
