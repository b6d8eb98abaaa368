#include <Qel/graph/support/ColorTransfer.h>

#include <cmath>

namespace Morvane::Qel {

namespace {

/// Returns the stored colour of a pixel with a function applied to each channel.
template<typename Function>
std::array<double, 3> color(const ImagePair& pair, size_t image, int x, int y, Function function)
{
    std::array<double, 3> result = {};
    for (size_t i = 0; i < 3; ++i) {
        result[i] = function(pair.sample(image, x, y, (*pair.colorChannels())[i]));
    }
    return result;
}

} // namespace

std::array<double, 3> linearColor(const ImagePair& pair, size_t image, int x, int y, ColorEncoding encoding)
{
    return color(pair, image, x, y, [&](double value) {
        return encoding == ColorEncoding::Linear ? value
               : value <= 0.04045                ? value / 12.92
                                                 : std::pow((value + 0.055) / 1.055, 2.4);
    });
}

std::array<double, 3> encodedColor(const ImagePair& pair, size_t image, int x, int y, ColorEncoding encoding)
{
    return color(pair, image, x, y, [&](double value) {
        return encoding == ColorEncoding::Srgb ? value
               : value <= 0.0031308            ? 12.92 * value
                                               : 1.055 * std::pow(value, 1.0 / 2.4) - 0.055;
    });
}

} // namespace Morvane::Qel
