// Ambient obscurance against the method computed on the CPU, in the corner of a room.

#include <array>
#include <cmath>
#include <functional>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Scene.h"
#include <Qel/RenderPasses/geometry/CameraSpaceZBufferRenderPass.h>
#include <Qel/RenderPasses/lighting/ScalableAmbientObscuranceRenderPass.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Pass = ScalableAmbientObscuranceRenderPass;

constexpr int width = 96;
constexpr int height = 64;
constexpr float nearPlane = 0.5F;
constexpr float farPlane = 20.0F;

/// The error of 16-bit floats up to 1, plus the small differences in sine and cosine.
constexpr float halfPrecision = 5e-4F;

const Pixels white = Pixels::filled(width, height, {1, 1, 1, 1});

/// The inside of a cube.
Scene makeRoom()
{
    QMatrix4x4 transform;
    transform.scale(4.6F);
    return Scene(makeModelData(makeCube(), {}, transform));
}

/// Looks from the centre into the corner at (2.3, 2.3, 2.3), which is in the middle of the image.
View lookIntoCorner(View view = View::perspective({width, height}, 60.0F, nearPlane, farPlane))
{
    return view.from({0, 0, 0}, {1, 1, 1});
}

struct Settings
{
    float radius = 0.5F;
    float bias = 0.01F;
    float intensity = 2.0F;
    float numSamples = 11.0F;
    float logMaxOffset = 3.0F;
    float numTurns = 3.0F;
    float divider = 1.0F;
};

std::vector<Input> inputs(const View& view, const Settings& s, const Input& depth,
                          const Input& positions = {}, const Input& normals = {})
{
    return view.inputs({nearPlane, farPlane, depth, s.radius, s.bias, s.intensity, positions, normals,
                        s.numSamples, s.logMaxOffset, s.numTurns, s.divider});
}

/// The published method, in the single precision that the angles of its taps depend on.
struct Method
{
    Settings settings;
    QMatrix4x4 projection;
    Pixels depths;
    /// The depth that a tap reads, if not that of its pixel.
    std::function<float(int, int)> tapDepth = {};
    /// The eye-space normal of a pixel, if not computed from positions.
    std::function<QVector3D(int, int)> normal = {};

    Pixels image() const
    {
        return Pixels::generate(width, height, [&](int x, int y) {
            const float a = depthAt(x, y) == 1.0F ? 1.0F : visibility(x, y);
            return QVector4D(a, a, a, 1.0F);
        });
    }
    float depthAt(int x, int y) const { return depths.at(x, y).x(); }
    QVector3D position(int x, int y, float depth) const
    {
        const float distance = nearPlane * farPlane / (farPlane - depth * (farPlane - nearPlane));
        const auto ndc = [](int pixel, int size) {
            return 2.0F * (static_cast<float>(pixel) + 0.5F) / static_cast<float>(size) - 1.0F;
        };
        return {ndc(x, width) / projection(0, 0) * distance, ndc(y, height) / projection(1, 1) * distance,
                -distance};
    }
    QVector3D position(int x, int y) const { return position(x, y, depthAt(x, y)); }
    /// From the derivatives, which belong to blocks of 2 x 2 pixels.
    QVector3D computedNormal(int x, int y) const
    {
        return QVector3D::normal(position(x | 1, y) - position(x & ~1, y),
                                 position(x, y | 1) - position(x, y & ~1));
    }
    float visibility(int x, int y) const
    {
        const Settings& s = settings;
        const QVector3D centre = position(x, y);
        const QVector3D n = normal ? normal(x, y) : computedNormal(x, y);
        const float diskRadius = 0.5F * projection(1, 1) * height * s.radius / -centre.z();
        const auto rotation = static_cast<float>((3 * (x ^ y) + x * y) * 10);
        const float count = std::trunc(s.numSamples);
        float sum = 0.0F;
        for (int i = 0; static_cast<float>(i) < count; ++i) {
            const float alpha = (static_cast<float>(i) + 0.5F) / count;
            const float angle = alpha * std::trunc(s.numTurns) * 6.28F + rotation;
            const float reach = alpha * diskRadius;
            const int tapX = std::clamp(x + static_cast<int>(reach * std::cos(angle)), 0, width - 1);
            const int tapY = std::clamp(y + static_cast<int>(reach * std::sin(angle)), 0, height - 1);
            const float depth = tapDepth ? tapDepth(tapX, tapY) : depthAt(tapX, tapY);
            const QVector3D v = position(tapX, tapY, depth) - centre;
            sum += 4.0F * std::max(1.0F - v.lengthSquared() / (s.radius * s.radius), 0.0F) *
                   std::max(QVector3D::dotProduct(v, n) - s.bias, 0.0F);
        }
        return std::max(0.0F, 1.0F - sum * s.intensity * 5.0F / count);
    }
};

