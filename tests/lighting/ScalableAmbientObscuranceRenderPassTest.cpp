// Ambient obscurance against a model of the method on the CPU, and in rooms whose corners are known.

#include <QMatrix4x4>
#include <QRect>

#include <array>
#include <cmath>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include "support/Pixels.h"
#include <Qel/RenderPasses/geometry/CameraSpaceZBufferRenderPass.h>
#include <Qel/RenderPasses/lighting/ScalableAmbientObscuranceRenderPass.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Pass = ScalableAmbientObscuranceRenderPass;

constexpr int width = 96;
constexpr int height = 64;
constexpr float nearPlane = 0.5F;
constexpr float farPlane = 20.0F;

/// What values of 16-bit floats up to 1 are off by, and the little that sine and cosine differ.
constexpr float halfPrecision = 5e-4F;

QMatrix4x4 makePerspective()
{
    QMatrix4x4 projection;
    projection.perspective(60.0F, static_cast<float>(width) / height, nearPlane, farPlane);
    return projection;
}

QMatrix4x4 makeOrthographic()
{
    QMatrix4x4 projection;
    projection.ortho(-3.0F, 3.0F, -2.0F, 2.0F, nearPlane, farPlane);
    return projection;
}

/// A plane that bounds a room from outside: the points p with normal . p = distance; the camera is inside, at
/// the origin and looking along -z.
struct Wall
{
    QVector3D normal;
    float distance;
};

const std::vector<Wall> tiltedPlane{{QVector3D(0.4F, -0.3F, -0.8660254F), 4.0F}};

const QVector3D corner(0.2F, -0.1F, -4.0F);
/// Outward normals of three walls at right angles that meet in the corner, all of them in view.
const std::vector<QVector3D> outward{{0.8164966F, 0.0F, -0.5773503F},
                                     {-0.4082483F, 0.7071068F, -0.5773503F},
                                     {-0.4082483F, -0.7071068F, -0.5773503F}};

std::vector<Wall> makeRoom()
{
    std::vector<Wall> walls;
    walls.reserve(outward.size());
    for (const QVector3D& normal : outward) {
        walls.push_back({normal, QVector3D::dotProduct(normal, corner)});
    }
    return walls;
}
const std::vector<Wall> room = makeRoom();

/// Where a texel is in a picture's list of them.
size_t indexOf(int x, int y, int w = width)
{
    return static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x);
}

/// The wall behind a pixel and where the line of sight meets it; none where it leaves the view volume first.
struct Hit
{
    Wall wall;
    QVector3D position;
};

std::optional<Hit> hitAt(const std::vector<Wall>& walls, const QMatrix4x4& projection, int w, int h, int x,
                         int y)
{
    const QMatrix4x4 inverse = projection.inverted();
    const auto at = [&](float depth) {
        return inverse.map(QVector3D(2.0F * (static_cast<float>(x) + 0.5F) / static_cast<float>(w) - 1.0F,
                                     2.0F * (static_cast<float>(y) + 0.5F) / static_cast<float>(h) - 1.0F,
                                     depth));
    };
    const QVector3D start = at(-1.0F);
    const QVector3D end = at(1.0F);
    std::optional<Hit> nearest;
    float nearestFraction = 1.0F;
    for (const Wall& wall : walls) {
        const float atStart = QVector3D::dotProduct(wall.normal, start);
        const float fraction =
            (wall.distance - atStart) / (QVector3D::dotProduct(wall.normal, end) - atStart);
        if (fraction > 0.0F && fraction < nearestFraction) {
            nearestFraction = fraction;
            nearest = Hit{wall, start + (end - start) * fraction};
        }
    }
    return nearest;
}

/// The depth of a room; 1 where no wall is.
std::vector<float> depthsOf(const std::vector<Wall>& walls, const QMatrix4x4& projection, int w = width,
                            int h = height)
{
    std::vector<float> depths;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const std::optional<Hit> hit = hitAt(walls, projection, w, h, x, y);
            depths.push_back(hit ? 0.5F * projection.map(hit->position).z() + 0.5F : 1.0F);
        }
    }
    return depths;
}

