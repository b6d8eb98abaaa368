#include <QMatrix4x4>

#include <algorithm>
#include <cmath>
#include <numbers>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Scene.h"
#include <Qel/RenderPasses/compositing/SkyboxRenderPass.h>
#include <Qel/gl/Guards.h>

namespace Morvane::Qel::Test {
namespace {

constexpr int width = 60;
constexpr int height = 44;

View lookingAlong(const QVector3D& forward, const QVector3D& up = {0, 1, 0})
{
    const QVector3D eye(7.0F, -3.0F, 20.0F);
    return View::perspective({width, height}, 70.0F, 0.5F, 300.0F).from(eye, eye + forward, up);
}

const View back = lookingAlong({0, 0, 1});
const View up = lookingAlong({0, 1, 0}, {0, 0, 1});
const View down = lookingAlong({0, -1, 0}, {0, 0, -1});
const std::array views{lookingAlong({1, 0, 0}),
                       lookingAlong({-1, 0, 0}),
                       up,
                       down,
                       back,
                       lookingAlong({0, 0, -1}),
                       lookingAlong({0.48F, -0.6F, 0.64F}, {0.36F, 0.8F, 0.48F})};

/// The world-space direction of a pixel's centre.
QVector3D direction(const View& view, int x, int y)
{
    return (view.unproject(x + 0.5, y + 0.5, 1.0) - view.unproject(x + 0.5, y + 0.5, -1.0)).normalized();
}

/// The texel of a cube map of n x n faces in a direction, by the table of major axes in GL's specification:
/// column, row and face.
QVector3D cubeTexel(const QVector3D& d, int n)
{
    const QVector3D a(std::abs(d.x()), std::abs(d.y()), std::abs(d.z()));
    const int axis = a.x() >= std::max(a.y(), a.z()) ? 0 : a.y() >= a.z() ? 1 : 2;
    const float sign = d[axis] < 0.0F ? -1.0F : 1.0F;
    const float s = axis == 0 ? -sign * d.z() : axis == 1 ? d.x() : sign * d.x();
    const float t = axis == 1 ? sign * d.z() : -d.y();
    const auto texel = [&](float coordinate) {
        return (coordinate / a[axis] + 1.0F) / 2.0F * static_cast<float>(n);
    };
    return {texel(s), texel(t), static_cast<float>(2 * axis) + (sign < 0.0F ? 1.0F : 0.0F)};
}

/// A cube map whose texels hold their column, row and face.
std::unique_ptr<Texture> makeCubemap(int n)
{
    auto cubemap = std::make_unique<Texture>();
    cubemap->setTarget(GL_TEXTURE_CUBE_MAP);
    cubemap->setFilter(GL_NEAREST, GL_NEAREST);
    cubemap->setWrap(GL_CLAMP_TO_EDGE);
    for (unsigned int face = 0; face < 6; ++face) {
        const Pixels texels = Pixels::generate(n, n, [&](int x, int y) {
            return QVector4D(static_cast<float>(x), static_cast<float>(y), static_cast<float>(face), 0.5F);
        });
        cubemap->setFaceImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_RGBA16F, n, n, GL_RGBA, GL_FLOAT,
                              texels.values.data());
    }
    return cubemap;
}

Pixels render(Runner<SkyboxRenderPass>& pass, const View& view, const Input& cubemap, const Input& latLongMap,
              const Input& frame = nullptr, const Input& depth = nullptr)
{
    return pass.render(view.inputs({cubemap, latLongMap, frame, depth}));
}

class SkyboxRenderPassTest : public GLTest
{
};

TEST_F(SkyboxRenderPassTest, LooksUpACubeMapInTheDirectionOfEveryPixel)
{
    // A texel spans about a quarter of a pixel.
    constexpr int n = 128;
    const auto cubemap = makeCubemap(n);
    // Not used beside a cube map.
    const auto latLongMap = makeTexture(Pixels::filled(1, 1, {9, 9, 9, 9}), GL_RGBA16F);
    Runner<SkyboxRenderPass> pass;
    for (const View& view : views) {
        const Pixels actual = render(pass, view, cubemap, latLongMap);
        Pixels expected = actual;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const QVector3D texel = cubeTexel(direction(view, x, y), n);
                const auto borderDistance = [](float c) { return std::abs(c - std::round(c)); };
                // Directions beside the border between two texels may take either.
                if (std::min(borderDistance(texel.x()), borderDistance(texel.y())) > 0.01F) {
                    expected.at(x, y) = {std::floor(texel.x()), std::floor(texel.y()), texel.z(), 0.5F};
                }
            }
        }
        EXPECT_TRUE(equal(actual, expected));
    }
}