class ScalableAmbientObscuranceTest : public GLTest
{
protected:
    const Scene room = makeRoom();
    const View view = lookIntoCorner();
    const Pixels depths = room.depths(view);
};

TEST_F(ScalableAmbientObscuranceTest, FollowsTheMethod)
{
    const auto depth = makeTexture(depths, GL_DEPTH_COMPONENT32F);
    const Settings narrow{0.2F, 0.02F, 8.0F, 7.9F, 3.0F, 5.5F, 1.0F};
    Runner<Pass> pass;
    pass.setNumUsers(2);
    for (const Settings& settings : {Settings(), narrow}) {
        EXPECT_TRUE(equal(pass.render(inputs(view, settings, depth)),
                          Method{settings, view.projection, depths}.image(), halfPrecision));
    }

    // Background is unoccluded and casts nothing, even within a radius that reaches it.
    Settings wide;
    wide.radius = 30.0F;
    Pixels cut = depths;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width / 3; ++x) {
            cut.at(x, y) = {1, 1, 1, 1};
        }
    }
    const auto cutDepth = makeTexture(cut, GL_DEPTH_COMPONENT32F);
    const Pixels image = pass.render(inputs(view, wide, cutDepth));
    EXPECT_TRUE(equal(image, Method{wide, view.projection, cut}.image(), halfPrecision));
    EXPECT_EQ(image.at(3, 3), QVector4D(1, 1, 1, 1));

    EXPECT_TRUE(equal(pass.render(inputs(view, {}, nullptr)), white));
    Settings none;
    none.radius = 0.0F;
    EXPECT_TRUE(equal(pass.render(inputs(view, none, depth)), white));
    none = {};
    none.numSamples = 0.9F;
    EXPECT_TRUE(equal(pass.render(inputs(view, none, depth)), white));
}

TEST_F(ScalableAmbientObscuranceTest, CornersAreDarkerThanEdgesAndWallsAreUnoccluded)
{
    const QVector3D corner(2.3F, 2.3F, 2.3F);
    const QVector3D edge = corner - QVector3D(0, 1.2F, 0);
    const QVector3D wall = edge - QVector3D(1.2F, 0, 0);
    const View parallel =
        lookIntoCorner(View::orthographic({width, height}, 3.0F, 2.0F, nearPlane, farPlane));
    Runner<CameraSpaceZBufferRenderPass> positions;
    Runner<Pass> pass;
    const auto expectCorner = [&](const View& v, const Pixels& image) {
        const auto around = [&](const QVector3D& point) {
            const QVector3D ndc = (v.projection * v.camera).map(point);
            const int left = static_cast<int>((ndc.x() + 1.0F) / 2.0F * width) - 3;
            const int bottom = static_cast<int>((ndc.y() + 1.0F) / 2.0F * height) - 3;
            return Pixels::generate(7, 7, [&](int x, int y) { return image.at(left + x, bottom + y); })
                .mean()
                .x();
        };
        EXPECT_EQ(around(wall), 1.0F);
        EXPECT_LT(around(edge), 0.95F);
        EXPECT_LT(around(corner), around(edge) - 0.03F);
    };
    const auto depth = makeTexture(depths, GL_DEPTH_COMPONENT32F);
    const Pixels fromDepth = pass.render(inputs(view, {}, depth));
    expectCorner(view, fromDepth);
    positions.run({view.viewport(), depth, view.projection});
    const Pixels fromPositions = pass.render(inputs(view, {}, depth, positions.take()));
    expectCorner(view, fromPositions);
    // Taps are rounded to pixels differently, so single pixels differ.
    EXPECT_NEAR(fromDepth.mean().x(), fromPositions.mean().x(), 0.01F);

    const auto parallelDepth = makeTexture(room.depths(parallel), GL_DEPTH_COMPONENT32F);
    positions.run({view.viewport(), parallelDepth, parallel.projection});
    expectCorner(parallel, pass.render(inputs(parallel, {}, parallelDepth, positions.take())));
}