std::unique_ptr<Texture> makeDepth(const std::vector<float>& depths, int w = width, int h = height)
{
    auto texture = std::make_unique<Texture>();
    texture->setFilter(GL_NEAREST, GL_NEAREST);
    texture->setImage2D(0, GL_DEPTH_COMPONENT32F, w, h, GL_DEPTH_COMPONENT, GL_FLOAT, depths.data());
    return texture;
}

struct Settings
{
    QMatrix4x4 projection = makePerspective();
    float radius = 0.5F;
    float bias = 0.01F;
    float intensity = 2.0F;
    float numSamples = 11.0F;
    float logMaxOffset = 3.0F;
    float numTurns = 3.0F;
    float divider = 1.0F;
};

std::vector<QVariant> inputs(const Settings& settings, Texture* depth, Texture* positions = nullptr,
                             Texture* normals = nullptr, const QMatrix4x4& camera = {})
{
    return {QRect(0, 0, width, height),
            settings.projection,
            camera,
            nearPlane,
            farPlane,
            textureInput(depth),
            settings.radius,
            settings.bias,
            settings.intensity,
            textureInput(positions),
            textureInput(normals),
            settings.numSamples,
            settings.logMaxOffset,
            settings.numTurns,
            settings.divider};
}

/// The method, in the single precision that the angles of its taps depend on.
class Model
{
public:
    Model(const Settings& settings, std::vector<float> depths)
        : m_settings(settings)
        , m_depths(std::move(depths))
    {
    }

    /// The texel of the depth that taps see, where it is not the one of their pixel.
    std::function<float(int, int)> tapDepth;
    /// The normal of a pixel, where it does not come from the positions.
    std::function<QVector3D(int, int)> normal;

