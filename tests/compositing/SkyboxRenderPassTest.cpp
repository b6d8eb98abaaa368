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

/// The image of the directions of a view's pixels.
Pixels directions(const View& view)
{
    return Pixels::generate(width, height,
                            [&](int x, int y) { return QVector4D(direction(view, x, y), 0.0F); });
}

/// Half a texel of the environments in which texels hold their direction, with the rounding of half floats.
constexpr float tolerance = 0.008F;

/// A cube map whose texels hold their direction and an alpha of 0, by GL's axes of the faces.
std::unique_ptr<Texture> makeCubemap()
{
    constexpr int n = 256;
    struct Face
    {
        QVector3D major;
        QVector3D s;
        QVector3D t;
    };
    const std::array faces{Face{{1, 0, 0}, {0, 0, -1}, {0, -1, 0}}, Face{{-1, 0, 0}, {0, 0, 1}, {0, -1, 0}},
                           Face{{0, 1, 0}, {1, 0, 0}, {0, 0, 1}},   Face{{0, -1, 0}, {1, 0, 0}, {0, 0, -1}},
                           Face{{0, 0, 1}, {1, 0, 0}, {0, -1, 0}},  Face{{0, 0, -1}, {-1, 0, 0}, {0, -1, 0}}};
    auto cubemap = std::make_unique<Texture>();
    cubemap->setTarget(GL_TEXTURE_CUBE_MAP);
    cubemap->setFilter(GL_NEAREST, GL_NEAREST);
    cubemap->setWrap(GL_CLAMP_TO_EDGE);
    for (unsigned int i = 0; i < 6; ++i) {
        const auto along = [](int texel) { return (2.0F * static_cast<float>(texel) + 1.0F) / n - 1.0F; };
        const Pixels texels = Pixels::generate(n, n, [&](int x, int y) {
            return QVector4D((faces[i].major + along(x) * faces[i].s + along(y) * faces[i].t).normalized(),
                             0.0F);
        });
        cubemap->setFaceImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + i, 0, GL_RGBA16F, n, n, GL_RGBA, GL_FLOAT,
                              texels.values.data());
    }
    return cubemap;
}

/// The same as an image of longitudes and latitudes: -z in the centre, +x a quarter of the width to the
/// right.
std::unique_ptr<Texture> makeLatLongMap()
{
    constexpr int rows = 256;
    constexpr float pi = std::numbers::pi_v<float>;
    return makeTexture(2 * rows, rows, GL_RGBA16F, [](int x, int y) {
        const float longitude = ((static_cast<float>(x) + 0.5F) / rows - 1.0F) * pi;
        const float latitude = ((static_cast<float>(y) + 0.5F) / rows - 0.5F) * pi;
        return QVector4D(std::cos(latitude) * std::sin(longitude), std::sin(latitude),
                         -std::cos(latitude) * std::cos(longitude), 0.0F);
    });
}

Pixels render(Runner<SkyboxRenderPass>& pass, const View& view, const Input& cubemap, const Input& latLongMap,
              const Input& frame = nullptr, const Input& depth = nullptr)
{
    return pass.render(view.inputs({cubemap, latLongMap, frame, depth}));
}

using SkyboxRenderPassTest = GLTest;

TEST_F(SkyboxRenderPassTest, LooksUpTheDirectionOfEveryPixel)
{
    const auto cubemap = makeCubemap();
    const auto latLongMap = makeLatLongMap();
    latLongMap->setParameter(GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    // Not used beside a cube map.
    const auto unused = makeTexture(Pixels::filled(1, 1, {9, 9, 9, 9}), GL_RGBA16F);
    Runner<SkyboxRenderPass> pass;
    for (const View& view : views) {
        EXPECT_TRUE(equal(render(pass, view, cubemap, unused), directions(view), tolerance));
        EXPECT_TRUE(equal(render(pass, view, nullptr, latLongMap), directions(view), tolerance));
    }
    EXPECT_EQ(latLongMap->parameter(GL_TEXTURE_MIN_FILTER), GL_NEAREST);
}

TEST_F(SkyboxRenderPassTest, FacesBlendIntoEachOther)
{
    Texture cubemap;
    cubemap.setTarget(GL_TEXTURE_CUBE_MAP);
    cubemap.setFilter(GL_LINEAR, GL_LINEAR);
    for (unsigned int i = 0; i < 6; ++i) {
        // Red for +x, blue for +z.
        const std::array texel{i == 0 ? 1.0F : 0.0F, 0.0F, i == 4 ? 1.0F : 0.0F, 1.0F};
        cubemap.setFaceImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + i, 0, GL_RGBA16F, 1, 1, GL_RGBA, GL_FLOAT,
                             texel.data());
    }
    Runner<SkyboxRenderPass> pass;
    const Pixels image = render(pass, lookingAlong({1, 0, 1}), &cubemap, nullptr);
    // The edge lies between the two pixels of the middle, each of which is half of each colour up to its
    // distance of 1/60 of the face.
    for (const int x : {width / 2 - 1, width / 2}) {
        EXPECT_NEAR(image.at(x, height / 2).x(), 0.5F, 0.03F);
        EXPECT_NEAR(image.at(x, height / 2).z(), 0.5F, 0.03F);
    }
}

