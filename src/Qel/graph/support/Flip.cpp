#include <Qel/graph/support/Flip.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include <Qel/graph/support/ColorTransfer.h>
#include <Qel/graph/support/SeparableFilter.h>

using namespace Qt::StringLiterals;

// The steps, constants and names are those of the paper: Andersson et al., "FLIP: A Difference Evaluator for
// Alternating Images", 2020. Its filters are applied in their separable form.

namespace Morvane::Qel {

namespace {

constexpr double pi = std::numbers::pi;

using Color = std::array<double, 3>;
using Matrix = std::array<Color, 3>;

/// Linear RGB with the primaries of sRGB to XYZ, and back.
constexpr Matrix xyzFromRgb = {
    Color{10135552.0 / 24577794.0, 8788810.0 / 24577794.0, 4435075.0 / 24577794.0},
    Color{2613072.0 / 12288897.0, 8788810.0 / 12288897.0, 887015.0 / 12288897.0},
    Color{1425312.0 / 73733382.0, 8788810.0 / 73733382.0, 70074185.0 / 73733382.0}};
constexpr Matrix rgbFromXyz = {Color{3.241003275, -1.537398934, -0.498615861},
                               Color{-0.969224334, 1.875930071, 0.041554224},
                               Color{0.055639423, -0.204011202, 1.057148933}};
constexpr Color white = {0.950428545, 1.0, 1.088900371};

Color multiply(const Matrix& matrix, const Color& color)
{
    Color result = {};
    for (size_t i = 0; i < 3; ++i) {
        result[i] = matrix[i][0] * color[0] + matrix[i][1] * color[1] + matrix[i][2] * color[2];
    }
    return result;
}

/// XYZ relative to the white.
Color relativeXyz(const Color& rgb)
{
    Color xyz = multiply(xyzFromRgb, rgb);
    for (size_t i = 0; i < 3; ++i) {
        xyz[i] /= white[i];
    }
    return xyz;
}

/// The opponent space YyCxCz, in which contrast sensitivity is known.
Color opponent(const Color& rgb)
{
    const auto [x, y, z] = relativeXyz(rgb);
    return {116.0 * y - 16.0, 500.0 * (x - y), 200.0 * (y - z)};
}

Color rgbFromOpponent(double achromatic, double redGreen, double blueYellow)
{
    const double y = (achromatic + 16.0) / 116.0;
    Color rgb = multiply(
        rgbFromXyz, {white[0] * (redGreen / 500.0 + y), white[1] * y, white[2] * (y - blueYellow / 200.0)});
    for (double& channel : rgb) {
        channel = std::clamp(channel, 0.0, 1.0);
    }
    return rgb;
}

/// CIELAB with the Hunt effect: the chroma of dark colours counts less.
Color huntAdjustedLab(const Color& rgb)
{
    Color f = relativeXyz(rgb);
    for (double& value : f) {
        constexpr double delta = 6.0 / 29.0;
        value = value > delta * delta * delta ? std::cbrt(value) : value / (3.0 * delta * delta) + 4.0 / 29.0;
    }
    const double lightness = 116.0 * f[1] - 16.0;
    return {lightness, 0.01 * lightness * 500.0 * (f[0] - f[1]), 0.01 * lightness * 200.0 * (f[1] - f[2])};
}

/// The HyAB distance of two colours, compressed by an exponent.
double colorDistance(const Color& lab0, const Color& lab1)
{
    const double distance = std::abs(lab0[0] - lab1[0]) + std::hypot(lab0[1] - lab1[1], lab0[2] - lab1[2]);
    return std::pow(distance, 0.7);
}

/// Maps a compressed distance to 0..1; the smaller ones get most of this range.
double redistributed(double distance)
{
    constexpr double pc = 0.4;
    constexpr double pt = 0.95;
    static const double largest =
        colorDistance(huntAdjustedLab({0.0, 1.0, 0.0}), huntAdjustedLab({0.0, 0.0, 1.0}));
    return distance < pc * largest ? distance * pt / (pc * largest)
                                   : pt + (distance - pc * largest) / (largest - pc * largest) * (1.0 - pt);
}

/// Scales the positive weights to a sum of 1 and the negative ones to a sum of -1.
Kernel balanced(Kernel kernel)
{
    double positive = 0.0;
    double negative = 0.0;
    for (const double weight : kernel) {
        (weight > 0.0 ? positive : negative) += std::abs(weight);
    }
    for (double& weight : kernel) {
        weight /= weight > 0.0 ? positive : negative;
    }
    return kernel;
}

struct Kernels
{
    explicit Kernels(double pixelsPerDegree);

