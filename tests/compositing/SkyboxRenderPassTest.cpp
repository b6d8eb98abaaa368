#include <QMatrix4x4>
#include <QRect>

#include <array>
#include <cmath>
#include <memory>
#include <numbers>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/compositing/SkyboxRenderPass.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel::Test {
namespace {

using Vector = std::array<double, 3>;

/// A camera at a place, looking ahead along `forward`; `up` and `forward` are perpendicular unit vectors.
struct View
{
    Vector forward;
    Vector up;
};

const std::array<View, 6> alongTheAxes{View{{1, 0, 0}, {0, 1, 0}}, View{{-1, 0, 0}, {0, 1, 0}},
                                       View{{0, 1, 0}, {0, 0, 1}}, View{{0, -1, 0}, {0, 0, -1}},
                                       View{{0, 0, 1}, {0, 1, 0}}, View{{0, 0, -1}, {0, 1, 0}}};
const View aslant{{0.48, -0.6, 0.64}, {0.36, 0.8, 0.48}};

constexpr int width = 60;
constexpr int height = 44;
constexpr double fovY = 70.0;

QMatrix4x4 cameraMatrix(const View& view)
{
    const auto vector = [](const Vector& v) {
        return QVector3D(static_cast<float>(v[0]), static_cast<float>(v[1]), static_cast<float>(v[2]));
    };
    const QVector3D eye(7.0F, -3.0F, 20.0F);
    QMatrix4x4 matrix;
    matrix.lookAt(eye, eye + vector(view.forward), vector(view.up));
    return matrix;
}

QMatrix4x4 projectionMatrix()
{
    QMatrix4x4 matrix;
    matrix.perspective(static_cast<float>(fovY), static_cast<float>(width) / static_cast<float>(height), 0.5F,
                       300.0F);
    return matrix;
}

/// The direction in which the middle of a pixel lies: straight from the geometry of a pinhole camera.
Vector direction(const View& view, int x, int y)
{
    const Vector& f = view.forward;
    const Vector& u = view.up;
    const Vector right{f[1] * u[2] - f[2] * u[1], f[2] * u[0] - f[0] * u[2], f[0] * u[1] - f[1] * u[0]};
    const double tangent = std::tan(fovY / 2.0 * std::numbers::pi / 180.0);
    const double a = ((x + 0.5) / width * 2.0 - 1.0) * tangent * width / height;
    const double b = ((y + 0.5) / height * 2.0 - 1.0) * tangent;
    Vector d;
    for (size_t i = 0; i < 3; ++i) {
        d[i] = f[i] + a * right[i] + b * u[i];
    }
    const double length = std::hypot(d[0], d[1], d[2]);
    return {d[0] / length, d[1] / length, d[2] / length};
}

/// Which texel of a cube map of n x n faces GL defines for a direction (table of the major axes in its
/// specification): face, column and row, fractions included.
std::array<double, 3> cubeTexel(const Vector& d, int n)
{
    size_t axis = 0;
    for (size_t i = 1; i < 3; ++i) {
        axis = std::abs(d[i]) > std::abs(d[axis]) ? i : axis;
    }
    const bool negative = d[axis] < 0.0;
    double s = 0.0;
    double t = -d[1];
    if (axis == 0) {
        s = negative ? d[2] : -d[2];
    } else if (axis == 1) {
        s = d[0];
        t = negative ? -d[2] : d[2];
    } else {
        s = negative ? -d[0] : d[0];
    }
    const auto texel = [&](double coordinate) { return (coordinate / std::abs(d[axis]) + 1.0) / 2.0 * n; };
    return {static_cast<double>(2 * axis + (negative ? 1 : 0)), texel(s), texel(t)};
}

class SkyboxRenderPassTest : public GLTest
{
protected:
    void TearDown() override
    {
        m_pass.reset();
        GLTest::TearDown();
    }

    Pixels renderSky(const View& view, Texture* cubemap, Texture* latLongMap, Texture* frame = nullptr,
                     Texture* depth = nullptr)
    {
        return render(*m_pass, {QRect(0, 0, width, height), projectionMatrix(), cameraMatrix(view),
                                textureInput(cubemap), textureInput(latLongMap), textureInput(frame),
                                textureInput(depth)});
    }

    /// A cube map whose texels hold where they are: column, row and face.
    static std::unique_ptr<Texture> makeCubemap(int n)
    {
        auto cubemap = std::make_unique<Texture>();
        cubemap->setTarget(GL_TEXTURE_CUBE_MAP);
        cubemap->setFilter(GL_NEAREST, GL_NEAREST);
        cubemap->setWrap(GL_CLAMP_TO_EDGE);
        for (int face = 0; face < 6; ++face) {
            const Pixels texels = Pixels::generate(n, n, [&](int x, int y) {
                return QVector4D(static_cast<float>(x), static_cast<float>(y), static_cast<float>(face),
                                 0.5F);
            });
            cubemap->setFaceImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + static_cast<unsigned int>(face), 0,
                                  GL_RGBA16F, n, n, GL_RGBA, GL_FLOAT, texels.values.data());
        }
        return cubemap;
    }

