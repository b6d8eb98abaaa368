#include <Qel/RenderPasses/support/Images.h>

#include <QFileInfo>
#include <QFloat16>
#include <QImageReader>

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <variant>

#include <epoxy/gl.h>

#include <Qel/core/Memory.h>
#include <Qel/gl/ImageFiles.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// The channels of an image that become red, green, blue and alpha; -1 for none.
std::array<int, 4> colorChannels(const QStringList& channels)
{
    const auto index = [&](const QString& name) { return static_cast<int>(channels.indexOf(name)); };
    const std::array indices{index(u"R"_s), index(u"G"_s), index(u"B"_s), index(u"A"_s)};
    const bool isColorless = indices[0] < 0 && indices[1] < 0 && indices[2] < 0;
    if (isColorless && channels.size() == (indices[3] < 0 ? 1 : 2)) {
        const int only = indices[3] == 0 ? 1 : 0;
        return {only, only, only, indices[3]};
    }
    return isColorless ? std::array{-1, -1, -1, -1} : indices;
}

/// Writes the pixels of an image as RGBA.
template<class Component>
QImage toQImage(const Image& image, const std::array<int, 4>& channels, QImage::Format format)
{
    QImage result(image.width, image.height, format);
    for (int y = 0; y < result.height(); ++y) {
        auto* component = reinterpret_cast<Component*>(result.scanLine(y));
        for (int x = 0; x < result.width(); ++x) {
            for (size_t i = 0; i < channels.size(); ++i) {
                const float missing = i == 3 ? 1.0F : 0.0F;
                *component++ = Component(
                    channels[i] < 0 ? missing : static_cast<float>(image.sample(x, y, channels[i])));
            }
        }
    }
    return result;
}

bool isHalf(float value)
{
    return std::isnan(value) || static_cast<float>(qfloat16(value)) == value;
}

QImage loadFloatImage(const QString& path, int limit, QString* problem)
{
    const std::optional<Image> image = readFloatImage(path, limit, problem);
    if (!image) {
        return {};
    }
    const std::array<int, 4> channels = colorChannels(image->channels);
    if (channels == std::array{-1, -1, -1, -1}) {
        *problem = u"has the channels %1, but none of R, G and B"_s.arg(image->channels.join(u", "_s));
        return {};
    }
    const auto* samples = std::get_if<std::vector<float>>(&image->samples);
    const bool isHalfs = samples && std::all_of(samples->begin(), samples->end(), isHalf);
    QImage result = isHalfs ? toQImage<qfloat16>(*image, channels, QImage::Format_RGBA16FPx4)
                            : toQImage<float>(*image, channels, QImage::Format_RGBA32FPx4);
    if (result.isNull()) {
        *problem = u"needs more memory than this machine has"_s;
    }
    return result;
}

} // namespace

QImage loadImage(const QString& path, int limit, QString* problem)
{
    const QFileInfo file(path);
    if (!file.isFile()) {
        *problem = file.exists() ? u"is not a file"_s : u"does not exist"_s;
        return {};
    }
    if (isFloatImageFile(path)) {
        return loadFloatImage(path, limit, problem);
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

TexelFormat texelFormat(const QImage& image)
{
    switch (image.format()) {
    case QImage::Format_RGBA16FPx4:
        return {GL_RGBA16F, GL_RGBA, GL_HALF_FLOAT};
    case QImage::Format_RGBA32FPx4:
        return {GL_RGBA32F, GL_RGBA, GL_FLOAT};
    default:
        return {GL_RGBA, GL_BGRA, GL_UNSIGNED_BYTE};
    }
}

} // namespace Morvane::Qel
