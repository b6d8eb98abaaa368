#include <cmath>

#include <gtest/gtest.h>

#include <Qel/graph/ImageMetrics.h>

namespace Morvane::Qel::Test {

namespace {

using Floats = std::vector<float>;

/// An image of 8-bit colours, high enough to be measured in several bands of rows.
Image generate(int width, const auto& rgb)
{
    Image image{width, 70, {"R", "G", "B"}, {}};
    for (int i = 0; i < width * 70; ++i) {
        for (const int shift : {16, 8, 0}) {
            const int byte = rgb(i % width, i / width) >> shift & 0xff;
            std::get<Floats>(image.samples).push_back(static_cast<float>(byte) / 255.0F);
        }
    }
    return image;
}

Image filled(int rgb)
{
    return generate(11, [=](int, int) { return rgb; });
}

/// SSIM and FLIP.
std::array<std::optional<ImageMetric>, 2> measure(const Image& a, const Image& b,
                                                  ColorEncoding encoding = ColorEncoding::Srgb)
{
    QString error;
    const ImagePair pair = *ImagePair::match(a, b, false, &error);
    return {ssim(pair, encoding, &error), flip(pair, encoding, defaultPixelsPerDegree, &error)};
}

} // namespace

TEST(ImageMetrics, UniformColors)
{
    const std::tuple<int, int, double, double, double> cases[] = {
        {0x00ff00, 0x0000ff, 0.7152, 0.0722, 1.0},
        {0x808080, 0x818181, 128.0 / 255.0, 129.0 / 255.0, 0.029868}};
    for (const auto& [a, b, lumaA, lumaB, expectedFlip] : cases) {
        const auto [ssim, flip] = measure(filled(a), filled(b));
        EXPECT_NEAR(ssim->mean, (2 * lumaA * lumaB + 1e-4) / (lumaA * lumaA + lumaB * lumaB + 1e-4), 1e-6);
        // The published values were computed in single precision.
        EXPECT_NEAR(flip->mean, expectedFlip, 6e-5);
    }
}

TEST(ImageMetrics, FlipFiltersColorsAndFeatures)
{
    // In the first row of a band.
    const auto pixel = [](int x, int y) { return x == 20 && y == 64 ? 0xffffff : 0; };
    const Image map = measure(generate(41, pixel), generate(41, [](int, int) { return 0; }))[1]->map;
    EXPECT_NEAR(map.sample(20, 64, 0), 0.864906, 1e-6);
    EXPECT_NEAR(map.sample(21, 64, 0), 0.763491, 1e-6);
    EXPECT_NEAR(map.sample(20, 63, 0), 0.763491, 1e-6);
    // An edge that moves by one pixel and goes on beyond the image.
    const Image moved = measure(generate(41, [](int x, int) { return x < 20 ? 0 : 0xffffff; }),
                                generate(41, [](int x, int) { return x < 21 ? 0 : 0xffffff; }))[1]
                            ->map;
    EXPECT_NEAR(moved.sample(19, 69, 0), 0.772917, 2e-6);
}

TEST(ImageMetrics, SsimWeighsAPixelByItsDistance)
{
    const auto pixel = [](int x, int y) { return x == 5 && y == 30 ? 0xffffff : 0; };
    const auto darker = [](int x, int y) { return x == 5 && y == 30 ? 0x999999 : 0; };
    // The published weights of the window. It lies inside on 60 pixels of the middle column.
    const double weights[] = {0.26601172, 0.21300554, 0.10936069, 0.03600077, 0.00759876, 0.00102838};
    double sum = 49.0;
    for (int i = -5; i <= 5; ++i) {
        const double mean = weights[std::abs(i)] * weights[0];
        const double variance = mean - mean * mean;
        sum += (1.2 * mean * mean + 1e-4) * (1.2 * variance + 9e-4) /
               ((1.36 * mean * mean + 1e-4) * (1.36 * variance + 9e-4));
    }
    EXPECT_NEAR(measure(generate(11, pixel), generate(11, darker))[0]->mean, sum / 60.0, 1e-8);
}

TEST(ImageMetrics, EncodingsAndUndefinedValues)
{
    const Image black{11, 70, {"R"}, Floats(770)};
    // As much light as 0x80.
    const Image linear{11, 70, {"Z"}, Floats(770, 0.215860501F)};
    for (const size_t metric : {0, 1}) {
        EXPECT_NEAR(measure(linear, black, ColorEncoding::Linear)[metric]->mean,
                    measure(filled(0x808080), filled(0))[metric]->mean, 1e-6);
        EXPECT_FALSE(measure(black, {11, 70, {"R"}, Floats(770, NAN)})[metric]);
    }
}

} // namespace Morvane::Qel::Test
