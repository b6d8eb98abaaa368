#include <Qel/graph/ImageMetrics.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include <Qel/graph/support/ColorTransfer.h>
#include <Qel/graph/support/Flip.h>
#include <Qel/graph/support/SeparableFilter.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Radius of the window of SSIM, whose sides are 11 pixels.
constexpr int windowRadius = 5;

/// Checks that SSIM and FLIP are defined.
bool hasColorsFrom0To1(const ImagePair& pair, QString* error)
{
    if (!pair.colorChannels() || pair.hasIntegers()) {
        *error = u"the images have neither floating-point R, G and B nor a single such channel"_s;
        return false;
    }
    for (int y = 0; y < pair.height(); ++y) {
        for (int x = 0; x < pair.width(); ++x) {
            for (const int channel : *pair.colorChannels()) {
                for (const size_t image : {0, 1}) {
                    const double value = pair.sample(image, x, y, channel);
                    if (!(value >= 0.0 && value <= 1.0)) {
                        *error =
                            u"the colours are not all from 0 to 1, such as %1 in pixel (%2, %3)"_s.arg(value)
                                .arg(x)
                                .arg(y);
                        return false;
                    }
                }
            }
        }
    }
    return true;
}

/// The luma of rows `begin` to `end` of an image, which is mirrored at its borders.
Plane mirroredLuma(const ImagePair& pair, size_t image, ColorEncoding encoding, int begin, int end)
{
    const auto mirrored = [](int i, int size) { return i < 0 ? -1 - i : i < size ? i : 2 * size - 1 - i; };
    Plane plane(pair.width() + 2 * windowRadius, end - begin + 2 * windowRadius);
    for (int y = 0; y < plane.height; ++y) {
        const int sourceY = mirrored(begin + y - windowRadius, pair.height());
        for (int x = 0; x < plane.width; ++x) {
            const int sourceX = mirrored(x - windowRadius, pair.width());
            const auto [r, g, b] = encodedColor(pair, image, sourceX, sourceY, encoding);
            plane.row(y)[x] = 0.2126 * r + 0.7152 * g + 0.0722 * b;
        }
    }
    return plane;
}

/// The mean of a map without a border.
double mean(const Image& map, int border)
{
    double sum = 0.0;
    for (int y = border; y < map.height - border; ++y) {
        for (int x = border; x < map.width - border; ++x) {
            sum += map.sample(x, y, 0);
        }
    }
    return sum / static_cast<double>(map.width - 2 * border) / static_cast<double>(map.height - 2 * border);
}

} // namespace

std::optional<ImagePair> ImagePair::match(const Image& first, const Image& second, bool withAlpha,
                                          QString* error)
{
    const auto cannot = [&](const QString& cause) {
        *error = u"%1 and %2 differ in %3"_s.arg(first.summary(), second.summary(), cause);
        return std::nullopt;
    };
    if (first.width != second.width || first.height != second.height) {
        return cannot(u"size"_s);
    }
    ImagePair pair;
    pair.m_images = {&first, &second};
    if (first.numChannels() == 1 && second.numChannels() == 1) {
        // Single channels match whatever their names: "Z" of depth, "R" of a grey PNG.
        pair.m_channels = first.channels;
        pair.m_indices = {std::vector{0}, std::vector{0}};
    } else {
        pair.m_channels = first.channels;
        for (const QString& channel : second.channels) {
            if (!pair.m_channels.contains(channel)) {
                pair.m_channels.append(channel);
            }
        }
        if (!withAlpha) {
            pair.m_channels.removeOne(u"A"_s);
        }
        for (const QString& channel : pair.m_channels) {
            for (size_t i = 0; i < 2; ++i) {
                const auto index = static_cast<int>(pair.m_images[i]->channels.indexOf(channel));
                if (index < 0 && channel != QLatin1StringView("A")) {
                    return cannot(u"channels"_s);
                }
                pair.m_indices[i].push_back(index);
            }
        }
    }
    const auto index = [&](const QString& channel) {
        return static_cast<int>(pair.m_channels.indexOf(channel));
    };
    if (std::min({index(u"R"_s), index(u"G"_s), index(u"B"_s)}) >= 0) {
        pair.m_colorChannels = {index(u"R"_s), index(u"G"_s), index(u"B"_s)};
    } else if (pair.m_channels.size() - (index(u"A"_s) > 0 ? 1 : 0) == 1) {
        pair.m_colorChannels = {0, 0, 0};
    }
    return pair;
}

double ImagePair::sample(size_t image, int x, int y, int channel) const
{
    const int index = m_indices[image][static_cast<size_t>(channel)];
    return index < 0 ? 1.0 : m_images[image]->sample(x, y, index);
}

double ImagePair::difference(int x, int y, int channel) const
{
    const double d = std::abs(sample(0, x, y, channel) - sample(1, x, y, channel));
    return std::isfinite(d) ? d : std::numeric_limits<double>::infinity();
}

