#include "support/Pixels.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <random>

#include <epoxy/gl.h>

#include <Qel/gl/Formats.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

namespace Morvane::Qel::Test {

namespace {

std::unique_ptr<Texture> makeTexture(int width, int height, unsigned int internalFormat, unsigned int format,
                                     unsigned int type, const void* texels)
{
    auto texture = std::make_unique<Texture>();
    texture->setFilter(GL_NEAREST, GL_NEAREST);
    int alignment = 0;
    glGetIntegerv(GL_UNPACK_ALIGNMENT, &alignment);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    texture->setImage2D(0, internalFormat, width, height, format, type, texels);
    glPixelStorei(GL_UNPACK_ALIGNMENT, alignment);
    return texture;
}

/// The components of a texel of an integer format.
unsigned int numComponents(unsigned int format)
{
    return format == GL_RED_INTEGER ? 1U : format == GL_RG_INTEGER ? 2U : 4U;
}

} // namespace

const QVector4D& Pixels::clamped(int x, int y) const
{
    return at(std::clamp(x, 0, width - 1), std::clamp(y, 0, height - 1));
}

QVector4D Pixels::linear(double x, double y) const
{
    const int left = static_cast<int>(std::floor(x));
    const int low = static_cast<int>(std::floor(y));
    QVector4D result;
    for (int c = 0; c < 4; ++c) {
        const auto texel = [&](int i, int j) { return static_cast<double>(clamped(i, j)[c]); };
        result[c] = static_cast<float>(
            std::lerp(std::lerp(texel(left, low), texel(left + 1, low), x - left),
                      std::lerp(texel(left, low + 1), texel(left + 1, low + 1), x - left), y - low));
    }
    return result;
}

Pixels Pixels::generate(int width, int height, const std::function<QVector4D(int, int)>& f)
{
    Pixels pixels = filled(width, height, {});
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            pixels.at(x, y) = f(x, y);
        }
    }
    return pixels;
}

Pixels Pixels::filled(int width, int height, const QVector4D& value)
{
    const size_t size = static_cast<size_t>(width) * static_cast<size_t>(height);
    return {width, height, std::vector<QVector4D>(size, value)};
}

Pixels Pixels::noise(int width, int height, unsigned int seed)
{
    std::mt19937 random(seed);
    return generate(width, height, [&](int, int) {
        QVector4D value;
        for (int c = 0; c < 4; ++c) {
            value[c] = static_cast<float>(random() % 256) / 255.0F;
        }
        return value;
    });
}

Pixels Pixels::mapped(const std::function<QVector4D(const QVector4D&)>& f) const
{
    return generate(width, height, [&](int x, int y) { return f(at(x, y)); });
}

Pixels Pixels::roundedToBytes() const
{
    return mapped([](QVector4D value) {
        for (int c = 0; c < 4; ++c) {
            value[c] = std::round(value[c] * 255.0F) / 255.0F;
        }
        return value;
    });
}

QVector4D Pixels::mean() const
{
    QVector4D result;
    for (int c = 0; c < 4; ++c) {
        const double sum =
            std::accumulate(values.begin(), values.end(), 0.0,
                            [c](double s, const QVector4D& v) { return s + static_cast<double>(v[c]); });
        result[c] = static_cast<float>(sum / static_cast<double>(values.size()));
    }
    return result;
}

testing::AssertionResult equal(const Pixels& actual, const Pixels& expected, float tolerance)
{
    if (actual.width != expected.width || actual.height != expected.height) {
        return testing::AssertionFailure() << "is " << actual.width << "x" << actual.height << ", expected "
                                           << expected.width << "x" << expected.height;
    }
    size_t worst = 0;
    double worstDifference = -1.0;
    size_t numDifferent = 0;
    for (size_t i = 0; i < actual.values.size(); ++i) {
        if (expected.values[i] == anyPixel) {
            continue;
        }
        double difference = 0.0;
        for (int c = 0; c < 4; ++c) {
            const double d = std::abs(static_cast<double>(actual.values[i][c]) -
                                      static_cast<double>(expected.values[i][c]));
            difference = std::isnan(d) ? INFINITY : std::max(difference, d);
        }
        numDifferent += difference > static_cast<double>(tolerance) ? 1 : 0;
        if (difference > worstDifference) {
            worstDifference = difference;
            worst = i;
        }
    }
    // Expected images that leave more open than they check prove nothing.
    const auto numAny =
        static_cast<size_t>(std::count(expected.values.begin(), expected.values.end(), anyPixel));
    if (2 * numAny > actual.values.size()) {
        return testing::AssertionFailure()
               << "the expected image leaves " << numAny << " of " << actual.values.size() << " pixels open";
    }
    if (numDifferent == 0) {
        return testing::AssertionSuccess();
    }
    const auto list = [](const QVector4D& v) {
        return testing::PrintToString(std::array{v.x(), v.y(), v.z(), v.w()});
    };
    const auto width = static_cast<size_t>(actual.width);
    return testing::AssertionFailure()
           << numDifferent << " of " << actual.values.size() << " pixels differ by more than " << tolerance
           << "; the worst, (" << worst % width << ", " << worst / width << "), is "
           << list(actual.values[worst]) << ", expected " << list(expected.values[worst]);
}

