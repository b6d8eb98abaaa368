// Positions against the planes of the view volume, mip levels against the four texels below.

#include "support/Scene.h"

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include <Qel/RenderPasses/geometry/CameraSpaceZBufferRenderPass.h>

namespace Morvane::Qel::Test {
namespace {

constexpr float nearPlane = 0.5F;
constexpr float farPlane = 8.0F;
/// A size whose mip levels are odd in one direction or the other.
constexpr int width = 45;
constexpr int height = 26;
const QRect viewport(3, 4, width, height);

/// Depths over the whole range, both planes included; multiples of 2^-16, which every depth format holds.
float depthAt(int x, int y)
{
    if (x == 0) {
        return y % 2 == 0 ? 0.0F : 1.0F;
    }
    return static_cast<float>((x * 7919 + y * 104729) % 65537) / 65536.0F;
}

std::unique_ptr<Texture> makeDepth(unsigned int internalFormat)
{
    return makeTexture(width, height, internalFormat,
                       [](int x, int y) { return QVector4D(depthAt(x, y), 0, 0, 1); });
}

/// Asymmetric, like a jittered projection.
QMatrix4x4 makePerspective()
{
    QMatrix4x4 projection;
    projection.frustum(-0.45F, 0.35F, -0.2F, 0.25F, nearPlane, farPlane);
    return projection;
}

using CameraSpaceZBufferRenderPassTest = GLTest;

TEST_F(CameraSpaceZBufferRenderPassTest, UnprojectsEveryPixelOfEveryDepthFormat)
{
    QMatrix4x4 orthographic;
    orthographic.ortho(-2.0F, 3.0F, -1.0F, 1.5F, nearPlane, farPlane);
    const auto image = [](const std::function<QVector4D(float u, float v, float depth)>& position) {
        return Pixels::generate(width, height, [&](int x, int y) {
            return position((static_cast<float>(x) + 0.5F) / width, (static_cast<float>(y) + 0.5F) / height,
                            depthAt(x, y));
        });
    };
    const Pixels parallel = image([](float u, float v, float d) {
        return QVector4D(5.0F * u - 2.0F, 2.5F * v - 1.0F, -nearPlane - d * (farPlane - nearPlane), 1);
    });
    const Pixels pinhole = image([](float u, float v, float d) {
        const float scale = farPlane / (farPlane - d * (farPlane - nearPlane));
        return QVector4D((0.8F * u - 0.45F) * scale, (0.45F * v - 0.2F) * scale, -nearPlane * scale, 1);
    });
    Runner<CameraSpaceZBufferRenderPass> pass;
    for (const int users : {2, 0, 1}) {
        pass.setNumUsers(users);
        // The last one, a colour format, is sampled without being attached.
        for (const GLenum format : {GL_DEPTH_COMPONENT32F, GL_DEPTH24_STENCIL8, GL_DEPTH_COMPONENT24,
                                    GL_DEPTH_COMPONENT16, GL_R32F}) {
            // Close to the far plane, half a step of 16 bits is 0.9e-3 in distance.
            const float tolerance = format == GL_DEPTH_COMPONENT16 ? 2e-3F : 5e-5F;
            const auto depth = makeDepth(format);
            EXPECT_TRUE(equal(pass.render({viewport, depth, makePerspective()}), pinhole, tolerance))
                << "format " << format;
            EXPECT_TRUE(equal(pass.render({viewport, depth, orthographic}), parallel, tolerance))
                << "format " << format;
        }
    }
}

TEST_F(CameraSpaceZBufferRenderPassTest, EveryLevelHoldsOneOfTheFourTexelsBelow)
{
    const auto depth = makeDepth(GL_DEPTH_COMPONENT32F);
    Runner<CameraSpaceZBufferRenderPass> pass;
    // The second frame draws into the same texture.
    for (int frame = 0; frame < 2; ++frame) {
        pass.run({viewport, depth, makePerspective()});
        int level = 0;
        Pixels finer = pass.pixels();
        for (const QSize& size : {QSize(22, 13), QSize(11, 6), QSize(5, 3), QSize(2, 1), QSize(1, 1)}) {
            const auto expected = Pixels::generate(size.width(), size.height(), [&](int x, int y) {
                return finer.clamped(2 * x + (y % 2 == 0 ? 1 : 0), 2 * y + (x % 2 == 0 ? 1 : 0));
            });
            finer = readTexture(pass.texture(), ++level);
            EXPECT_TRUE(equal(finer, expected)) << "level " << level;
        }
        EXPECT_EQ(pass.texture()->parameter(GL_TEXTURE_BASE_LEVEL), 0);
        EXPECT_EQ(pass.texture()->parameter(GL_TEXTURE_MAX_LEVEL), 1000)
            << "the next borrower gets all levels";
        EXPECT_EQ(pass.texture()->parameter(GL_TEXTURE_MIN_FILTER), GL_NEAREST_MIPMAP_NEAREST);
    }
}

TEST_F(CameraSpaceZBufferRenderPassTest, PreservesTheDepthAndLeavesDepthMaskAndStencilTestOff)
{
    const auto depth = makeDepth(GL_DEPTH24_STENCIL8);
    const Pixels before = readTexture(depth.get());
    Runner<CameraSpaceZBufferRenderPass> pass;
    pass.runAround([&](RenderPass& p) {
        p.setInput(0, viewport);
        p.setInput(1, Input(depth).value());
        context().enable(GL_STENCIL_TEST);
        context().enable(GL_DEPTH_TEST);
        p.start(nullptr);
    });
    EXPECT_TRUE(context().isEnabled(GL_DEPTH_TEST));
    EXPECT_NEAR(pass.pixels(0).at(0, 0).x(), 1.0F / width - 1.0F, 1e-6F) << "the depth test rejected a pixel";
    unsigned char depthMask = GL_TRUE;
    glGetBooleanv(GL_DEPTH_WRITEMASK, &depthMask);
    EXPECT_EQ(depthMask, GL_FALSE);
    EXPECT_FALSE(context().isEnabled(GL_STENCIL_TEST));
    EXPECT_TRUE(equal(readTexture(depth.get()), before));

    // Without a depth every position lies on the near plane, which is z = -1 without a projection.
    EXPECT_TRUE(equal(pass.render({QRect(0, 0, 8, 4), nullptr, {}}),
                      Pixels::generate(8, 4,
                                       [](int x, int y) {
                                           return QVector4D(static_cast<float>(x) / 4.0F - 0.875F,
                                                            static_cast<float>(y) / 2.0F - 0.75F, -1, 1);
                                       }),
                      1e-6F));
}

} // namespace
} // namespace Morvane::Qel::Test