TEST_F(SkyboxRenderPassTest, LooksUpAnImageByLongitudeAndLatitude)
{
    // Texels hold their own coordinates, so that filtered values tell where the image was sampled. The
    // image's minification filter and wrap modes must not count.
    constexpr int columns = 256;
    constexpr int rows = 128;
    const auto image = makeTexture(columns, rows, GL_RGBA32F, [](int x, int y) {
        return QVector4D((static_cast<float>(x) + 0.5F) / columns, (static_cast<float>(y) + 0.5F) / rows, 0,
                         1);
    });
    image->setParameter(GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    Runner<SkyboxRenderPass> pass;
    for (const View& view : views) {
        const Pixels actual = render(pass, view, nullptr, image);
        Pixels expected = actual;
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const QVector3D d = direction(view, x, y);
                // -z in the centre, +x a quarter of the width to the right; 0 is straight down, 1 straight
                // up.
                const float u = 0.5F + std::atan2(d.x(), -d.z()) / (2.0F * std::numbers::pi_v<float>);
                const float v = 0.5F + std::asin(d.y()) / std::numbers::pi_v<float>;
                if (std::min(u, 1.0F - u) > 0.5F / columns) {
                    expected.at(x, y).setX(u);
                }
                if (std::min(v, 1.0F - v) > 0.5F / rows) {
                    expected.at(x, y).setY(v);
                }
            }
        }
        // Half floats round to 1/2048; drivers filter with weights of 1/256.
        EXPECT_TRUE(equal(actual, expected, 6e-4F));
    }
    EXPECT_EQ(image->parameter(GL_TEXTURE_MIN_FILTER), GL_NEAREST);
}

