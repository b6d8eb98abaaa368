#include "Noise.h"

#include <cmath>
#include <cstdint>

namespace Morvane::Qel {

float hashedUnit(int x, int y, int seed)
{
    auto bits = static_cast<std::uint32_t>(x) * 0x8DA6B343U ^ static_cast<std::uint32_t>(y) * 0xD8163841U ^
                static_cast<std::uint32_t>(seed) * 0xCB1AB31FU;
    bits = (bits ^ bits >> 16) * 0x7FEB352DU;
    bits = (bits ^ bits >> 15) * 0x846CA68BU;
    bits ^= bits >> 16;
    return static_cast<float>(bits >> 8) / 16777216.0F;
}

float tiledNoise(float x, float y, int period, int seed)
{
    const auto wrapped = [&](int i) { return (i % period + period) % period; };
    const auto cellX = static_cast<int>(std::floor(x));
    const auto cellY = static_cast<int>(std::floor(y));
    const auto lattice = [&](int stepX, int stepY) {
        return hashedUnit(wrapped(cellX + stepX), wrapped(cellY + stepY), seed);
    };
    const auto eased = [](float t) { return t * t * (3.0F - 2.0F * t); };
    const float s = eased(x - static_cast<float>(cellX));
    const float t = eased(y - static_cast<float>(cellY));
    const float low = std::lerp(lattice(0, 0), lattice(1, 0), s);
    const float high = std::lerp(lattice(0, 1), lattice(1, 1), s);
    return std::lerp(low, high, t);
}

float tiledClouds(float x, float y, int period, int seed)
{
    constexpr int Octaves = 4;
    float sum = 0.0F;
    float weight = 0.0F;
    for (int octave = 0; octave < Octaves; ++octave) {
        const auto finer = static_cast<float>(1 << octave);
        sum += tiledNoise(x * finer, y * finer, period << octave, seed + octave) / finer;
        weight += 1.0F / finer;
    }
    return sum / weight;
}

} // namespace Morvane::Qel