double psnr(const ImagePair& pair)
{
    double sumOfSquares = 0.0;
    const auto numChannels = static_cast<int>(pair.channels().size());
    for (int y = 0; y < pair.height(); ++y) {
        for (int x = 0; x < pair.width(); ++x) {
            for (int c = 0; c < numChannels; ++c) {
                const double d = pair.difference(x, y, c);
                sumOfSquares += d * d;
            }
        }
    }
    if (pair.hasIntegers() || std::isinf(sumOfSquares)) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    const double numSamples = static_cast<double>(pair.width()) * static_cast<double>(pair.height()) *
                              static_cast<double>(numChannels);
    return 10.0 * std::log10(numSamples / sumOfSquares);
}

std::optional<ImageMetric> ssim(const ImagePair& pair, ColorEncoding encoding, QString* error)
{
    if (pair.width() <= 2 * windowRadius || pair.height() <= 2 * windowRadius) {
        *error = u"a side is shorter than the window of %1 pixels"_s.arg(2 * windowRadius + 1);
        return std::nullopt;
    }
    if (!hasColorsFrom0To1(pair, error)) {
        return std::nullopt;
    }
    const Kernel window = makeGaussian(windowRadius, 1.5);
    constexpr double c1 = 0.01 * 0.01;
    constexpr double c2 = 0.03 * 0.03;
    Image map{pair.width(), pair.height(), {u"R"_s}, {}};
    auto& values = std::get<std::vector<float>>(map.samples);
    values.resize(map.numSamples());
    forBands(pair.height(), [&](int begin, int end) {
        const Plane x = mirroredLuma(pair, 0, encoding, begin, end);
        const Plane y = mirroredLuma(pair, 1, encoding, begin, end);
        const auto weightedMean = [&](const Plane& plane) {
            return filterColumns(filterRows(plane, window), window).values;
        };
        const auto weightedMeanOfProduct = [&](const Plane& factor, Plane other) {
            std::transform(factor.values.begin(), factor.values.end(), other.values.begin(),
                           other.values.begin(), std::multiplies());
            return weightedMean(other);
        };
        const std::vector<double> meanX = weightedMean(x);
        const std::vector<double> meanY = weightedMean(y);
        const std::vector<double> meanXX = weightedMeanOfProduct(x, x);
        const std::vector<double> meanYY = weightedMeanOfProduct(y, y);
        const std::vector<double> meanXY = weightedMeanOfProduct(x, y);
        float* value = values.data() + static_cast<size_t>(begin) * static_cast<size_t>(pair.width());
        for (size_t i = 0; i < meanX.size(); ++i) {
            const double squares = meanX[i] * meanX[i] + meanY[i] * meanY[i];
            const double product = meanX[i] * meanY[i];
            const double variances = std::max(meanXX[i] + meanYY[i] - squares, 0.0);
            const double covariance = meanXY[i] - product;
            value[i] = static_cast<float>((2.0 * product + c1) * (2.0 * covariance + c2) /
                                          ((squares + c1) * (variances + c2)));
        }
    });
    const double value = mean(map, windowRadius);
    return ImageMetric{value, std::move(map)};
}

std::optional<ImageMetric> flip(const ImagePair& pair, ColorEncoding encoding, double pixelsPerDegree,
                                QString* error)
{
    if (!(pixelsPerDegree >= 1.0 && pixelsPerDegree <= 1000.0)) {
        *error = u"%1 pixels per degree are not from 1 to 1000"_s.arg(pixelsPerDegree);
        return std::nullopt;
    }
    if (!hasColorsFrom0To1(pair, error)) {
        return std::nullopt;
    }
    Image map = flipMap(pair, encoding, pixelsPerDegree);
    const double value = mean(map, 0);
    return ImageMetric{value, std::move(map)};
}

Image heatMap(const Image& map)
{
    // The colour map "magma" by Stéfan van der Walt and Nathaniel Smith, 2015 (CC0), at every sixteenth of
    // its range. What is interpolated between differs from it by up to 3 in 255.
    constexpr std::array<quint32, 17> anchors = {0x000004, 0x0a0822, 0x1d1147, 0x36106b, 0x51127c, 0x6a1c81,
                                                 0x832681, 0x9c2e7f, 0xb73779, 0xcf4070, 0xe55064, 0xf4695c,
                                                 0xfb8761, 0xfea571, 0xfec287, 0xfde0a1, 0xfcfdbf};
    Image image{map.width, map.height, {u"R"_s, u"G"_s, u"B"_s}, {}};
    auto& samples = std::get<std::vector<float>>(image.samples);
    samples.reserve(image.numSamples());
    for (int y = 0; y < map.height; ++y) {
        for (int x = 0; x < map.width; ++x) {
            const double position = 16.0 * std::clamp(map.sample(x, y, 0), 0.0, 1.0);
            const size_t index = std::min(static_cast<size_t>(position), anchors.size() - 2);
            const double fraction = position - static_cast<double>(index);
            for (const int shift : {16, 8, 0}) {
                const double low = (anchors[index] >> shift) & 0xff;
                const double high = (anchors[index + 1] >> shift) & 0xff;
                samples.push_back(static_cast<float>((low + fraction * (high - low)) / 255.0));
            }
        }
    }
    return image;
}

} // namespace Morvane::Qel
