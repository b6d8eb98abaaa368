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
    /// A 2D texture of 3x2 pixels; the image given to GL has its bottom row first.
    std::vector<Image> readBack(unsigned int internalFormat, unsigned int format, unsigned int type,
                                const void* pixels)
    {
        Texture texture;
        texture.setFilter(GL_NEAREST, GL_NEAREST);
        texture.setImage2D(0, internalFormat, 3, 2, format, type, pixels);
        return readTexture(&texture);
    }
};

std::vector<double> samplesOf(const Image& image)
{
    return std::visit([](const auto& values) { return std::vector<double>(values.begin(), values.end()); },
                      image.samples);
}

struct ColourFormat
{
    unsigned int internalFormat;
    unsigned int format;
    size_t numChannels;
    /// Channel values are multiples of this.
    double step;
};

} // namespace

TEST_F(ImageReadBack, EveryColourFormatComesBackTopRowFirst)
{
    // Multiples of 1/255 and of a power of two, so that each format keeps its values exactly.
    const std::array formats{
        ColourFormat{GL_R8, GL_RED, 1, 1.0 / 255.0},    ColourFormat{GL_RG8, GL_RG, 2, 1.0 / 255.0},
        ColourFormat{GL_RGB8, GL_RGB, 3, 1.0 / 255.0},  ColourFormat{GL_RGBA8, GL_RGBA, 4, 1.0 / 255.0},
        ColourFormat{GL_RGBA, GL_RGBA, 4, 1.0 / 255.0}, ColourFormat{GL_R16F, GL_RED, 1, 0.25},
        ColourFormat{GL_RG16F, GL_RG, 2, 0.25},         ColourFormat{GL_RGBA16F, GL_RGBA, 4, -8.0},
        ColourFormat{GL_R32F, GL_RED, 1, 1024.5},       ColourFormat{GL_RG32F, GL_RG, 2, 1e-3},
        ColourFormat{GL_RGB32F, GL_RGB, 3, -0.1},       ColourFormat{GL_RGBA32F, GL_RGBA, 4, 1e6},
    };
    for (const ColourFormat& format : formats) {
        const size_t rowLength = 3 * format.numChannels;
        std::vector<float> stored;
        for (size_t i = 0; i < 2 * rowLength; ++i) {
            stored.push_back(static_cast<float>(static_cast<double>(i + 1) * format.step));
        }
        const std::vector<Image> images =
            readBack(format.internalFormat, format.format, GL_FLOAT, stored.data());
        ASSERT_EQ(images.size(), 1U);
        EXPECT_EQ(images[0].summary(),
                  u"3x2 "_s + u"RGBA"_s.first(static_cast<qsizetype>(format.numChannels)));
        std::rotate(stored.begin(), stored.begin() + static_cast<std::ptrdiff_t>(rowLength), stored.end());
        EXPECT_EQ(std::get<std::vector<float>>(images[0].samples), stored)
            << std::hex << format.internalFormat;
    }
}

TEST_F(ImageReadBack, IntegersKeepTheirValues)
{
    const std::array<quint32, 6> ids = {0, 1, 0xffffffffU, 16777217, 5, 6};
    const std::vector<Image> images = readBack(GL_R32UI, GL_RED_INTEGER, GL_UNSIGNED_INT, ids.data());
    ASSERT_EQ(images.size(), 1U);
    ASSERT_TRUE(images[0].isInteger());
    EXPECT_EQ(std::get<std::vector<quint32>>(images[0].samples),
              (std::vector<quint32>{16777217, 5, 6, 0, 1, 0xffffffffU}));

    std::array<quint32, 24> nodes{};
    nodes[23] = 0x3f800001U;
    const std::vector<Image> nodeImages =
        readBack(GL_RGBA32UI, GL_RGBA_INTEGER, GL_UNSIGNED_INT, nodes.data());
    ASSERT_TRUE(nodeImages.at(0).isInteger());
    EXPECT_EQ(nodeImages[0].sample(2, 0, 3), 0x3f800001U);

    const std::array<qint32, 6> offsets = {-1, 2, -30000, 4, 5, 6};
    const std::vector<Image> signedImages = readBack(GL_R32I, GL_RED_INTEGER, GL_INT, offsets.data());
    EXPECT_EQ(samplesOf(signedImages.at(0)), (std::vector<double>{4, 5, 6, -1, 2, -30000}));
}

TEST_F(ImageReadBack, DepthIsOneChannel)
{
    const std::array<float, 6> depths = {0.0F, 0.125F, 0.25F, 0.5F, 0.75F, 1.0F};
    for (const unsigned int internalFormat : {GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT24}) {
        const std::vector<Image> images =
            readBack(internalFormat, GL_DEPTH_COMPONENT, GL_FLOAT, depths.data());
        ASSERT_EQ(images.size(), 1U);
        EXPECT_EQ(images[0].channels, QStringList(u"Z"_s));
        // 24 bits hold a quarter only nearly.
        const std::vector<double> expected = {0.5, 0.75, 1.0, 0.0, 0.125, 0.25};
        for (size_t i = 0; i < expected.size(); ++i) {
            EXPECT_NEAR(samplesOf(images[0])[i], expected[i], 1.0 / (1 << 23));
        }
    }
    // 24 bits of depth above 8 of stencil.
    const std::array<quint32, 6> packed = {0xffffff07U, 0, 0, 0, 0, 0x000000ffU};
    const std::vector<Image> images =
        readBack(GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, packed.data());
    EXPECT_EQ(images.at(0).channels, QStringList(u"Z"_s));
    EXPECT_EQ(samplesOf(images[0]), (std::vector<double>{0, 0, 0, 1, 0, 0}));
}

TEST_F(ImageReadBack, LayersAndFacesAreOnePictureEach)
{
    Texture layers;
    layers.setTarget(GL_TEXTURE_2D_ARRAY);
    layers.setFilter(GL_NEAREST, GL_NEAREST);
    // Two layers of 1x2, each bottom row first.
    const std::array<float, 8> pixels = {1, 2, 3, 4, 5, 6, 7, 8};
    layers.setImage3D(GL_RG32F, 1, 2, 2, GL_RG, GL_FLOAT, pixels.data());
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

TEST_F(ImageReadBack, ScreenComesBackTopRowFirst)
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
    const float a = 51.0F / 255.0F;
    const float b = 102.0F / 255.0F;
    const float c = 153.0F / 255.0F;
    const float d = 204.0F / 255.0F;
    EXPECT_EQ(std::get<std::vector<float>>(image.samples),
              (std::vector<float>{a, b, c, d, a, b, c, d, a, b, c, d, 1, 0, 0, 0}));
}

} // namespace Morvane::Qel::Test
