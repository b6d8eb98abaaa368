// Ambient obscurance against the method computed on the CPU, in the corner of a room.

#include <cmath>
#include <functional>

#include <epoxy/gl.h>

#include "support/GLState.h"
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

/// The published method. The angles of its taps depend on single precision while it resolves a quarter of a
/// radian; larger ones are exact.
struct Method
{
    Settings settings;
    QMatrix4x4 projection;
    Pixels depths;
    /// The depth that a tap reads, if not that of its pixel.
    std::function<float(int, int)> tapDepth = {};
    /// The eye-space normal of a pixel, if not computed from positions.
    std::function<QVector3D(int, int)> normal = {};
    QSize frame{width, height};
    /// Where the depths are in the frame; the rest of it is background.
    QPoint origin = {};

    Pixels image() const
    {
        return Pixels::generate(depths.width, depths.height, [&](int column, int row) {
            const int x = origin.x() + column;
            const int y = origin.y() + row;
            const float a = depthAt(x, y) == 1.0F ? 1.0F : visibility(x, y);
            return QVector4D(a, a, a, 1.0F);
        });
    }
    float depthAt(int x, int y) const
    {
        const QRect area(origin, QSize(depths.width, depths.height));
        return area.contains(x, y) ? depths.at(x - origin.x(), y - origin.y()).x() : 1.0F;
    }
    QVector3D position(int x, int y, float depth) const
    {
        const float distance = nearPlane * farPlane / (farPlane - depth * (farPlane - nearPlane));
        const auto ndc = [](int pixel, int size) {
            return 2.0F * (static_cast<float>(pixel) + 0.5F) / static_cast<float>(size) - 1.0F;
        };
        return {ndc(x, frame.width()) / projection(0, 0) * distance,
                ndc(y, frame.height()) / projection(1, 1) * distance, -distance};
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
        const float diskRadius =
            0.5F * projection(1, 1) * static_cast<float>(frame.height()) * s.radius / -centre.z();
        const int rotation = (3 * (x ^ y) + x * y) * 10;
        const float count = std::trunc(s.numSamples);
        float sum = 0.0F;
        for (int i = 0; static_cast<float>(i) < count; ++i) {
            const float alpha = (static_cast<float>(i) + 0.5F) / count;
            const float turned = alpha * std::trunc(s.numTurns) * 6.28F;
            const double angle = rotation < 1 << 21
                                     ? static_cast<double>(turned + static_cast<float>(rotation))
                                     : static_cast<double>(turned) + rotation;
            const auto reach = static_cast<double>(alpha * diskRadius);
            const int tapX = std::clamp(x + static_cast<int>(reach * std::cos(angle)), 0, frame.width() - 1);
            const int tapY = std::clamp(y + static_cast<int>(reach * std::sin(angle)), 0, frame.height() - 1);
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
    /// The camera is inside a cube and looks into its corner at (2.3, 2.3, 2.3), in the middle of the image.
    const Scene room{[] {
        QMatrix4x4 transform;
        transform.scale(4.6F);
        return makeModelData(makeCube(), {}, transform);
    }()};
    const View view = View::perspective({width, height}, 60.0F, nearPlane, farPlane).from({}, {1, 1, 1});
    const Pixels depths = room.depths(view);
};

TEST_F(ScalableAmbientObscuranceTest, FollowsTheMethodAndDividesTheSize)
{
    const auto depth = makeTexture(depths, GL_DEPTH_COMPONENT32F);
    const Settings narrow{0.2F, 0.02F, 8.0F, 7.9F, 3.0F, 5.5F, 0.0F};
    Runner<Pass> pass;
    pass.setNumUsers(2);
    for (const Settings& settings : {Settings(), narrow}) {
        EXPECT_TRUE(equal(pass.render(inputs(view, settings, depth)),
                          Method{settings, view.projection, depths}.image(), halfPrecision));
    }

    // Background is unoccluded and casts nothing, even within a radius that reaches it.
    Settings wide;
    wide.radius = 30.0F;
    const Pixels cut = Pixels::generate(
        width, height, [&](int x, int y) { return x < width / 3 ? QVector4D(1, 1, 1, 1) : depths.at(x, y); });
    const auto cutDepth = makeTexture(cut, GL_DEPTH_COMPONENT32F);
    EXPECT_TRUE(equal(pass.render(inputs(view, wide, cutDepth)), Method{wide, view.projection, cut}.image(),
                      halfPrecision));

    for (const Settings& none : {Settings{.radius = 0.0F}, Settings{.numSamples = 0.9F}}) {
        EXPECT_TRUE(equal(pass.render(inputs(view, none, depth)), white));
    }
    EXPECT_TRUE(equal(pass.render(inputs(view, {}, nullptr)), white));

    // 96 x 64 over 2.5 is 38.4 x 25.6, which acts as a viewport of 38 x 25.
    View small = view;
    small.size = {38, 25};
    const auto smallDepth = makeTexture(room.depths(small), GL_DEPTH_COMPONENT32F);
    EXPECT_TRUE(equal(pass.render(inputs(view, {.divider = 2.5F}, smallDepth)),
                      pass.render(inputs(small, {}, smallDepth))));
}

TEST_F(ScalableAmbientObscuranceTest, TurnsItsSpiralsInTheFarCornerOfALargeFrame)
{
    // Angles of up to 8e7 radians, on grooves that taps in a single direction would miss or only find.
    const View large = View::perspective({3840, 2160}, 60.0F, nearPlane, farPlane);
    const QPoint origin(3840 - width, 2160 - height);
    const Pixels grooves = Pixels::generate(width, height, [](int x, int) {
        const float distance = 4.0F + 0.03F * std::sin(0.4F * static_cast<float>(x));
        return QVector4D((farPlane - nearPlane * farPlane / distance) / (farPlane - nearPlane), 0, 0, 0);
    });
    const auto depth = makeTexture(3840, 2160, GL_DEPTH_COMPONENT32F, [&](int x, int y) {
        const bool isBackground = x < origin.x() || y < origin.y();
        return isBackground ? QVector4D(1, 0, 0, 0) : grooves.at(x - origin.x(), y - origin.y());
    });
    const auto normals = makeTexture(Pixels::filled(1, 1, {0, 0, 1, 0}), GL_RGBA32F);
    const Settings settings{0.05F, 0.002F, 4.0F};
    Method method{settings, large.projection, grooves};
    method.normal = [](int, int) { return QVector3D(0, 0, 1); };
    method.frame = large.size;
    method.origin = origin;
    const Pixels expected = method.image();

    Runner<Pass> pass;
    pass->setNormalProcessing(Pass::NORMAL_SCREENSPACE);
    const Pixels image = pass.render(inputs(large, settings, depth, {}, normals));
    const Pixels corner = Pixels::generate(
        width, height, [&](int x, int y) { return image.at(origin.x() + x, origin.y() + y); });
    EXPECT_NEAR(corner.mean().x(), expected.mean().x(), 1e-3F);
    EXPECT_TRUE(equal(corner, expected, halfPrecision));
}

TEST_F(ScalableAmbientObscuranceTest, PositionsReplaceTheDepthAndAllowParallelViews)
{
    const auto depth = makeTexture(depths, GL_DEPTH_COMPONENT32F);
    Runner<CameraSpaceZBufferRenderPass> positions;
    Runner<Pass> pass;
    const Pixels fromDepth = pass.render(inputs(view, {}, depth));
    positions.run({view.viewport(), depth, view.projection});
    const Pixels fromPositions = pass.render(inputs(view, {}, depth, positions.take()));
    // Taps are rounded to pixels differently, so single pixels differ.
    EXPECT_NEAR(fromDepth.mean().x(), fromPositions.mean().x(), 0.01F);

    const View parallel =
        View::orthographic({width, height}, 3.0F, 2.0F, nearPlane, farPlane).from({}, {1, 1, 1});
    const auto parallelDepth = makeTexture(room.depths(parallel), GL_DEPTH_COMPONENT32F);
    positions.run({view.viewport(), parallelDepth, parallel.projection});
    const Pixels image = pass.render(inputs(parallel, {}, parallelDepth, positions.take()));
    // The wall above the corner, and the edge below it.
    EXPECT_EQ(image.at(width / 2, 60).x(), 1.0F);
    EXPECT_LT(image.at(width / 2, 10).x(), 0.95F);
}

TEST_F(ScalableAmbientObscuranceTest, TapsReadTheMipLevelsThatTheTexturesHave)
{
    auto depth = makeTexture(depths, GL_DEPTH_COMPONENT32F);
    Settings settings;
    Runner<Pass> pass;
    // So far below the level of any tap that all ask for level 5.
    settings.logMaxOffset = -40.0F;
    EXPECT_TRUE(equal(pass.render(inputs(view, settings, depth)), Method{{}, view.projection, depths}.image(),
                      halfPrecision))
        << "there is only one level";

    // Levels 1 and 2, every second texel of the level before.
    for (int level = 1; level <= 2; ++level) {
        std::vector<float> texels;
        texels.reserve(static_cast<size_t>(width >> level) * static_cast<size_t>(height >> level));
        for (int i = 0; i < (width >> level) * (height >> level); ++i) {
            texels.push_back(depths.at(i % (width >> level) << level, i / (width >> level) << level).x());
        }
        depth->setImage2D(level, GL_DEPTH_COMPONENT32F, width >> level, height >> level, GL_DEPTH_COMPONENT,
                          GL_FLOAT, texels.data());
    }
    depth->setParameter(GL_TEXTURE_MAX_LEVEL, 2);
    const auto coarse = [&](int x, int y) { return depths.at(x & ~3, y & ~3).x(); };
    const Pixels expected = Method{settings, view.projection, depths, coarse}.image();
    depth->setFilter(GL_LINEAR, GL_NEAREST);
    EXPECT_TRUE(equal(pass.render(inputs(view, settings, depth)), expected, halfPrecision));

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
    // The offset asks for level 0 up to taps twice as far away as the frame is wide; these are further.
    settings.logMaxOffset = 0.0F;
    EXPECT_TRUE(equal(plane.render(inputs(view, settings, depth, positions, normals)), white));
    settings.radius = 1000.0F;
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
    eye.run(inputs(scaled, {}, depth, {}, eyeNormals));
    // The first frame freezes the processing, although the setting is stored.
    eye->setNormalProcessing(Pass::NORMAL_TRANSPOSE_INVERT);
    expectMessage(u"Do not set the normal processing once a shader has been created\\.$"_s);
    EXPECT_TRUE(equal(eye.render(), expected, halfPrecision));

    // Without a normal texture normals are computed, whatever is set.
    Runner<Pass> computed;
    computed->setNormalProcessing(Pass::NORMAL_SCREENSPACE);
    method.normal = nullptr;
    EXPECT_TRUE(equal(computed.render(inputs(scaled, {}, depth)), method.image(), halfPrecision));

    // NORMAL_CALCULATE with a normal texture: the program fails to build and nothing is occluded.
    Runner<Pass> broken;
    broken->setNormalProcessing(Pass::NORMAL_CALCULATE);
    EXPECT_TRUE(equal(broken.render(inputs(scaled, {}, depth, {}, eyeNormals)), white));
    expectMessage(u"Not know Normal processing"_s);
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

    EXPECT_EQ(stateInGL(GL_DEPTH_WRITEMASK), static_cast<unsigned int>(GL_FALSE));
    EXPECT_EQ(stateInGL(GL_STENCIL_WRITEMASK), 0U);

    const auto colour = makeTexture(white, GL_RGBA8);
    pass.run(inputs(view, {}, colour));
    expectMessage(uR"(\[ !! \] Assertion 'false' failed: Unhandled depth format$)"_s);
    // GL does not accept a colour texture as depth attachment.
    expectMessage(u"GL_INVALID_FRAMEBUFFER_OPERATION"_s);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_INVALID_FRAMEBUFFER_OPERATION));
}

} // namespace
} // namespace Morvane::Qel::Test
