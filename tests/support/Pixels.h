#pragma once

#include <QString>
#include <QVector4D>

#include <functional>
#include <vector>

#include <gtest/gtest.h>

namespace Morvane::Qel {
class Texture;
}

namespace Morvane::Qel::Test {

/// A picture of RGBA floats, bottom row first as GL keeps it.
struct Pixels
{
    int width = 0;
    int height = 0;
    std::vector<QVector4D> values;

    QVector4D& at(int x, int y) { return values[index(x, y)]; }
    const QVector4D& at(int x, int y) const { return values[index(x, y)]; }
    size_t index(int x, int y) const
    {
        return static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x);
    }

    /// A picture whose pixel (x, y) is f(x, y).
    static Pixels generate(int width, int height, const std::function<QVector4D(int, int)>& f);

    /// The picture with every component at the nearest n / 255: drivers do not agree on the last bit of the
    /// floats that they read 8-bit textures as.
    Pixels roundedToBytes() const;
};

/// Level 0 of a 2D texture, or the depth of a depth texture in all four components.
Pixels readTexture(Texture* texture);
/// The default framebuffer.
Pixels readScreen(int width, int height);
/// A texture of this internal format that holds the picture, with nearest filtering; the caller owns it.
Texture* makeTexture(const Pixels& pixels, unsigned int internalFormat);

/// Whether two pictures agree in size and, in every component of every pixel, up to the tolerance. NaN agrees
/// with nothing. The message names the worst pixel.
testing::AssertionResult equal(const Pixels& actual, const Pixels& expected, float tolerance = 0.0F);

} // namespace Morvane::Qel::Test