TEST_F(ScalableAmbientObscuranceTest, TapsReadTheMipLevelsThatTheTexturesHave)
{
    auto depth = makeTexture(depths, GL_DEPTH_COMPONENT32F);
    Settings settings;
    Runner<Pass> pass;
    const Pixels finest = pass.render(inputs(view, settings, depth));
    // So far below the level of any tap that all ask for level 5.
    settings.logMaxOffset = -40.0F;
    EXPECT_TRUE(equal(pass.render(inputs(view, settings, depth)), finest)) << "there is only one level";

    // Levels 1 and 2, every second texel of the level before.
    for (int level = 1; level <= 2; ++level) {
        std::vector<float> texels;
        for (int y = 0; y < height >> level; ++y) {
            for (int x = 0; x < width >> level; ++x) {
                texels.push_back(depths.at(x << level, y << level).x());
            }
        }
        depth->setImage2D(level, GL_DEPTH_COMPONENT32F, width >> level, height >> level, GL_DEPTH_COMPONENT,
                          GL_FLOAT, texels.data());
    }
    depth->setParameter(GL_TEXTURE_MAX_LEVEL, 2);
    const auto coarse = [&](int x, int y) { return depths.at(x & ~3, y & ~3).x(); };
    const Pixels expected = Method{settings, view.projection, depths, coarse}.image();
    for (const int filter : {GL_NEAREST_MIPMAP_NEAREST, GL_LINEAR}) {
        depth->setFilter(filter, GL_NEAREST);
        EXPECT_TRUE(equal(pass.render(inputs(view, settings, depth)), expected, halfPrecision));
        EXPECT_EQ(depth->parameter(GL_TEXTURE_MIN_FILTER), filter);
    }

    // A plane whose coarsest level lies in front of it: occluded, also if sampled linearly before.
    const auto normals = makeTexture(Pixels::filled(width, height, {0, 0, 1, 0}), GL_RGBA32F);
    const auto positions = makeTexture(Pixels::filled(width, height, {0, 0, -4, 1}), GL_RGBA32F);
    Runner<Pass> plane;
    plane->setNormalProcessing(Pass::NORMAL_SCREENSPACE);
    EXPECT_TRUE(equal(plane.render(inputs(view, settings, depth, positions, normals)), white));
    positions->generateMipmap();
    const std::vector<QVector4D> inFront(3 * 2, {0, 0, -3.8F, 1});
    positions->setImage2D(5, GL_RGBA32F, 3, 2, GL_RGBA, GL_FLOAT, inFront.data());
    positions->setFilter(GL_LINEAR, GL_LINEAR);
    EXPECT_TRUE(equal(plane.render(inputs(view, settings, depth, positions, normals)),
                      Pixels::filled(width, height, {0, 0, 0, 1})));
}

TEST_F(ScalableAmbientObscuranceTest, TakesNormalsOfTheWorldAndOfTheCamera)
{
    View scaled = view;
    scaled.camera.scale(1.0F, 1.3F, 0.8F);
    const Pixels scaledDepths = room.depths(scaled);
    const auto depth = makeTexture(scaledDepths, GL_DEPTH_COMPONENT32F);
    // Inward, whereas those of the cube point outward.
    const auto worldNormal = [&](int x, int y) { return -room.at(scaled, x, y)->normal; };
    const QMatrix4x4 toEye = scaled.camera.inverted().transposed();
    Method method{{}, scaled.projection, scaledDepths};
    method.normal = [&](int x, int y) { return toEye.mapVector(worldNormal(x, y)).normalized(); };
    const Pixels expected = method.image();

    const auto worldNormals = makeTexture(
        width, height, GL_RGBA32F, [&](int x, int y) { return QVector4D(2.0F * worldNormal(x, y), 0.0F); });
    Runner<Pass> world;
    EXPECT_TRUE(equal(world.render(inputs(scaled, {}, depth, {}, worldNormals)), expected, halfPrecision));

    // Of any length, and flipped where they point away.
    const auto eyeNormals = makeTexture(width, height, GL_RGBA32F, [&](int x, int y) {
        return QVector4D((x + y) % 2 == 0 ? -3.0F * method.normal(x, y) : method.normal(x, y), 0.0F);
    });
    Runner<Pass> eye;
    eye->setNormalProcessing(Pass::NORMAL_SCREENSPACE);
    EXPECT_TRUE(equal(eye.render(inputs(scaled, {}, depth, {}, eyeNormals)), expected, halfPrecision));
}