std::unique_ptr<Texture> makeTexture(const Pixels& pixels, unsigned int internalFormat)
{
    const unsigned int format = formatFromInternalFormat(internalFormat);
    if (format == GL_DEPTH_STENCIL || format == GL_DEPTH_COMPONENT) {
        std::vector<float> depths;
        std::vector<unsigned int> withStencil;
        for (const QVector4D& value : pixels.values) {
            depths.push_back(value.x());
            const auto depth24 = std::lround(static_cast<double>(value.x()) * 0xffffff);
            withStencil.push_back(static_cast<unsigned int>(depth24) << 8);
        }
        return format == GL_DEPTH_COMPONENT
                   ? makeTexture(pixels.width, pixels.height, internalFormat, format, GL_FLOAT, depths.data())
                   : makeTexture(pixels.width, pixels.height, internalFormat, format, GL_UNSIGNED_INT_24_8,
                                 withStencil.data());
    }
    return makeTexture(pixels.width, pixels.height, internalFormat, GL_RGBA, GL_FLOAT, pixels.values.data());
}

std::unique_ptr<Texture> makeTexture(int width, int height, unsigned int internalFormat,
                                     const std::function<QVector4D(int, int)>& f)
{
    return makeTexture(Pixels::generate(width, height, f), internalFormat);
}

std::unique_ptr<Texture> makeIntegerTexture(int width, int height, unsigned int internalFormat,
                                            const std::vector<unsigned int>& texels)
{
    return makeTexture(width, height, internalFormat, formatFromInternalFormat(internalFormat),
                       GL_UNSIGNED_INT, texels.data());
}

Texture* makePooledTexture(const Pixels& pixels, TextureFormat format)
{
    Texture* texture = TextureManager::Instance()->tempTexture(format, pixels.width, pixels.height);
    const std::unique_ptr<Texture> source = makeTexture(pixels, texture->internalFormat());
    const unsigned int glFormat = formatFromInternalFormat(texture->internalFormat());
    const unsigned int type = glFormat == GL_DEPTH_STENCIL ? GL_UNSIGNED_INT_24_8 : GL_FLOAT;
    // A texel of GL_DEPTH_STENCIL takes 4 bytes, one of GL_RGBA 16.
    std::vector<QVector4D> texels(pixels.values.size());
    {
        const AutoBinder binder(source.get());
        glGetTexImage(GL_TEXTURE_2D, 0, glFormat, type, texels.data());
    }
    const AutoBinder binder(texture);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, pixels.width, pixels.height, glFormat, type, texels.data());
    return texture;
}

Pixels readTexture(Texture* texture, int level)
{
    const AutoBinder binder(texture);
    int width = 0;
    int height = 0;
    int internalFormat = 0;
    glGetTexLevelParameteriv(GL_TEXTURE_2D, level, GL_TEXTURE_WIDTH, &width);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, level, GL_TEXTURE_HEIGHT, &height);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, level, GL_TEXTURE_INTERNAL_FORMAT, &internalFormat);
    Pixels pixels = Pixels::filled(width, height, {});
    const unsigned int format = formatFromInternalFormat(static_cast<unsigned int>(internalFormat));
    if (format == GL_DEPTH_COMPONENT || format == GL_DEPTH_STENCIL) {
        std::vector<float> depth(pixels.values.size());
        glGetTexImage(GL_TEXTURE_2D, level, GL_DEPTH_COMPONENT, GL_FLOAT, depth.data());
        for (size_t i = 0; i < depth.size(); ++i) {
            pixels.values[i] = QVector4D(depth[i], depth[i], depth[i], depth[i]);
        }
    } else {
        glGetTexImage(GL_TEXTURE_2D, level, GL_RGBA, GL_FLOAT, pixels.values.data());
    }
    return pixels;
}

std::vector<Pixels> readLayers(Texture* texture)
{
    const QSize size = texture->size();
    const auto numLayers = static_cast<size_t>(texture->layers());
    const size_t layerSize = static_cast<size_t>(size.width()) * static_cast<size_t>(size.height());
    std::vector<QVector4D> texels(numLayers * layerSize);
    const AutoBinder binder(texture);
    glGetTexImage(GL_TEXTURE_2D_ARRAY, 0, GL_RGBA, GL_FLOAT, texels.data());
    std::vector<Pixels> layers;
    for (size_t layer = 0; layer < numLayers; ++layer) {
        const auto begin = texels.begin() + static_cast<std::ptrdiff_t>(layer * layerSize);
        layers.push_back(
            {size.width(), size.height(), {begin, begin + static_cast<std::ptrdiff_t>(layerSize)}});
    }
    return layers;
}

std::vector<unsigned int> readIntegers(Texture* texture)
{
    if (hasGLExtension("ARB_shader_image_load_store")) {
        glMemoryBarrier(GL_ALL_BARRIER_BITS);
    }
    const unsigned int format = formatFromInternalFormat(texture->internalFormat());
    std::vector<unsigned int> texels(numComponents(format) * static_cast<size_t>(texture->size().width()) *
                                     static_cast<size_t>(texture->size().height()));
    const AutoBinder binder(texture);
    glGetTexImage(GL_TEXTURE_2D, 0, format, GL_UNSIGNED_INT, texels.data());
    return texels;
}

Pixels readScreen(int width, int height)
{
    Pixels pixels = Pixels::filled(width, height, {});
    glBindFramebuffer(GL_READ_FRAMEBUFFER, 0);
    glReadPixels(0, 0, width, height, GL_RGBA, GL_FLOAT, pixels.values.data());
    return pixels;
}

} // namespace Morvane::Qel::Test