TEST_F(SkyboxRenderPassTest, WrapsImagesHorizontallyAndClampsThemVertically)
{
    // White at the seam, red at the top, blue at the bottom and black elsewhere, so that smaller mip levels
    // are not white at the seam.
    constexpr int columns = 64;
    constexpr int rows = 32;
    const auto image = makeTexture(columns, rows, GL_RGBA8, [](int x, int y) {
        return y < 4                       ? QVector4D(0, 0, 1, 1)
               : y >= rows - 4             ? QVector4D(1, 0, 0, 1)
               : x < 8 || x >= columns - 8 ? QVector4D(1, 1, 1, 1)
                                           : QVector4D(0, 0, 0, 1);
    });
    image->generateMipmap();
    image->setFilter(GL_LINEAR_MIPMAP_LINEAR, GL_LINEAR);
    image->setParameter(GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    image->setParameter(GL_TEXTURE_WRAP_T, GL_REPEAT);
    Runner<SkyboxRenderPass> pass;
    const auto expectCentre = [&](const View& view, const QVector4D& colour) {
        const Pixels actual = render(pass, view, nullptr, image);
        for (int i = 0; i < 16; ++i) {
            EXPECT_EQ(actual.at(width / 2 - 2 + i % 4, height / 2 - 2 + i / 4), colour);
        }
    };
    expectCentre(back, {1, 1, 1, 1});
    expectCentre(up, {1, 0, 0, 1});
    expectCentre(down, {0, 0, 1, 1});
    // Magnifies as the image says: without filtering, or with, across the last and the first column.
    const auto wide =
        makeTexture(4, 1, GL_RGBA16F, [](int x, int) { return QVector4D(x == 0 ? 1.0F : 0.0F, 0, 0, 1); });
    const Pixels nearest = render(pass, back, nullptr, wide);
    EXPECT_EQ(std::abs(nearest.at(width / 2 - 1, height / 2).x() - nearest.at(width / 2, height / 2).x()), 1);
    wide->setParameter(GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    const Pixels seam = render(pass, back, nullptr, wide);
    EXPECT_NEAR(seam.at(width / 2 - 1, height / 2).x(), 0.5F, 0.02F);
    EXPECT_NEAR(seam.at(width / 2, height / 2).x(), 0.5F, 0.02F);
}

TEST_F(SkyboxRenderPassTest, DrawsOnlyWhereTheStencilIsZero)
{
    const auto cubemap = makeCubemap(1);
    const Pixels before = Pixels::noise(width, height, 1);
    const auto frame = makeTexture(before, GL_RGBA32F);
    const auto stencil = [](int x, int y) { return (x / 3 + y / 5) % 3 == 0 ? 0U : x % 2 == 0 ? 1U : 0x80U; };
    std::vector<unsigned int> depthStencil;
    for (int i = 0; i < width * height; ++i) {
        depthStencil.push_back(0x12345600U | stencil(i % width, i / width));
    }
    Texture depth;
    depth.setImage2D(0, GL_DEPTH24_STENCIL8, width, height, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8,
                     depthStencil.data());
    Runner<SkyboxRenderPass> pass;
    EXPECT_TRUE(equal(render(pass, views[5], cubemap, nullptr, frame, &depth),
                      Pixels::generate(width, height, [&](int x, int y) {
                          const QVector3D texel = cubeTexel(direction(views[5], x, y), 1);
                          return stencil(x, y) != 0U ? before.at(x, y) : QVector4D(0, 0, texel.z(), 0.5F);
                      })));
    EXPECT_EQ(pass.texture(), frame.get());
    std::vector<unsigned int> after(depthStencil.size());
    {
        const AutoBinder binder(&depth);
        glGetTexImage(GL_TEXTURE_2D, 0, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, after.data());
    }
    EXPECT_EQ(after, depthStencil);
    // Without an environment the frame is published unchanged.
    const Pixels drawn = readTexture(frame.get());
    EXPECT_TRUE(equal(render(pass, views[0], nullptr, nullptr, frame), drawn));
}

TEST_F(SkyboxRenderPassTest, ClearsThePooledTexturesThatReplaceMissingInputs)
{
    const auto cubemap = makeCubemap(1);
    TextureManager* pool = TextureManager::Instance();
    // The pool lends textures with their old contents: here a stencil that lets nothing through.
    const auto fillStencil = [&] {
        Texture* used = pool->tempTexture(TextureFormat::Depth24Stencil8, width, height);
        const std::vector<unsigned int> full(static_cast<size_t>(width * height), 0xffffffffU);
        used->setImage2D(0, GL_DEPTH24_STENCIL8, width, height, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8,
                         full.data());
        pool->releaseTempTextureRef(used, 1);
    };
    Runner<SkyboxRenderPass> pass;
    fillStencil();
    EXPECT_EQ(render(pass, views[0], cubemap, nullptr).at(1, 1), QVector4D(0, 0, 0, 0.5F));
    // A frame in the GL state that the first one left.
    pass.releaseOutputs();
    fillStencil();
    pass->start(nullptr);
    EXPECT_EQ(pass.pixels().at(width - 1, height - 1), QVector4D(0, 0, 0, 0.5F));
    pool->releaseTempTextureRef(pass.texture(), 1);
    pass->teardown(nullptr);
    EXPECT_EQ(render(pass, views[0], cubemap, nullptr).at(3, 3), QVector4D(0, 0, 0, 0.5F))
        << "after teardown";
}

} // namespace
} // namespace Morvane::Qel::Test
