#include "support/Images.h"

#include <QFileInfo>
#include <QImageReader>

#include <algorithm>

namespace Morvane::Qel {

QImage loadImage(const QString& path, int limit, QString* problem)
{
    const QFileInfo file(path);
    if (!file.isFile()) {
        *problem = file.exists() ? QStringLiteral("is not a file") : QStringLiteral("does not exist");
        return {};
    }
    QImageReader reader(path);
    const QImage image = reader.read();
    if (image.isNull()) {
        *problem = QStringLiteral("cannot be read as an image: %1").arg(reader.errorString());
        return {};
    }
    if (std::max(image.width(), image.height()) > limit) {
        *problem = QStringLiteral("has %1x%2 pixels, more than the driver's limit of %3 in one direction")
                       .arg(image.width())
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
