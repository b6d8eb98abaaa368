#pragma once

#include <QString>
#include <QVector4D>

#include <functional>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel {
class Texture;
}

namespace Morvane::Qel::Test {

/// In an expected image, a pixel that any value matches.
inline const QVector4D anyPixel(-1.0e30F, -1.0e30F, -1.0e30F, -1.0e30F);

/// An image of RGBA floats, bottom row first as in GL.
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
    /// The pixel at (x, y), clamped to the edge.
    const QVector4D& clamped(int x, int y) const;
    /// The bilinear interpolation at a position, clamped to the edge. Pixel centres have integer coordinates.
    QVector4D linear(double x, double y) const;

    /// Returns the image whose pixel (x, y) is f(x, y).
    static Pixels generate(int width, int height, const std::function<QVector4D(int, int)>& f);
    /// Returns an image of one colour.
    static Pixels filled(int width, int height, const QVector4D& value);
    /// Returns random colours, independent in each channel, on the grid of 8-bit values.
    static Pixels noise(int width, int height, unsigned int seed);

    /// Returns the image whose pixels are f of this one's.
    Pixels mapped(const std::function<QVector4D(const QVector4D&)>& f) const;
    /// Rounds every component to the nearest n / 255, since drivers differ in the last bit when they convert
    /// 8-bit texels to float.
    Pixels roundedToBytes() const;
    /// Returns the mean of all pixels.
    QVector4D mean() const;
};

/// Whether two images have the same size and every component agrees within the tolerance, except where the
/// expected image holds `anyPixel`. NaN agrees with nothing. On failure the message gives the number of wrong
/// pixels and the worst one.
testing::AssertionResult equal(const Pixels& actual, const Pixels& expected, float tolerance = 0.0F);

/// \name Textures from images
/// With nearest filtering.
/// @{

/// Uploads an image; a depth format takes the depth from the first component.
std::unique_ptr<Texture> makeTexture(const Pixels& pixels, unsigned int internalFormat);
/// Uploads the image whose pixel (x, y) is f(x, y).
std::unique_ptr<Texture> makeTexture(int width, int height, unsigned int internalFormat,
                                     const std::function<QVector4D(int, int)>& f);
/// Uploads unsigned integers to GL_R32UI, GL_RG32UI or GL_RGBA32UI.
std::unique_ptr<Texture> makeIntegerTexture(int width, int height, unsigned int internalFormat,
                                            const std::vector<unsigned int>& texels);
/// Borrows a pooled texture with one reference, for the pass that reads it to release, and uploads an image.
Texture* makePooledTexture(const Pixels& pixels, TextureFormat format);
/// @}

/// \name Reading back
/// @{

/// Reads a level of a 2D texture; a depth texture's value fills all four components.
Pixels readTexture(Texture* texture, int level = 0);
/// Reads level 0 of each layer of a 2D array texture.
std::vector<Pixels> readLayers(Texture* texture);
/// Reads an unsigned integer texture, all components of a texel in a row.
std::vector<unsigned int> readIntegers(Texture* texture);
/// Reads the default framebuffer.
Pixels readScreen(int width, int height);
/// @}

} // namespace Morvane::Qel::Test
