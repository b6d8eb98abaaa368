#include <array>

#include <epoxy/gl.h>

#include <Qel/gl/Texture.h>
#include <Qel/graph/ImageIO.h>

#include "support/GLTest.h"

namespace Morvane::Qel::Test {

namespace {

class ImageReadBack : public GLTest
{
};

using Samples = std::vector<double>;

Samples samplesOf(const Image& image)
{
    return std::visit([](const auto& values) { return Samples(values.begin(), values.end()); },
                      image.samples);
}

/// Checks the image of a 2D texture of 1x2 texels, whose data has the bottom row first.
void expectImage(unsigned int internalFormat, unsigned int format, unsigned int type, const void* texels,
                 const Image& expected)
{
    Texture texture;
    texture.setFilter(GL_NEAREST, GL_NEAREST);
    texture.setImage2D(0, internalFormat, 1, 2, format, type, texels);
    const std::vector<Image> images = readTexture(&texture);
    ASSERT_EQ(images.size(), 1U);
    EXPECT_EQ(images[0].summary(), expected.summary());
    EXPECT_EQ(images[0].samples, expected.samples) << std::hex << internalFormat;
    // The lower texel alone, which comes last in the image.
    const Samples whole = samplesOf(expected);
    const Image texel = readTexels(&texture, {0, 0, 9, 1});
    EXPECT_EQ(texel.channels, expected.channels);
    EXPECT_EQ(samplesOf(texel), Samples(whole.begin() + texel.numChannels(), whole.end()))
        << std::hex << internalFormat;
}

} // namespace

TEST_F(ImageReadBack, FormatsKeepTheirValues)
{
    using Floats = std::vector<float>;
    const QStringList rgba{"R", "G", "B", "A"};
    // The texels hold multiples of a step, which the format stores exactly.
    const auto expectFloats = [&](unsigned int internalFormat, unsigned int format, qsizetype numChannels,
                                  double step) {
        Floats texels;
        for (qsizetype i = 1; i <= 2 * numChannels; ++i) {
            texels.push_back(static_cast<float>(static_cast<double>(i) * step));
        }
        Floats flipped(texels.begin() + numChannels, texels.end());
        flipped.insert(flipped.end(), texels.begin(), texels.begin() + numChannels);
        expectImage(internalFormat, format, GL_FLOAT, texels.data(),
                    {1, 2, rgba.first(numChannels), flipped});
    };
    expectFloats(GL_R8, GL_RED, 1, 1.0 / 255.0);
    expectFloats(GL_RG8, GL_RG, 2, 1.0 / 255.0);
    expectFloats(GL_RGB8, GL_RGB, 3, 1.0 / 255.0);
    expectFloats(GL_RGBA, GL_RGBA, 4, 1.0 / 255.0);
    expectFloats(GL_R16F, GL_RED, 1, 0.25);
    expectFloats(GL_RGBA16F, GL_RGBA, 4, -8.0);
    expectFloats(GL_RG32F, GL_RG, 2, 1e-3);
    expectFloats(GL_RGB32F, GL_RGB, 3, -0.1);
    const std::array<quint32, 2> ids{16777217, 0xffffffffU};
    expectImage(GL_R32UI, GL_RED_INTEGER, GL_UNSIGNED_INT, ids.data(),
                {1, 2, {"R"}, std::vector<quint32>{0xffffffffU, 16777217}});
    const std::array<quint32, 8> nodes{1, 2, 3, 4, 5, 6, 7, 0x3f800001U};
    expectImage(GL_RGBA32UI, GL_RGBA_INTEGER, GL_UNSIGNED_INT, nodes.data(),
                {1, 2, rgba, std::vector<quint32>{5, 6, 7, 0x3f800001U, 1, 2, 3, 4}});
    const std::array<qint32, 2> offsets{-30000, 2};
    expectImage(GL_R32I, GL_RED_INTEGER, GL_INT, offsets.data(), {1, 2, {"R"}, Floats{2, -30000}});
    const std::array<float, 2> depths{0.125F, 1.0F};
    expectImage(GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, depths.data(),
                {1, 2, {"Z"}, Floats{1.0F, 0.125F}});
    // 24 bits of depth above 8 of stencil.
    const std::array<quint32, 2> packed{0xffffff07U, 0x000000ffU};
    expectImage(GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8, packed.data(),
                {1, 2, {"Z"}, Floats{0, 1}});
}

TEST_F(ImageReadBack, LayersAndFacesAreSeparateImages)
{
    Texture empty;
    EXPECT_TRUE(readTexture(&empty).empty());
    EXPECT_TRUE(readTexture(nullptr).empty());
    expectMessage("there is no texture to read");
    Texture layers;
    layers.setTarget(GL_TEXTURE_2D_ARRAY);
    layers.setFilter(GL_NEAREST, GL_NEAREST);
    // Two layers of 1x2 texels.
    const std::array<float, 8> texels{1, 2, 3, 4, 5, 6, 7, 8};
    layers.setImage3D(GL_RG32F, 1, 2, 2, GL_RG, GL_FLOAT, texels.data());
    const std::vector<Image> layerImages = readTexture(&layers);
    ASSERT_EQ(layerImages.size(), 2U);
    EXPECT_EQ(samplesOf(layerImages[0]), (Samples{3, 4, 1, 2}));
    EXPECT_EQ(samplesOf(layerImages[1]), (Samples{7, 8, 5, 6}));
    EXPECT_EQ(samplesOf(readTexels(&layers, {0, 1, 1, 1}, 0, 1)), (Samples{7, 8}));
    EXPECT_EQ(readTexels(&layers, {0, 0, 1, 1}, 0, 2).width, 0);
    layers.generateMipmap();
    EXPECT_EQ(samplesOf(readTexture(&layers, 1)[1]), (Samples{6, 7}));
    EXPECT_EQ(samplesOf(readTexels(&layers, {0, 0, 1, 1}, 1, 0)), (Samples{2, 3}));

    Texture cube;
    cube.setTarget(GL_TEXTURE_CUBE_MAP);
    cube.setFilter(GL_NEAREST, GL_NEAREST);
    for (unsigned int face = 0; face < 6; ++face) {
        const auto value = static_cast<float>(face);
        cube.setFaceImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_R32F, 1, 1, GL_RED, GL_FLOAT, &value);
    }
    Samples faces;
    for (const Image& face : readTexture(&cube)) {
        faces.push_back(face.sample(0, 0, 0));
    }
    EXPECT_EQ(faces, (Samples{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(samplesOf(readTexels(&cube, {0, 0, 1, 1}, 0, 4)), Samples{4});
}

} // namespace Morvane::Qel::Test
