#include "support/Pixels.h"

#include <array>
#include <cmath>

#include <epoxy/gl.h>

#include <Qel/gl/Formats.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>

namespace Morvane::Qel::Test {

Pixels Pixels::generate(int width, int height, const std::function<QVector4D(int, int)>& f)
{
    Pixels pixels{width, height,
                  std::vector<QVector4D>(static_cast<size_t>(width) * static_cast<size_t>(height))};
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            pixels.at(x, y) = f(x, y);
        }
    }
    return pixels;
}

Pixels Pixels::roundedToBytes() const
{
    return generate(width, height, [&](int x, int y) {
        QVector4D value = at(x, y);
        for (int c = 0; c < 4; ++c) {
            value[c] = std::round(value[c] * 255.0F) / 255.0F;
        }
        return value;
    });
}

Pixels readTexture(Texture* texture)
{
    const AutoBinder binder(texture);
    int width = 0;
    int height = 0;
    int internalFormat = 0;
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &width);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &height);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_INTERNAL_FORMAT, &internalFormat);
    Pixels pixels{width, height,
                  std::vector<QVector4D>(static_cast<size_t>(width) * static_cast<size_t>(height))};
    const unsigned int format = formatFromInternalFormat(static_cast<unsigned int>(internalFormat));
    if (format == GL_DEPTH_COMPONENT || format == GL_DEPTH_STENCIL) {
        std::vector<float> depth(pixels.values.size());
        glGetTexImage(GL_TEXTURE_2D, 0, GL_DEPTH_COMPONENT, GL_FLOAT, depth.data());
        for (size_t i = 0; i < depth.size(); ++i) {
            pixels.values[i] = QVector4D(depth[i], depth[i], depth[i], depth[i]);
        }
    } else {
        glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA, GL_FLOAT, pixels.values.data());
    }
    return pixels;
}

Pixels readScreen(int width, int height)
{
    Pixels pixels{width, height,
                  std::vector<QVector4D>(static_cast<size_t>(width) * static_cast<size_t>(height))};
    glBindFramebuffer(GL_READ_FRAMEBUFFER, 0);
    glReadPixels(0, 0, width, height, GL_RGBA, GL_FLOAT, pixels.values.data());
    return pixels;
}

Texture* makeTexture(const Pixels& pixels, unsigned int internalFormat)
{
    auto* texture = new Texture;
    texture->setFilter(GL_NEAREST, GL_NEAREST);
    texture->setImage2D(0, internalFormat, pixels.width, pixels.height, GL_RGBA, GL_FLOAT,
                        pixels.values.data());
    return texture;
}

testing::AssertionResult equal(const Pixels& actual, const Pixels& expected, float tolerance)
{
    if (actual.width != expected.width || actual.height != expected.height) {
        return testing::AssertionFailure() << "is " << actual.width << "x" << actual.height << ", not "
                                           << expected.width << "x" << expected.height;
    }
    double worst = -1.0;
    int worstX = 0;
    int worstY = 0;
    int numDifferent = 0;
    for (int y = 0; y < actual.height; ++y) {
        for (int x = 0; x < actual.width; ++x) {
            double difference = 0.0;
            for (int c = 0; c < 4; ++c) {
                const double d = std::abs(static_cast<double>(actual.at(x, y)[c]) -
                                          static_cast<double>(expected.at(x, y)[c]));
                difference = std::isnan(d) ? INFINITY : std::max(difference, d);
            }
            numDifferent += difference > static_cast<double>(tolerance) ? 1 : 0;
            if (difference > worst) {
                worst = difference;
                worstX = x;
                worstY = y;
            }
        }
    }
    if (numDifferent == 0) {
        return testing::AssertionSuccess();
    }
    const auto print = [](const QVector4D& v) {
        return testing::PrintToString(std::array{v.x(), v.y(), v.z(), v.w()});
    };
    return testing::AssertionFailure()
           << numDifferent << " pixels differ by more than " << tolerance << "; the worst, (" << worstX
           << ", " << worstY << "), is " << print(actual.at(worstX, worstY)) << ", not "
           << print(expected.at(worstX, worstY));
}

} // namespace Morvane::Qel::Test
