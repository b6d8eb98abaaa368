#pragma once

#include <QString>
#include <QStringList>

#include <array>
#include <optional>
#include <vector>

#include <Qel/gl/Image.h>
#include <Qel/graph/Export.h>

namespace Morvane::Qel {

/// Two images of the same size, matched channel by channel. Refers to the images, which must outlive it.
class QEL_GRAPH_EXPORT ImagePair
{
public:
    /// Matches channels by name, and the channels of two single-channel images whatever their names are.
    /// Alpha is left out unless `withAlpha` is set or it is the only channel; an image without it has an
    /// alpha of 1. Returns nothing if the sizes or channels differ, with one line in `error`.
    static std::optional<ImagePair> match(const Image& first, const Image& second, bool withAlpha,
                                          QString* error);

    int width() const { return m_images[0]->width; }
    int height() const { return m_images[0]->height; }
    const QStringList& channels() const { return m_channels; }
    /// Indices into channels() of R, G and B; three times the same for grey, a single channel beside alpha.
    /// Empty for other images.
    const std::optional<std::array<int, 3>>& colorChannels() const { return m_colorChannels; }
    bool hasIntegers() const { return m_images[0]->isInteger() || m_images[1]->isInteger(); }

    /// A sample of image 0 or 1. The channel is an index into channels().
    double sample(size_t image, int x, int y, int channel) const;
    /// Returns the absolute difference of two samples; infinite if either is NaN or infinite, even if both
    /// are equal.
    double difference(int x, int y, int channel) const;

private:
    std::array<const Image*, 2> m_images = {};
    QStringList m_channels;
    std::optional<std::array<int, 3>> m_colorChannels;
    /// The index of each channel in each image, -1 if it is missing.
    std::array<std::vector<int>, 2> m_indices;
};

/// \name Metrics
/// All of them are symmetric in the two images.
/// @{

/// Returns the peak signal-to-noise ratio in dB over all channels of a pair, for a peak value of 1: infinite
/// for equal images, NaN if it is undefined, which is for integers and where a sample is NaN or infinite.
QEL_GRAPH_EXPORT double psnr(const ImagePair& pair);

/// How the values of an image represent light.
enum class ColorEncoding
{
    /// Non-linear values as they are shown, IEC 61966-2-1.
    Srgb,
    Linear
};

/// The result of a metric that has a value for each pixel.
struct ImageMetric
{
    double mean = 0.0;
    /// An image of the same size with one channel "R".
    Image map;
};

/// Measures the structural similarity of two images, from -1 to 1 for equal ones: Wang, Bovik, Sheikh,
/// Simoncelli, "Image Quality Assessment: From Error Visibility to Structural Similarity", 2004. Compares the
/// luma 0.2126 R + 0.7152 G + 0.0722 B of the sRGB-encoded values, in windows of 11x11 pixels weighted by a
/// Gaussian with a standard deviation of 1.5.
///
/// The mean leaves out windows that reach beyond the image; the map mirrors the image at its borders. Returns
/// nothing, with one line in `error`, if a side is shorter than 11 pixels, if the pair has no colours, or if
/// a colour is outside 0..1.
QEL_GRAPH_EXPORT std::optional<ImageMetric> ssim(const ImagePair& pair, ColorEncoding encoding,
                                                 QString* error);

/// Measures the difference that a viewer sees when two images alternate, from 0 for equal ones to 1:
/// Andersson, Nilsson, Akenine-Moeller, Oskarsson, Astroem, Fairchild, "FLIP: A Difference Evaluator for
/// Alternating Images", 2020, for images of low dynamic range.
///
/// `pixelsPerDegree` is the number of pixels in a degree of the viewer's field of view, from 1 to 1000.
/// Values for different numbers cannot be compared. Returns nothing, with one line in `error`, if the pair
/// has no colours, or if a colour is outside 0..1 or the number outside its range.
QEL_GRAPH_EXPORT std::optional<ImageMetric> flip(const ImagePair& pair, ColorEncoding encoding,
                                                 double pixelsPerDegree, QString* error);

/// The pixels per degree for which FLIP is usually given: 3840 pixels on a display 0.7 m wide, seen from 0.7
/// m.
constexpr double defaultPixelsPerDegree = 67.02064327658225;
/// @}

/// Draws a map of values from 0 to 1 in the colours of "magma", from black over violet and orange to light
/// yellow. Values outside are clamped.
QEL_GRAPH_EXPORT Image heatMap(const Image& map);

} // namespace Morvane::Qel
