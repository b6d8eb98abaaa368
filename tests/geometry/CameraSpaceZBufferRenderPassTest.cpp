// Positions out of depth against the inverse projection on the CPU, in double precision.

#include <QMatrix4x4>
#include <QRect>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include "support/Pixels.h"
#include <Qel/RenderPasses/geometry/CameraSpaceZBufferRenderPass.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel::Test {
namespace {

using Pass = CameraSpaceZBufferRenderPass;

constexpr double nearPlane = 0.5;
constexpr double farPlane = 8.0;

/// A size that halves unevenly.
constexpr int width = 45;
constexpr int height = 26;

/// Depths of all sizes, the planes' among them; multiples of 2^-16, which every depth format holds.
float depthAt(int x, int y)
{
    if (x == 0) {
        return y % 2 == 0 ? 0.0F : 1.0F;
    }
    return static_cast<float>((x * 7919 + y * 104729) % 65537) / 65536.0F;
}

std::unique_ptr<Texture> makeDepth(unsigned int internalFormat)
{
    std::vector<float> depths;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            depths.push_back(depthAt(x, y));
        }
    }
    auto texture = std::make_unique<Texture>();
    texture->setFilter(GL_NEAREST, GL_NEAREST);
    texture->setImage2D(0, internalFormat, width, height, formatFromInternalFormat(internalFormat),
                        typeFromInternalFormat(internalFormat), nullptr);
    const AutoBinder binder(texture.get());
    if (formatFromInternalFormat(internalFormat) == GL_DEPTH_STENCIL) {
        std::vector<unsigned int> texels(depths.size());
        std::transform(depths.begin(), depths.end(), texels.begin(), [](float depth) {
            return static_cast<unsigned int>(std::lround(depth * 16777215.0)) << 8;
        });
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8,
                        texels.data());
    } else {
        const GLenum format = internalFormat == GL_R32F ? GL_RED : GL_DEPTH_COMPONENT;
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, format, GL_FLOAT, depths.data());
    }
    return texture;
}

QMatrix4x4 makePerspective()
{
    QMatrix4x4 projection;
    // Not symmetric, as a jittered one.
    projection.frustum(-0.45F, 0.35F, -0.2F, 0.25F, static_cast<float>(nearPlane),
                       static_cast<float>(farPlane));
    return projection;
}

QMatrix4x4 makeOrthographic()
{
    QMatrix4x4 projection;
    projection.ortho(-2.0F, 3.0F, -1.0F, 1.5F, static_cast<float>(nearPlane), static_cast<float>(farPlane));
    return projection;
}

/// Where the depth test of that projection saw the pixel, from the planes of the view volume.
QVector4D positionAt(const QMatrix4x4& projection, int x, int y)
{
    const double u = 2.0 * (x + 0.5) / width - 1.0;
    const double v = 2.0 * (y + 0.5) / height - 1.0;
    const double d = static_cast<double>(depthAt(x, y));
    const auto p = [&](int row, int column) { return static_cast<double>(projection(row, column)); };
    const bool isPerspective = projection(3, 3) == 0.0F;
    const double distance = isPerspective ? nearPlane * farPlane / (farPlane - d * (farPlane - nearPlane))
                                          : nearPlane + d * (farPlane - nearPlane);
    if (isPerspective) {
        return {static_cast<float>((u + p(0, 2)) / p(0, 0) * distance),
                static_cast<float>((v + p(1, 2)) / p(1, 1) * distance), static_cast<float>(-distance), 1.0F};
    }
    return {static_cast<float>((u - p(0, 3)) / p(0, 0)), static_cast<float>((v - p(1, 3)) / p(1, 1)),
            static_cast<float>(-distance), 1.0F};
}

Pixels readLevel(Texture* texture, int level, int levelWidth, int levelHeight)
{
    Pixels pixels = Pixels::generate(levelWidth, levelHeight, [](int, int) { return QVector4D(); });
    const AutoBinder binder(texture);
    glGetTexImage(GL_TEXTURE_2D, level, GL_RGBA, GL_FLOAT, pixels.values.data());
    return pixels;
}

class CameraSpaceZBufferRenderPassTest : public GLTest
{
};