    Pixels picture() const
    {
        return Pixels::generate(width, height, [&](int x, int y) {
            const float a = depthAt(x, y) == 1.0F ? 1.0F : visibility(x, y);
            return QVector4D(a, a, a, 1.0F);
        });
    }

private:
    float depthAt(int x, int y) const { return m_depths[indexOf(x, y)]; }
    QVector3D position(int x, int y, float depth) const
    {
        const float distance = nearPlane * farPlane / (farPlane - depth * (farPlane - nearPlane));
        const auto ndc = [](int pixel, int size) {
            return 2.0F * (static_cast<float>(pixel) + 0.5F) / static_cast<float>(size) - 1.0F;
        };
        return {ndc(x, width) / m_settings.projection(0, 0) * distance,
                ndc(y, height) / m_settings.projection(1, 1) * distance, -distance};
    }
    QVector3D position(int x, int y) const { return position(x, y, depthAt(x, y)); }
    /// Derivatives belong to blocks of two by two pixels.
    QVector3D calculatedNormal(int x, int y) const
    {
        const QVector3D alongX = position(x | 1, y) - position(x & ~1, y);
        const QVector3D alongY = position(x, y | 1) - position(x, y & ~1);
        return QVector3D::crossProduct(alongX, alongY).normalized();
    }
    float visibility(int x, int y) const
    {
        const Settings& s = m_settings;
        const QVector3D centre = position(x, y);
        const QVector3D n = normal ? normal(x, y) : calculatedNormal(x, y);
        const float diskRadius = 0.5F * s.projection(1, 1) * height * s.radius / -centre.z();
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

    Settings m_settings;
    std::vector<float> m_depths;
};

/// The mean around the pixel that shows a point.
float meanAround(const Pixels& picture, const QMatrix4x4& projection, const QVector3D& point)
{
    const QVector3D ndc = projection.map(point);
    const int centreX = static_cast<int>((ndc.x() * 0.5F + 0.5F) * width);
    const int centreY = static_cast<int>((ndc.y() * 0.5F + 0.5F) * height);
    constexpr int reach = 3;
    float sum = 0.0F;
    for (int y = -reach; y <= reach; ++y) {
        for (int x = -reach; x <= reach; ++x) {
            sum += picture.at(centreX + x, centreY + y).x();
        }
    }
    return sum / ((2 * reach + 1) * (2 * reach + 1));
}

Pixels white(int w, int h)
{
    return Pixels::generate(w, h, [](int, int) { return QVector4D(1, 1, 1, 1); });
}

class ScalableAmbientObscuranceTest : public GLTest
{
protected:
    /// Renders the positions of a depth image and keeps the reference that the pass will drop.
    Texture* makePositions(Texture* depth, const QMatrix4x4& projection)
    {
        if (!m_positions) {
            m_positions = std::make_unique<CameraSpaceZBufferRenderPass>();
        }
        runFrame(*m_positions, {QRect(0, 0, width, height), textureInput(depth), projection});
        return outputTexture(*m_positions);
    }
    void TearDown() override
    {
        m_positions.reset();
        GLTest::TearDown();
    }

private:
    std::unique_ptr<CameraSpaceZBufferRenderPass> m_positions;
};

TEST_F(ScalableAmbientObscuranceTest, FollowsTheMethod)
{
    Settings narrow;
    narrow.radius = 0.2F;
    narrow.bias = 0.02F;
    narrow.intensity = 8.0F;
    narrow.numSamples = 7.9F;
    narrow.numTurns = 5.5F;
    Pass pass;
    for (const Settings& settings : {Settings(), narrow}) {
        const std::vector<float> depths = depthsOf(room, settings.projection);
        const auto depth = makeDepth(depths);
        const Pixels actual = render(pass, inputs(settings, depth.get()));
        EXPECT_TRUE(equal(actual, Model(settings, depths).picture(), halfPrecision));
    }
}

TEST_F(ScalableAmbientObscuranceTest, CornersAreDarkerThanEdgesAndPlanesAreWhite)
{
    // Beside the corner, away from one wall and from two.
    const QVector3D edge = corner - 1.2F * outward[0];
    const QVector3D wall = edge - 1.2F * outward[1];
    for (const bool orthographic : {false, true}) {
        Settings settings;
        settings.projection = orthographic ? makeOrthographic() : makePerspective();
        for (const bool throughPositions : {false, true}) {
            if (orthographic && !throughPositions) {
                continue;
            }
            Pass pass;
            const auto renderRoom = [&](const std::vector<Wall>& walls) {
                const auto depth = makeDepth(depthsOf(walls, settings.projection));
                Texture* positions =
                    throughPositions ? makePositions(depth.get(), settings.projection) : nullptr;
                return render(pass, inputs(settings, depth.get(), positions));
            };
            EXPECT_TRUE(equal(renderRoom(tiltedPlane), white(width, height)));
            const Pixels picture = renderRoom(room);
            EXPECT_EQ(meanAround(picture, settings.projection, wall), 1.0F);
            const float atEdge = meanAround(picture, settings.projection, edge);
            const float atCorner = meanAround(picture, settings.projection, corner);
            EXPECT_LT(atEdge, 0.95F);
            EXPECT_LT(atCorner, atEdge - 0.03F);
        }
    }
}

TEST_F(ScalableAmbientObscuranceTest, PositionsGiveWhatTheDepthGives)
{
    const Settings settings;
    const auto depth = makeDepth(depthsOf(room, settings.projection));
    Pass pass;
    const Pixels fromDepth = render(pass, inputs(settings, depth.get()));
    const Pixels fromPositions =
        render(pass, inputs(settings, depth.get(), makePositions(depth.get(), settings.projection)));
    // Taps are whole pixels away in the one and round to the nearest pixel in the other, so that single
    // pixels differ; their neighbourhoods do not.
    double sum = 0.0;
    for (size_t i = 0; i < fromDepth.values.size(); ++i) {
        sum += static_cast<double>(fromDepth.values[i].x() - fromPositions.values[i].x());
    }
    EXPECT_NEAR(sum / static_cast<double>(fromDepth.values.size()), 0.0, 0.01);
}

TEST_F(ScalableAmbientObscuranceTest, TakesNormalsOfTheWorldAndOfTheCamera)
{
    const Settings settings;
    const std::vector<float> depths = depthsOf(room, settings.projection);
    const auto depth = makeDepth(depths);
    const auto normalAt = [&](int x, int y) {
        return -hitAt(room, settings.projection, width, height, x, y)->wall.normal;
    };
    Model model(settings, depths);
    model.normal = normalAt;
    const Pixels expected = model.picture();

    QMatrix4x4 camera;
    camera.rotate(40.0F, 1.0F, 2.0F, -1.0F);
    camera.scale(1.0F, 2.0F, 0.5F);
    camera.translate(3.0F, 1.0F, 2.0F);
    // What the inverse of the transposed linear part takes to eye-space normals.
    const QMatrix4x4 toWorld = camera.transposed();
    const std::unique_ptr<Texture> worldNormals(makeTexture(
        Pixels::generate(width, height,
                         [&](int x, int y) { return QVector4D(toWorld.mapVector(normalAt(x, y)), 0.0F); }),
        GL_RGBA32F));
    Pass world;
    EXPECT_TRUE(equal(render(world, inputs(settings, depth.get(), nullptr, worldNormals.get(), camera)),
                      expected, halfPrecision));

    // Of any length, and turned around where they point away.
    const std::unique_ptr<Texture> eyeNormals(
        makeTexture(Pixels::generate(width, height,
                                     [&](int x, int y) {
                                         const QVector3D normal = normalAt(x, y);
                                         return QVector4D((x + y) % 2 == 0 ? -3.0F * normal : normal, 0.0F);
                                     }),
                    GL_RGBA32F));
    Pass eye;
    eye.setNormalProcessing(Pass::NORMAL_SCREENSPACE);
    EXPECT_TRUE(equal(render(eye, inputs(settings, depth.get(), nullptr, eyeNormals.get(), camera)), expected,
                      halfPrecision));
}

TEST_F(ScalableAmbientObscuranceTest, NormalProcessingIsFrozenByTheFirstFrame)
{
    const Settings settings;
    const std::vector<float> depths = depthsOf(room, settings.projection);
    const auto depth = makeDepth(depths);
    // Without a normal texture normals are calculated, whatever was set.
    Pass pass;
    pass.setNormalProcessing(Pass::NORMAL_SCREENSPACE);
    const Pixels before = render(pass, inputs(settings, depth.get()));
    EXPECT_TRUE(equal(before, Model(settings, depths).picture(), halfPrecision));
    pass.setNormalProcessing(Pass::NORMAL_TRANSPOSE_INVERT);
    expectMessage(uR"(ScalableAmbientObscuranceRenderPass:\d+\] \[ !! \] Assertion )"
                  R"('NULL == m_shaderProgram' failed: Do not set the normal processing )"
                  R"(once a shader has been created\.$)"_s);
    EXPECT_TRUE(equal(render(pass, inputs(settings, depth.get())), before));

    // A normal texture beside the order to calculate normals: no such program, and nothing is obscured.
    const std::unique_ptr<Texture> normals(makeTexture(white(width, height), GL_RGBA32F));
    Pass broken;
    broken.setNormalProcessing(Pass::NORMAL_CALCULATE);
    EXPECT_TRUE(
        equal(render(broken, inputs(settings, depth.get(), nullptr, normals.get())), white(width, height)));
    expectMessage(u"Not know Normal processing"_s);
}

TEST_F(ScalableAmbientObscuranceTest, TapsReadTheLevelsThatTheDepthHas)
{
    Settings settings;
    const std::vector<float> depths = depthsOf(room, settings.projection);
    const auto depth = makeDepth(depths);
    Pass pass;
    const Pixels finest = render(pass, inputs(settings, depth.get()));
    // Far below what any tap's level comes to, so that all want level 5.
    settings.logMaxOffset = -40.0F;
    EXPECT_TRUE(equal(render(pass, inputs(settings, depth.get())), finest)) << "there is but one level";

    // Every second texel, and then every second of those.
    std::vector<float> coarse;
    for (int level = 1; level <= 2; ++level) {
        coarse.clear();
        for (int y = 0; y < height >> level; ++y) {
            for (int x = 0; x < width >> level; ++x) {
                coarse.push_back(depths[indexOf(x << level, y << level)]);
            }
        }
        depth->setImage2D(level, GL_DEPTH_COMPONENT32F, width >> level, height >> level, GL_DEPTH_COMPONENT,
                          GL_FLOAT, coarse.data());
    }
    depth->setParameter(GL_TEXTURE_MAX_LEVEL, 2);
    Model model(settings, depths);
    model.tapDepth = [&](int x, int y) { return coarse[indexOf(x >> 2, y >> 2, width >> 2)]; };
    for (const int filter : {GL_NEAREST, GL_NEAREST_MIPMAP_NEAREST}) {
        depth->setFilter(filter, GL_NEAREST);
        const Pixels actual = render(pass, inputs(settings, depth.get()));
        EXPECT_TRUE(equal(actual, model.picture(), halfPrecision)) << "filter " << filter;
    }
}

TEST_F(ScalableAmbientObscuranceTest, BackgroundAndMissingDepthAreUnoccluded)
{
    Settings settings;
    // So wide that the room would take light from the far plane.
    settings.radius = 30.0F;
    // A slab in front of nothing.
    std::vector<float> depths = depthsOf(room, settings.projection);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width / 3; ++x) {
            depths[indexOf(x, y)] = 1.0F;
        }
    }
    const auto depth = makeDepth(depths);
    Pass pass;
    const Pixels picture = render(pass, inputs(settings, depth.get()));
    EXPECT_TRUE(equal(picture, Model(settings, depths).picture(), halfPrecision));
    EXPECT_EQ(picture.at(3, 3), QVector4D(1, 1, 1, 1));

    EXPECT_TRUE(equal(render(pass, inputs(settings, nullptr)), white(width, height)));
    Settings none;
    none.radius = 0.0F;
    EXPECT_TRUE(equal(render(pass, inputs(none, depth.get())), white(width, height)));
    none = Settings();
    none.numSamples = 0.9F;
    EXPECT_TRUE(equal(render(pass, inputs(none, depth.get())), white(width, height)));
}