TEST_F(SkyboxRenderPassTest, WrapsImagesHorizontallyAndClampsThemVertically)
{
    // Red at the top, blue at the bottom, white at the seam and black elsewhere, so that smaller mip levels
    // are not white at the seam.
    const auto image = makeTexture(64, 32, GL_RGBA8, [](int x, int y) {
        const float isSeam = x < 8 || x >= 56 ? 1.0F : 0.0F;
        return y < 4     ? QVector4D(0, 0, 1, 1)
               : y >= 28 ? QVector4D(1, 0, 0, 1)
                         : QVector4D(isSeam, isSeam, isSeam, 1);
    });
    image->generateMipmap();
    image->setFilter(GL_LINEAR_MIPMAP_LINEAR, GL_LINEAR);
    image->setWrap(GL_REPEAT);
    Runner<SkyboxRenderPass> pass;
    for (const auto& [view, colour] :
         {std::pair(back, QVector4D(1, 1, 1, 1)), std::pair(up, QVector4D(1, 0, 0, 1)),
          std::pair(down, QVector4D(0, 0, 1, 1))}) {
        const Pixels actual = render(pass, view, nullptr, image);
        for (int i = 0; i < 16; ++i) {
            EXPECT_EQ(actual.at(width / 2 - 2 + i % 4, height / 2 - 2 + i / 4), colour);
        }
    }
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
    const auto cubemap = makeCubemap();
    const Pixels before = Pixels::noise(width, height, 1);
    const auto frame = makeTexture(before, GL_RGBA32F);
    std::vector<unsigned int> depthStencil;
    Pixels expected = directions(views[5]);
    for (size_t i = 0; i < expected.values.size(); ++i) {
        const unsigned int stencil = std::array{0U, 1U, 0x80U}[i / 3 % 3];
        depthStencil.push_back(0x12345600U | stencil);
        expected.values[i] = stencil == 0U ? expected.values[i] : before.values[i];
    }
    Texture depth;
    depth.setImage2D(0, GL_DEPTH24_STENCIL8, width, height, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8,
                     depthStencil.data());
    Runner<SkyboxRenderPass> pass;
    EXPECT_TRUE(equal(render(pass, views[5], cubemap, nullptr, frame, &depth), expected, tolerance));
    EXPECT_EQ(pass.texture(), frame.get());
    std::vector<unsigned int> after(depthStencil.size());
    {
        const AutoBinder binder(&depth);
        glGetTexImage(GL_TEXTURE_2D, 0, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, after.data());
    }
    EXPECT_EQ(after, depthStencil);
    // Without a stencil, the environment replaces the frame; a notice says so once.
    const auto plainDepth = makeTexture(before, GL_DEPTH_COMPONENT32F);
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(equal(render(pass, views[5], cubemap, nullptr, frame, plainDepth), directions(views[5]),
                          tolerance));
        EXPECT_EQ(messages().information.filter("COMPONENT32F, has no stencil").size(), 1);
    }
    // Without an environment the frame is published unchanged.
    const Pixels drawn = readTexture(frame.get());
    EXPECT_TRUE(equal(render(pass, views[0], nullptr, nullptr, frame), drawn));
}

TEST_F(SkyboxRenderPassTest, ClearsThePooledTexturesThatReplaceMissingInputs)
{
    const auto cubemap = makeCubemap();
    TextureManager* pool = TextureManager::Instance();
    Runner<SkyboxRenderPass> pass;
    for (const bool inBaseState : {true, false}) {
        // The pool lends textures with their old contents: here a stencil that lets nothing through.
        Texture* used = pool->tempTexture(TextureFormat::Depth24Stencil8, width, height);
        const std::vector<unsigned int> full(static_cast<size_t>(width * height), 0xffffffffU);
        used->setImage2D(0, GL_DEPTH24_STENCIL8, width, height, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8,
                         full.data());
        pool->releaseTempTextureRef(used, 1);
        // The second frame starts in the GL state that the first one left.
        inBaseState ? pass.run(views[0].inputs({cubemap, nullptr})) : pass->start(nullptr);
        EXPECT_TRUE(equal(pass.pixels(), directions(views[0]), tolerance));
        inBaseState ? pass.releaseOutputs() : pool->releaseTempTextureRef(pass.texture(), 1);
    }
    pass->teardown(nullptr);
    EXPECT_TRUE(equal(pass.render(), directions(views[0]), tolerance)) << "after teardown";
}

} // namespace
} // namespace Morvane::Qel::Test
