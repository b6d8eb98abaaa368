#pragma once

#include <QStringList>

#include <algorithm>
#include <type_traits>
#include <vector>

namespace Morvane::Qel {

/// Parameters of glGetTexImage that read all channels of a texture.
struct PixelLayout
{
    QStringList channels;
    unsigned int format;
    /// GL_UNSIGNED_BYTE, GL_FLOAT, GL_UNSIGNED_INT or GL_INT.
    unsigned int type;
};

/// The layout that reads all channels of a mip level of a texture that is bound.
PixelLayout layoutOf(unsigned int levelTarget, int level);

template<class Sample, class Pixel>
Sample sampleFromPixel(Pixel value)
{
    if constexpr (std::is_same_v<Pixel, quint8>) {
        return static_cast<Sample>(value) / 255.0F;
    } else {
        return static_cast<Sample>(value);
    }
}

/// Extracts a layer from pixels as GL returns them and flips it vertically.
template<class Sample, class Pixel>
std::vector<Sample> flippedLayer(const Pixel* pixels, size_t layer, size_t rowLength, size_t height)
{
    std::vector<Sample> samples(rowLength * height);
    for (size_t y = 0; y < height; ++y) {
        const Pixel* row = pixels + (layer * height + height - 1 - y) * rowLength;
        std::transform(row, row + rowLength, samples.data() + y * rowLength, sampleFromPixel<Sample, Pixel>);
    }
    return samples;
}

/// A sample as 8 bits: clamped to 0..1 and rounded; NaN becomes 0.
inline quint8 byteFromSample(float value)
{
    // std::lround would be a call for each sample; the sum is exact.
    constexpr double half = 0.5;
    // Also false for NaN.
    return value > 0.0F ? static_cast<quint8>(std::min(static_cast<double>(value), 1.0) * 255.0 + half)
                        : quint8{0};
}

} // namespace Morvane::Qel