    /// All kernels have the radius of the widest.
    int radius;
    /// Contrast sensitivity. The filter for blue and yellow is the sum of two.
    Kernel achromatic;
    Kernel redGreen;
    std::array<Kernel, 2> blueYellow;
    /// Features: the Gaussian across, the edge and point detectors along.
    Kernel gaussian;
    Kernel edge;
    Kernel point;
};

Kernels::Kernels(double pixelsPerDegree)
    : radius(static_cast<int>(std::ceil(3.0 * std::sqrt(0.04 / (2.0 * pi * pi)) * pixelsPerDegree)))
{
    // The term a sqrt(pi / b) exp(-pi^2 r^2 / b) of a sensitivity is a Gaussian with this standard deviation.
    const auto deviation = [&](double b) { return std::sqrt(b / (2.0 * pi * pi)) * pixelsPerDegree; };
    achromatic = makeGaussian(radius, deviation(0.0047));
    redGreen = makeGaussian(radius, deviation(0.0053));

    constexpr std::array terms = {std::array{34.1, 0.04}, std::array{13.5, 0.025}};
    double sumOfSquares = 0.0;
    for (size_t i = 0; i < terms.size(); ++i) {
        const double a = terms[i][0];
        const double b = terms[i][1];
        double sum = 0.0;
        blueYellow[i] = makeKernel(radius, [&](int x) {
            const double r = x / pixelsPerDegree;
            const double weight = std::sqrt(a * std::sqrt(pi / b)) * std::exp(-pi * pi * r * r / b);
            sum += weight;
            return weight;
        });
        sumOfSquares += sum * sum;
    }
    for (Kernel& kernel : blueYellow) {
        for (double& weight : kernel) {
            weight /= std::sqrt(sumOfSquares);
        }
    }

    const double sigma = 0.5 * 0.082 * pixelsPerDegree;
    const int featureRadius = static_cast<int>(std::ceil(3.0 * sigma));
    const auto feature = [&](const auto& factor) {
        return makeKernel(radius, [&](int x) {
            return std::abs(x) > featureRadius ? 0.0 : factor(x) * std::exp(-x * x / (2.0 * sigma * sigma));
        });
    };
    edge = balanced(feature([](int x) { return static_cast<double>(-x); }));
    point = balanced(feature([&](int x) { return x * x / (sigma * sigma) - 1.0; }));
    gaussian = makeGaussian(featureRadius, sigma);
    gaussian.insert(gaussian.begin(), static_cast<size_t>(radius - featureRadius), 0.0);
    gaussian.resize(edge.size(), 0.0);
}

/// What a viewer perceives of a band of rows.
struct Percept
{
    std::array<Plane, 3> opponent;
    Plane edges;
    Plane points;

    /// The filtered colour.
    Color lab(int x, int y) const
    {
        return huntAdjustedLab(
            rgbFromOpponent(opponent[0].row(y)[x], opponent[1].row(y)[x], opponent[2].row(y)[x]));
    }
};

/// The magnitude of a feature in both directions.
Plane magnitude(const Plane& rows, const Plane& gaussianRows, const Kernels& kernels, const Kernel& feature)
{
    Plane result = filterColumns(rows, kernels.gaussian);
    const Plane other = filterColumns(gaussianRows, feature);
    for (size_t i = 0; i < result.values.size(); ++i) {
        // The features are those of the luminance, (Yy + 16) / 116.
        result.values[i] = std::hypot(result.values[i], other.values[i]) / 116.0;
    }
    return result;
}

Percept perceive(const ImagePair& pair, size_t image, ColorEncoding encoding, const Kernels& kernels,
                 int begin, int end)
{
    // The image is continued by its edge pixels.
    const int radius = kernels.radius;
    const Plane empty(pair.width() + 2 * radius, end - begin + 2 * radius);
    std::array<Plane, 3> planes = {empty, empty, empty};
    for (int y = 0; y < empty.height; ++y) {
        const int sourceY = std::clamp(begin + y - radius, 0, pair.height() - 1);
        Color color = {};
        for (int x = 0; x < empty.width; ++x) {
            const int sourceX = x - radius;
            if (x == 0 || (sourceX > 0 && sourceX < pair.width())) {
                color = opponent(linearColor(pair, image, std::max(sourceX, 0), sourceY, encoding));
            }
            for (size_t i = 0; i < 3; ++i) {
                planes[i].row(y)[x] = color[i];
            }
        }
    }

    const auto filtered = [](const Plane& plane, const Kernel& kernel) {
        return filterColumns(filterRows(plane, kernel), kernel);
    };
    Plane blueYellow = filtered(planes[2], kernels.blueYellow[0]);
    const Plane second = filtered(planes[2], kernels.blueYellow[1]);
    for (size_t i = 0; i < second.values.size(); ++i) {
        blueYellow.values[i] += second.values[i];
    }
    const Plane gaussianRows = filterRows(planes[0], kernels.gaussian);
    return {{filtered(planes[0], kernels.achromatic), filtered(planes[1], kernels.redGreen),
             std::move(blueYellow)},
            magnitude(filterRows(planes[0], kernels.edge), gaussianRows, kernels, kernels.edge),
            magnitude(filterRows(planes[0], kernels.point), gaussianRows, kernels, kernels.point)};
}

} // namespace

Image flipMap(const ImagePair& pair, ColorEncoding encoding, double pixelsPerDegree)
{
    const Kernels kernels(pixelsPerDegree);
    Image map{pair.width(), pair.height(), {u"R"_s}, {}};
    auto& errors = std::get<std::vector<float>>(map.samples);
    errors.resize(map.numSamples());
    forBands(pair.height(), [&](int begin, int end) {
        const Percept first = perceive(pair, 0, encoding, kernels, begin, end);
        const Percept second = perceive(pair, 1, encoding, kernels, begin, end);
        float* error = errors.data() + static_cast<size_t>(begin) * static_cast<size_t>(pair.width());
        for (int y = 0; y < end - begin; ++y) {
            for (int x = 0; x < pair.width(); ++x) {
                const double color = redistributed(colorDistance(first.lab(x, y), second.lab(x, y)));
                const double feature = std::max(std::abs(first.edges.row(y)[x] - second.edges.row(y)[x]),
                                                std::abs(first.points.row(y)[x] - second.points.row(y)[x]));
                *error++ =
                    static_cast<float>(std::pow(color, 1.0 - std::sqrt(feature / std::numbers::sqrt2)));
            }
        }
    });
    return map;
}

} // namespace Morvane::Qel