    std::unique_ptr<SkyboxRenderPass> m_pass = std::make_unique<SkyboxRenderPass>();
};

TEST_F(SkyboxRenderPassTest, LooksACubeMapUpInTheDirectionOfEveryPixel)
{
    // A texel spans about a quarter of a pixel.
    constexpr int n = 128;
    const std::unique_ptr<Texture> cubemap = makeCubemap(n);
    // With a cube map the other environment is not used.
    const std::unique_ptr<Texture> unused(
        makeTexture(Pixels::generate(1, 1, [](int, int) { return QVector4D(9, 9, 9, 9); }), GL_RGBA16F));
    std::vector<View> views(alongTheAxes.begin(), alongTheAxes.end());
    views.push_back(aslant);
    for (size_t i = 0; i < views.size(); ++i) {
        const Pixels picture = renderSky(views[i], cubemap.get(), unused.get());
        int numWrong = 0;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const auto [face, column, row] = cubeTexel(direction(views[i], x, y), n);
                const QVector4D& value = picture.at(x, y);
                // Directions that fall next to a border between texels may go to either side.
                const auto agrees = [](float actual, double expected) {
                    return std::abs(static_cast<double>(actual) + 0.5 - expected) < 0.51;
                };
                const bool onEdge = std::min({column, row, n - column, n - row}) < 0.01;
                numWrong +=
                    value.w() == 0.5F && (onEdge || (value.z() == static_cast<float>(face) &&
                                                     agrees(value.x(), column) && agrees(value.y(), row)))
                        ? 0
                        : 1;
            }
        }
        EXPECT_EQ(numWrong, 0) << "view " << i;
    }
}

TEST_F(SkyboxRenderPassTest, LooksAnImageUpByLongitudeAndLatitude)
{
    // Columns and rows hold their own coordinates, so that what the filter reads between texels is where it
    // read.
    constexpr int columns = 256;
    constexpr int rows = 128;
    const std::unique_ptr<Texture> image(
        makeTexture(Pixels::generate(columns, rows,
                                     [](int x, int y) {
                                         return QVector4D((static_cast<float>(x) + 0.5F) / columns,
                                                          (static_cast<float>(y) + 0.5F) / rows, 0.0F, 1.0F);
                                     }),
                    GL_RGBA32F));
    image->setParameter(GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    std::vector<View> views(alongTheAxes.begin(), alongTheAxes.end());
    views.push_back(aslant);
    for (size_t i = 0; i < views.size(); ++i) {
        const Pixels picture = renderSky(views[i], nullptr, image.get());
        double worst = 0.0;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const Vector d = direction(views[i], x, y);
                // -z in the middle, +x a quarter to the right; straight down is 0, straight up 1.
                const double u = 0.5 + std::atan2(d[0], -d[2]) / (2.0 * std::numbers::pi);
                const double v = 0.5 + std::asin(d[1]) / std::numbers::pi;
                const bool besideSeam = std::min(u, 1.0 - u) < 0.5 / columns;
                const bool besidePole = std::min(v, 1.0 - v) < 0.5 / rows;
                if (!besideSeam) {
                    worst = std::max(worst, std::abs(static_cast<double>(picture.at(x, y).x()) - u));
                }
                if (!besidePole) {
                    worst = std::max(worst, std::abs(static_cast<double>(picture.at(x, y).y()) - v));
                }
            }
        }
        // Half floats hold the coordinates to a two-thousandth, filters read them in 1/256 of a texel.
        EXPECT_LT(worst, 6e-4) << "view " << i;
    }
}