TEST_F(ScalableAmbientObscuranceTest, DividesTheSizeAndCountsWholeTaps)
{
    Settings settings;
    const auto depth = makeDepth(depthsOf(room, settings.projection));
    Pass pass;
    const Pixels full = render(pass, inputs(settings, depth.get()));
    settings.divider = 0.0F;
    EXPECT_TRUE(equal(render(pass, inputs(settings, depth.get())), full));
    settings.divider = 1.0F;
    settings.numSamples = 11.7F;
    EXPECT_TRUE(equal(render(pass, inputs(settings, depth.get())), full));

    // 96 x 64 over 2.5 is 38.4 x 25.6: the same as a viewport of 38 x 25.
    settings = {};
    const auto smallDepth = makeDepth(depthsOf(room, settings.projection, 38, 25), 38, 25);
    std::vector<QVariant> small = inputs(settings, smallDepth.get());
    small[Pass::Viewport] = QRect(7, 9, 38, 25);
    const Pixels expected = render(pass, small);
    settings.divider = 2.5F;
    EXPECT_TRUE(equal(render(pass, inputs(settings, smallDepth.get())), expected));
    EXPECT_EQ(expected.width, 38);
}

TEST_F(ScalableAmbientObscuranceTest, AttachesEveryDepthFormatAndLeavesTheDepth)
{
    const Settings settings;
    TextureManager* pool = TextureManager::Instance();
    Texture* pooled = pool->tempTexture(TextureFormat::Depth24Stencil8, width, height);
    const std::vector<unsigned int> texels(static_cast<size_t>(width) * height, 0xC0000000U);
    {
        const AutoBinder binder(pooled);
        glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8,
                        texels.data());
    }
    pool->addTempTextureRef(pooled, 1);
    Pass pass;
    EXPECT_TRUE(equal(render(pass, inputs(settings, pooled)), white(width, height)));
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

    const std::unique_ptr<Texture> colour(makeTexture(white(width, height), GL_RGBA8));
    render(pass, inputs(settings, colour.get()));
    expectMessage(uR"(\[ !! \] Assertion 'false' failed: Unhandled depth format$)"_s);
    // GL takes no colour as depth.
    expectMessage(u"GL_INVALID_FRAMEBUFFER_OPERATION"_s);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_INVALID_FRAMEBUFFER_OPERATION));
}

} // namespace
} // namespace Morvane::Qel::Test
