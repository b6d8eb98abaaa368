#include <Qel/graph/support/PngFile.h>

#include <QImage>
#include <QImageReader>

#include <algorithm>
#include <array>
#include <new>

#include <Qel/core/Memory.h>
#include <Qel/graph/support/ImageErrors.h>
#include <Qel/graph/support/PixelLayout.h>
#include <Qel/graph/support/PngEncoder.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Whether the colours of an image must be divided by its alpha.
bool isToBeDivided(const ImageFileOptions& options)
{
    return options.pngAlpha == PngAlpha::Straight &&
           (options.alpha == AlphaMeaning::Premultiplied || options.alpha == AlphaMeaning::Unspecified);
}

QByteArray toPng(const Image& image, const ImageFileOptions& options)
{
    const int numChannels = image.numChannels();
    const bool alpha =
        options.pngAlpha != PngAlpha::Opaque && image.channels.contains(QLatin1StringView("A"));
    const bool isDivided = alpha && numChannels == 4 && isToBeDivided(options);
    const int bytesPerPixel = numChannels == 1 ? 1 : alpha ? 4 : 3;
    const int numCopied = std::min(numChannels, bytesPerPixel);
    const float* sample = std::get<std::vector<float>>(image.samples).data();
    return encodePng({image.width, image.height}, bytesPerPixel, [&](int, quint8* byte) {
        for (int x = 0; x < image.width; ++x, byte += bytesPerPixel, sample += numChannels) {
            if (isDivided) {
                const float coverage = sample[3];
                std::transform(sample, sample + 3, byte, [=](float value) {
                    return coverage == 0.0F ? quint8{0} : byteFromSample(value / coverage);
                });
                byte[3] = byteFromSample(coverage);
            } else {
                // Channels that the image does not have stay 0.
                std::transform(sample, sample + numCopied, byte, byteFromSample);
            }
        }
    });
}

} // namespace

bool writePng(const Image& image, OutputFile& file, const ImageFileOptions& options, QString* error)
{
    if (image.isInteger()) {
        return imageError(error, file.fileName(), u"PNG cannot store integer images"_s,
                          u"write an .exr file"_s);
    }
    if (image.numSamples() == 0) {
        return imageError(error, file.fileName(), u"the image is empty"_s, u"write one with pixels"_s);
    }
    try {
        return file.writeAll(toPng(image, options)) || writeError(error, file.fileName(), file.errorString());
    } catch (const std::bad_alloc&) {
        return imageError(error, file.fileName(), u"out of memory for an image of %1"_s.arg(image.summary()),
                          u"write an .exr file or a smaller image"_s);
    }
}

std::optional<Image> readQImage(const QString& path, QString* error)
{
    QImageReader reader(path);
    reader.setDecideFormatFromContent(true);
    // The decoded image, at up to 64 bits per pixel, its conversion, and four floats.
    constexpr double bytesPerPixel = 8.0 + 8.0 + 16.0;
    const QSize size = reader.size();
    if (!fitsMemory(bytesPerPixel * size.width() * size.height())) {
        memoryError(error, path, size);
        return std::nullopt;
    }
    const QImage qimage = reader.read();
    if (qimage.isNull()) {
        imageError(error, path, u"cannot be read as an image: %1"_s.arg(reader.errorString()),
                   u"use an intact PNG or EXR file"_s);
        return std::nullopt;
    }
    const bool grey = qimage.pixelFormat().colorModel() == QPixelFormat::Grayscale;
    const bool deep = qimage.pixelFormat().redSize() > 8 || qimage.format() == QImage::Format_Grayscale16;
    const QImage rgba = qimage.convertToFormat(QImage::Format_RGBA64);
    if (rgba.isNull()) {
        memoryError(error, path, size);
        return std::nullopt;
    }
    Image image{qimage.width(), qimage.height(), {u"R"_s}, std::vector<float>()};
    if (!grey) {
        image.channels << u"G"_s << u"B"_s;
        if (qimage.hasAlphaChannel()) {
            image.channels << u"A"_s;
        }
    }
    auto& samples = std::get<std::vector<float>>(image.samples);
    samples.reserve(image.numSamples());
    for (int y = 0; y < image.height; ++y) {
        const auto* line = reinterpret_cast<const QRgba64*>(rgba.constScanLine(y));
        for (int x = 0; x < image.width; ++x) {
            const std::array values = {line[x].red(), line[x].green(), line[x].blue(), line[x].alpha()};
            for (size_t c = 0; c < static_cast<size_t>(image.numChannels()); ++c) {
                // QImage widened each byte b to 257 b.
                const int byte = values[c] / 257;
                samples.push_back(deep ? static_cast<float>(values[c]) / 65535.0F
                                       : static_cast<float>(byte) / 255.0F);
            }
        }
    }
    return image;
}

} // namespace Morvane::Qel