TEST_F(SkyboxRenderPassTest, ShowsNoLineAtTheSeamAndNoneOfTheOppositePole)
{
    // White around the seam, blue below and above and black elsewhere, so that coarser levels of the image
    // are not white; with parameters that must give way to wrapping around, clamping and no mipmaps.
    constexpr int columns = 64;
    constexpr int rows = 32;
    const std::unique_ptr<Texture> image(makeTexture(
        Pixels::generate(columns, rows,
                         [](int x, int y) {
                             if (y < 4 || y >= rows - 4) {
                                 return y < 4 ? QVector4D(0, 0, 1, 1) : QVector4D(1, 0, 0, 1);
                             }
                             return x < 8 || x >= columns - 8 ? QVector4D(1, 1, 1, 1) : QVector4D(0, 0, 0, 1);
                         }),
        GL_RGBA8));
    image->generateMipmap();
    image->setFilter(GL_LINEAR_MIPMAP_LINEAR, GL_LINEAR);
    image->setParameter(GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    image->setParameter(GL_TEXTURE_WRAP_T, GL_REPEAT);

    const Pixels behind = renderSky(alongTheAxes[4], nullptr, image.get());
    for (int y = height / 2 - 5; y < height / 2 + 5; ++y) {
        for (int x = width / 2 - 5; x < width / 2 + 5; ++x) {
            EXPECT_EQ(behind.at(x, y), QVector4D(1, 1, 1, 1)) << x << ", " << y;
        }
    }
    // Across the seam the last column runs into the first one.
    const std::unique_ptr<Texture> columnsOnly(makeTexture(
        Pixels::generate(4, 1, [](int x, int) { return QVector4D(x == 0 ? 1.0F : 0.0F, 0, 0, 1); }),
        GL_RGBA16F));
    columnsOnly->setFilter(GL_NEAREST, GL_LINEAR);
    columnsOnly->setParameter(GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    const Pixels across = renderSky(alongTheAxes[4], nullptr, columnsOnly.get());
    EXPECT_NEAR(across.at(width / 2 - 1, height / 2).x(), 0.5F, 0.02F);
    EXPECT_NEAR(across.at(width / 2, height / 2).x(), 0.5F, 0.02F);

    const Pixels above = renderSky(alongTheAxes[2], nullptr, image.get());
    const Pixels below = renderSky(alongTheAxes[3], nullptr, image.get());
    for (int y = height / 2 - 2; y < height / 2 + 2; ++y) {
        for (int x = width / 2 - 2; x < width / 2 + 2; ++x) {
            EXPECT_EQ(above.at(x, y), QVector4D(1, 0, 0, 1)) << x << ", " << y;
            EXPECT_EQ(below.at(x, y), QVector4D(0, 0, 1, 1)) << x << ", " << y;
        }
    }
}

TEST_F(SkyboxRenderPassTest, DrawsOnlyWhereTheStencilIsZero)
{
    const std::unique_ptr<Texture> cubemap = makeCubemap(1);
    const auto before = [](int x, int y) {
        return QVector4D(static_cast<float>(x) / 64.0F, static_cast<float>(y) / 64.0F, 0.25F, 0.75F);
    };
    const auto stencil = [](int x, int y) { return (x / 3 + y / 5) % 3 == 0 ? 0U : x % 2 == 0 ? 1U : 0x80U; };
    const std::unique_ptr<Texture> frame(makeTexture(Pixels::generate(width, height, before), GL_RGBA16F));
    Texture depth;
    std::vector<unsigned int> depthStencil;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            depthStencil.push_back(0x12345600U | stencil(x, y));
        }
    }
    depth.setImage2D(0, GL_DEPTH24_STENCIL8, width, height, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8,
                     depthStencil.data());
    const Pixels picture = renderSky(alongTheAxes[5], cubemap.get(), nullptr, frame.get(), &depth);
    EXPECT_EQ(outputTexture(*m_pass), frame.get());
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            if (stencil(x, y) != 0U) {
                ASSERT_EQ(picture.at(x, y), before(x, y)) << x << ", " << y;
            } else {
                ASSERT_EQ(picture.at(x, y).w(), 0.5F) << x << ", " << y;
            }
        }
    }
    std::vector<unsigned int> after(depthStencil.size());
    const AutoBinder binder(&depth);
    glGetTexImage(GL_TEXTURE_2D, 0, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, after.data());
    EXPECT_EQ(after, depthStencil);
}

TEST_F(SkyboxRenderPassTest, PooledTexturesStandInFrameAfterFrame)
{
    const std::unique_ptr<Texture> cubemap = makeCubemap(1);
    // The pool hands out textures with what their last user left: here a stencil that lets nothing through.
    TextureManager* pool = TextureManager::Instance();
    const auto fillStencil = [&] {
        Texture* used = pool->tempTexture(TextureFormat::Depth24Stencil8, width, height);
        const std::vector<unsigned int> full(static_cast<size_t>(width) * static_cast<size_t>(height),
                                             0xffffffffU);
        used->setImage2D(0, GL_DEPTH24_STENCIL8, width, height, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8,
                         full.data());
        pool->releaseTempTextureRef(used, 1);
    };
    const QVector4D sky(0, 0, 0, 0.5F);
    m_pass->setup(nullptr);
    fillStencil();
    EXPECT_EQ(renderSky(alongTheAxes[0], cubemap.get(), nullptr).at(1, 1), sky);
    // A second frame, in the state in which the first one left the context.
    fillStencil();
    m_pass->start(nullptr);
    EXPECT_EQ(readTexture(outputTexture(*m_pass)).at(width - 1, height - 1), sky);
    pool->releaseTempTextureRef(outputTexture(*m_pass), 1);
    m_pass->teardown(nullptr);
    EXPECT_EQ(renderSky(alongTheAxes[0], cubemap.get(), nullptr).at(3, 3), sky)
        << "after a teardown it builds everything anew";

    // Without an environment the frame comes out as it came in.
    const Pixels before = Pixels::generate(width, height, [](int x, int) {
        return QVector4D(static_cast<float>(x) / 64.0F, 0.5F, 0.25F, 0.125F);
    });
    const std::unique_ptr<Texture> frame(makeTexture(before, GL_RGBA16F));
    EXPECT_TRUE(equal(renderSky(alongTheAxes[0], nullptr, nullptr, frame.get()), before));
}

} // namespace
} // namespace Morvane::Qel::Test