TEST_F(CameraSpaceZBufferRenderPassTest, UnprojectsEveryPixelOfEveryDepthFormat)
{
    Pass pass;
    for (const QMatrix4x4& projection : {makePerspective(), makeOrthographic()}) {
        const Pixels expected =
            Pixels::generate(width, height, [&](int x, int y) { return positionAt(projection, x, y); });
        // Distances in a colour texture are not attached but sampled all the same.
        for (const GLenum format : {GL_DEPTH_COMPONENT32F, GL_DEPTH24_STENCIL8, GL_DEPTH_COMPONENT24,
                                    GL_DEPTH_COMPONENT16, GL_R32F}) {
            const std::unique_ptr<Texture> depth = makeDepth(format);
            const Pixels actual =
                render(pass, {QRect(3, 4, width, height), textureInput(depth.get()), projection});
            ASSERT_EQ(actual.values.size(), expected.values.size());
            for (size_t i = 0; i < expected.values.size(); ++i) {
                // At the far plane a step of 2^-16 in depth is 1.8e-3 in distance, and the formats round by
                // up to half of one of 16 bits.
                const float tolerance = format == GL_DEPTH_COMPONENT16 ? 2e-3F : 5e-5F;
                ASSERT_LT((actual.values[i] - expected.values[i]).length(), tolerance)
                    << "pixel " << i << " of format " << qPrintable(internalFormatName(format));
                ASSERT_EQ(actual.values[i].w(), 1.0F);
            }
        }
    }
}

TEST_F(CameraSpaceZBufferRenderPassTest, EveryLevelHoldsOneOfTheFourTexelsBelow)
{
    const std::unique_ptr<Texture> depth = makeDepth(GL_DEPTH_COMPONENT32F);
    Pass pass;
    // The second time it draws into the same texture.
    for (int frame = 0; frame < 2; ++frame) {
        runFrame(pass, {QRect(0, 0, width, height), textureInput(depth.get()), makePerspective()});
        Texture* positions = outputTexture(pass);
        constexpr std::array sizes{QSize(45, 26), QSize(22, 13), QSize(11, 6),
                                   QSize(5, 3),   QSize(2, 1),   QSize(1, 1)};
        Pixels finer = readLevel(positions, 0, width, height);
        for (size_t level = 1; level < sizes.size(); ++level) {
            const QSize size = sizes[level];
            const Pixels actual = readLevel(positions, static_cast<int>(level), size.width(), size.height());
            const Pixels expected = Pixels::generate(size.width(), size.height(), [&](int x, int y) {
                const int column = 2 * x + (y % 2 == 0 ? 1 : 0);
                const int row = 2 * y + (x % 2 == 0 ? 1 : 0);
                return finer.at(std::min(column, finer.width - 1), std::min(row, finer.height - 1));
            });
            EXPECT_TRUE(equal(actual, expected)) << "level " << level;
            finer = actual;
        }
        EXPECT_EQ(positions->parameter(GL_TEXTURE_MAX_LEVEL), 1000) << "the next borrower gets all levels";
        EXPECT_EQ(positions->parameter(GL_TEXTURE_MIN_FILTER), GL_NEAREST_MIPMAP_NEAREST);
        TextureManager::Instance()->releaseTempTextureRef(positions, 1);
    }
}

TEST_F(CameraSpaceZBufferRenderPassTest, LeavesTheDepthAsItIsAndDepthMaskAndStencilTestOff)
{
    TextureManager* pool = TextureManager::Instance();
    const std::unique_ptr<Texture> depth = makeDepth(GL_DEPTH24_STENCIL8);
    const Pixels before = readTexture(depth.get());
    Pass pass;
    runFrame(pass, {QRect(0, 0, width, height), textureInput(depth.get()), makePerspective()});
    unsigned char depthMask = GL_TRUE;
    glGetBooleanv(GL_DEPTH_WRITEMASK, &depthMask);
    EXPECT_EQ(depthMask, GL_FALSE);
    EXPECT_FALSE(context().isEnabled(GL_STENCIL_TEST));
    EXPECT_TRUE(equal(readTexture(depth.get()), before));
    pool->releaseTempTextureRef(outputTexture(pass), 1);

    // Without depth everything lies on the near plane; without a projection that is z = -1.
    const Pixels flat = render(pass, {QRect(0, 0, 8, 4), {}, {}});
    EXPECT_TRUE(equal(flat,
                      Pixels::generate(8, 4,
                                       [](int x, int y) {
                                           return QVector4D(static_cast<float>(x) / 4.0F - 0.875F,
                                                            static_cast<float>(y) / 2.0F - 0.75F, -1.0F,
                                                            1.0F);
                                       }),
                      1e-6F));
}

} // namespace
} // namespace Morvane::Qel::Test