TEST_F(ScalableAmbientObscuranceTest, NormalProcessingIsFrozenByTheFirstFrame)
{
    const auto depth = makeTexture(depths, GL_DEPTH_COMPONENT32F);
    // Without a normal texture normals are computed, whatever was set.
    Runner<Pass> pass;
    pass->setNormalProcessing(Pass::NORMAL_SCREENSPACE);
    const Pixels before = pass.render(inputs(view, {}, depth));
    EXPECT_TRUE(equal(before, Method{{}, view.projection, depths}.image(), halfPrecision));
    pass->setNormalProcessing(Pass::NORMAL_TRANSPOSE_INVERT);
    expectMessage(uR"(ScalableAmbientObscuranceRenderPass:\d+\] \[ !! \] Assertion )"
                  R"('NULL == m_shaderProgram' failed: Do not set the normal processing )"
                  R"(once a shader has been created\.$)"_s);
    EXPECT_TRUE(equal(pass.render(), before));

    // NORMAL_CALCULATE with a normal texture: the program fails to build and nothing is occluded.
    Runner<Pass> broken;
    broken->setNormalProcessing(Pass::NORMAL_CALCULATE);
    EXPECT_TRUE(equal(broken.render(inputs(view, {}, depth, {}, makeTexture(white, GL_RGBA32F))), white));
    expectMessage(u"Not know Normal processing"_s);
}

TEST_F(ScalableAmbientObscuranceTest, DividesTheSizeAndCountsWholeTaps)
{
    const auto depth = makeTexture(depths, GL_DEPTH_COMPONENT32F);
    Settings settings;
    Runner<Pass> pass;
    const Pixels full = pass.render(inputs(view, settings, depth));
    settings.divider = 0.0F;
    settings.numSamples = 11.7F;
    EXPECT_TRUE(equal(pass.render(inputs(view, settings, depth)), full));

    // 96 x 64 over 2.5 is 38.4 x 25.6, which acts as a viewport of 38 x 25.
    View small = view;
    small.size = {38, 25};
    const auto smallDepth = makeTexture(room.depths(small), GL_DEPTH_COMPONENT32F);
    const Pixels expected = pass.render(inputs(small, {}, smallDepth));
    settings.divider = 2.5F;
    EXPECT_TRUE(equal(pass.render(inputs(view, settings, smallDepth)), expected));
    EXPECT_EQ(expected.width, 38);
}

TEST_F(ScalableAmbientObscuranceTest, AttachesEveryDepthFormatAndLeavesTheDepthAndTheStateThatItNames)
{
    TextureManager* pool = TextureManager::Instance();
    Texture* pooled =
        makePooledTexture(Pixels::filled(width, height, {0.75F, 0, 0, 0}), TextureFormat::Depth24Stencil8);
    pool->addTempTextureRef(pooled, 1);
    Runner<Pass> pass;
    EXPECT_TRUE(equal(pass.render(inputs(view, {}, pooled)), white));
    EXPECT_NEAR(readTexture(pooled).at(5, 5).x(), 0.75F, 1e-6F);
    pool->releaseTempTextureRef(pooled, 1);

    std::array<float, 4> clearColour{1, 1, 1, 1};
    unsigned char depthMask = GL_TRUE;
    int stencilMask = 1;
    glGetFloatv(GL_COLOR_CLEAR_VALUE, clearColour.data());
    glGetBooleanv(GL_DEPTH_WRITEMASK, &depthMask);
    glGetIntegerv(GL_STENCIL_WRITEMASK, &stencilMask);
    EXPECT_EQ(clearColour, (std::array<float, 4>{}));
    EXPECT_EQ(depthMask, GL_FALSE);
    EXPECT_EQ(stencilMask, 0);

    const auto colour = makeTexture(white, GL_RGBA8);
    pass.run(inputs(view, {}, colour));
    expectMessage(uR"(\[ !! \] Assertion 'false' failed: Unhandled depth format$)"_s);
    // GL does not accept a colour texture as depth attachment.
    expectMessage(u"GL_INVALID_FRAMEBUFFER_OPERATION"_s);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_INVALID_FRAMEBUFFER_OPERATION));
}

} // namespace
} // namespace Morvane::Qel::Test
