#include <algorithm>
#include <array>

#include <epoxy/gl.h>

#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/graph/ImageIO.h>

#include "support/GLTest.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

class ImageReadBack : public GLTest
{
protected:
    /// The samples of a 2D texture of 3x2 texels, whose data has the bottom row first.
    Image readBack(unsigned int internalFormat, unsigned int format, unsigned int type, const void* texels)
    {
        Texture texture;
        texture.setFilter(GL_NEAREST, GL_NEAREST);
        texture.setImage2D(0, internalFormat, 3, 2, format, type, texels);
        const std::vector<Image> images = readTexture(&texture);
        EXPECT_EQ(images.size(), 1U);
        return images.empty() ? Image() : images[0];
    }
};

std::vector<double> samplesOf(const Image& image)
{
    return std::visit([](const auto& values) { return std::vector<double>(values.begin(), values.end()); },
                      image.samples);
}

} // namespace

TEST_F(ImageReadBack, ColourFormatsKeepTheirValues)
{
    const struct
    {
        unsigned int internalFormat;
        unsigned int format;
        size_t numChannels;
        /// Values are multiples of this, which the format stores exactly.
        double step;
    } formats[] = {
        {GL_R8, GL_RED, 1, 1.0 / 255.0},   {GL_RG8, GL_RG, 2, 1.0 / 255.0},
        {GL_RGB8, GL_RGB, 3, 1.0 / 255.0}, {GL_RGBA, GL_RGBA, 4, 1.0 / 255.0},
        {GL_R16F, GL_RED, 1, 0.25},        {GL_RGBA16F, GL_RGBA, 4, -8.0},
        {GL_RG32F, GL_RG, 2, 1e-3},        {GL_RGB32F, GL_RGB, 3, -0.1},
    };
    for (const auto& format : formats) {
        const size_t rowLength = 3 * format.numChannels;
        std::vector<float> stored;
        for (size_t i = 0; i < 2 * rowLength; ++i) {
            stored.push_back(static_cast<float>(static_cast<double>(i + 1) * format.step));
        }
        const Image image = readBack(format.internalFormat, format.format, GL_FLOAT, stored.data());
        EXPECT_EQ(image.summary(), u"3x2 "_s + u"RGBA"_s.first(static_cast<qsizetype>(format.numChannels)));
        std::rotate(stored.begin(), stored.begin() + static_cast<std::ptrdiff_t>(rowLength), stored.end());
        EXPECT_EQ(std::get<std::vector<float>>(image.samples), stored) << std::hex << format.internalFormat;
    }
}

TEST_F(ImageReadBack, IntegersAndDepthKeepTheirValues)
{
    const std::array<quint32, 6> ids = {0, 1, 0xffffffffU, 16777217, 5, 6};
    const Image idImage = readBack(GL_R32UI, GL_RED_INTEGER, GL_UNSIGNED_INT, ids.data());
    ASSERT_TRUE(idImage.isInteger());
    EXPECT_EQ(samplesOf(idImage), (std::vector<double>{16777217, 5, 6, 0, 1, 0xffffffffU}));

    std::array<quint32, 24> nodes{};
    nodes[23] = 0x3f800001U;
    const Image nodeImage = readBack(GL_RGBA32UI, GL_RGBA_INTEGER, GL_UNSIGNED_INT, nodes.data());
    ASSERT_TRUE(nodeImage.isInteger());
    EXPECT_EQ(nodeImage.sample(2, 0, 3), 0x3f800001U);

    const std::array<qint32, 6> offsets = {-1, 2, -30000, 4, 5, 6};
    EXPECT_EQ(samplesOf(readBack(GL_R32I, GL_RED_INTEGER, GL_INT, offsets.data())),
              (std::vector<double>{4, 5, 6, -1, 2, -30000}));

    const std::array<float, 6> depths = {0.0F, 0.125F, 0.25F, 0.5F, 0.75F, 1.0F};
    const Image depth = readBack(GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, depths.data());
    EXPECT_EQ(depth.channels, QStringList(u"Z"_s));
    EXPECT_EQ(samplesOf(depth), (std::vector<double>{0.5, 0.75, 1.0, 0.0, 0.125, 0.25}));
    // 24 bits of depth above 8 of stencil.
    const std::array<quint32, 6> packed = {0xffffff07U, 0, 0, 0, 0, 0x000000ffU};
    EXPECT_EQ(samplesOf(readBack(GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, packed.data())),
              (std::vector<double>{0, 0, 0, 1, 0, 0}));
}

TEST_F(ImageReadBack, LayersAndFacesAreSeparateImages)
{
    Texture layers;
    layers.setTarget(GL_TEXTURE_2D_ARRAY);
    layers.setFilter(GL_NEAREST, GL_NEAREST);
    // Two layers of 1x2 texels.
    const std::array<float, 8> texels = {1, 2, 3, 4, 5, 6, 7, 8};
    layers.setImage3D(GL_RG32F, 1, 2, 2, GL_RG, GL_FLOAT, texels.data());
    const std::vector<Image> layerImages = readTexture(&layers);
    ASSERT_EQ(layerImages.size(), 2U);
    EXPECT_EQ(samplesOf(layerImages[0]), (std::vector<double>{3, 4, 1, 2}));
    EXPECT_EQ(samplesOf(layerImages[1]), (std::vector<double>{7, 8, 5, 6}));

    Texture cube;
    cube.setTarget(GL_TEXTURE_CUBE_MAP);
    cube.setFilter(GL_NEAREST, GL_NEAREST);
    for (unsigned int face = 0; face < 6; ++face) {
        const auto value = static_cast<float>(face);
        cube.setFaceImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_R32F, 1, 1, GL_RED, GL_FLOAT, &value);
    }
    const std::vector<Image> faces = readTexture(&cube);
    ASSERT_EQ(faces.size(), 6U);
    for (size_t face = 0; face < 6; ++face) {
        EXPECT_EQ(samplesOf(faces[face]), std::vector<double>{static_cast<double>(face)});
    }

    Texture empty;
    EXPECT_TRUE(readTexture(&empty).empty());
}

TEST_F(ImageReadBack, TheDefaultFramebufferIsReadTopRowFirst)
{
    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, 0);
    glClearColor(0.2F, 0.4F, 0.6F, 0.8F);
    glClear(GL_COLOR_BUFFER_BIT);
    glEnable(GL_SCISSOR_TEST);
    glScissor(1, 0, 1, 1);
    glClearColor(1.0F, 0.0F, 0.0F, 0.0F);
    glClear(GL_COLOR_BUFFER_BIT);
    glDisable(GL_SCISSOR_TEST);
    const Image image = readDefaultFramebuffer(2, 2);
    EXPECT_EQ(std::get<std::vector<float>>(image.samples),
              (std::vector<float>{0.2F, 0.4F, 0.6F, 0.8F, 0.2F, 0.4F, 0.6F, 0.8F, //
                                  0.2F, 0.4F, 0.6F, 0.8F, 1.0F, 0.0F, 0.0F, 0.0F}));
}

} // namespace Morvane::Qel::Test
