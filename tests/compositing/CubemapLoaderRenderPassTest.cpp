#include <QColor>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>

#include <array>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/compositing/CubemapLoaderRenderPass.h>
#include <Qel/gl/Guards.h>
#include <Qel/graph/ImageIO.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

class CubemapLoaderRenderPassTest : public GLTest
{
protected:
    /// A square image of one colour with a white first row.
    static QImage makeImage(int number, int size)
    {
        QImage image(size, size, QImage::Format_RGBA8888);
        image.fill(QColor(number % 2 * 255, number / 2 % 2 * 255, number / 4 % 2 * 255));
        for (int x = 0; x < size; ++x) {
            image.setPixelColor(x, 0, Qt::white);
        }
        return image;
    }
    QString save(int number, int size)
    {
        QString path = m_folder.filePath(u"face %1.png"_s.arg(number));
        EXPECT_TRUE(makeImage(number, size).save(path));
        return path;
    }

    static Texture* load(Runner<CubemapLoaderRenderPass>& pass, const std::vector<Input>& paths)
    {
        pass.run(paths);
        return pass.texture();
    }

    /// Reads level 0 of a face, in GL's order of rows.
    static QImage readFace(Texture* cubemap, int face)
    {
        const AutoBinder binder(cubemap);
        const auto target = static_cast<GLenum>(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face);
        int size = 0;
        glGetTexLevelParameteriv(target, 0, GL_TEXTURE_WIDTH, &size);
        QImage image(size, size, QImage::Format_RGBA8888);
        glGetTexImage(target, 0, GL_RGBA, GL_UNSIGNED_BYTE, image.bits());
        return image;
    }

    QTemporaryDir m_folder;
};

TEST_F(CubemapLoaderRenderPassTest, LoadsImagesTopRowFirstAndKeepsEveryCubeMap)
{
    Runner<CubemapLoaderRenderPass> pass;
    std::vector<Input> dayPaths;
    dayPaths.reserve(6);
    for (int face = 0; face < 6; ++face) {
        dayPaths.emplace_back(save(face + 1, 5));
    }
    std::vector<Input> nightPaths = dayPaths;
    nightPaths[3] = save(7, 5);
    Texture* day = load(pass, dayPaths);
    Texture* night = load(pass, nightPaths);
    EXPECT_NE(day, night);
    for (const Input& path : {dayPaths[0], dayPaths[3], nightPaths[3]}) {
        ASSERT_TRUE(QFile::remove(path.value().toString()));
    }
    EXPECT_EQ(load(pass, dayPaths), day);
    EXPECT_EQ(load(pass, nightPaths), night);
    for (int face = 0; face < 6; ++face) {
        EXPECT_EQ(readFace(day, face), makeImage(face + 1, 5)) << "face " << face;
    }
    EXPECT_EQ(readFace(night, 3), makeImage(7, 5));
    EXPECT_EQ(day->levels(), 3);
    EXPECT_EQ(day->parameter(GL_TEXTURE_WRAP_R), GL_CLAMP_TO_EDGE);
}

TEST_F(CubemapLoaderRenderPassTest, MakesAllFacesFloatsForOneExrFile)
{
    Runner<CubemapLoaderRenderPass> pass;
    std::vector<Input> paths(6, save(1, 1));
    paths[4] = m_folder.filePath(u"sun.exr"_s);
    QString error;
    const Image sun{1, 1, {u"R"_s, u"G"_s, u"B"_s}, std::vector{100.0F, 50.0F, 2.0F}};
    ASSERT_TRUE(writeImage(sun, paths[4].value().toString(), &error)) << qPrintable(error);
    Texture* cubemap = load(pass, paths);
    EXPECT_EQ(cubemap->internalFormat(), GL_RGBA16F);
    const AutoBinder binder(cubemap);
    std::array<float, 4> texel{};
    glGetTexImage(GL_TEXTURE_CUBE_MAP_POSITIVE_Z, 0, GL_RGBA, GL_FLOAT, texel.data());
    EXPECT_EQ(texel, (std::array{100.0F, 50.0F, 2.0F, 1.0F}));
    glGetTexImage(GL_TEXTURE_CUBE_MAP_NEGATIVE_Z, 0, GL_RGBA, GL_FLOAT, texel.data());
    EXPECT_EQ(texel, (std::array{1.0F, 1.0F, 1.0F, 1.0F}));
}

TEST_F(CubemapLoaderRenderPassTest, ReplacesUnreadableFacesByATransparentTexel)
{
    QImage transparent(1, 1, QImage::Format_RGBA8888);
    transparent.fill(0);
    Runner<CubemapLoaderRenderPass> pass;
    // Without paths: a cube map of six texels, made once, without a message.
    Texture* unset = load(pass, {});
    EXPECT_EQ(load(pass, {}), unset);
    EXPECT_EQ(readFace(unset, 5), transparent);
    EXPECT_TRUE(pass->imageProblem().isEmpty());

    const QString texel = save(5, 1);
    const QString missing = m_folder.filePath(u"missing.png"_s);
    Texture* mixed = load(pass, {texel, missing, texel, m_folder.path(), texel, texel});
    for (int face = 0; face < 6; ++face) {
        const bool isMissing = face == 1 || face == 3;
        EXPECT_EQ(readFace(mixed, face), isMissing ? transparent : makeImage(5, 1)) << "face " << face;
    }
    const QString problem = u"face -X: \"%1\" does not exist"_s.arg(missing);
    EXPECT_EQ(pass->imageProblem(), problem);
    load(pass, {texel, texel, texel, texel, texel, texel});
    EXPECT_TRUE(pass->imageProblem().isEmpty());
    load(pass, {texel, missing, texel, m_folder.path(), texel, texel});
    EXPECT_EQ(pass->imageProblem(), problem) << "of a cube map that was kept";
}

TEST_F(CubemapLoaderRenderPassTest, NamesTheFaceThatDoesNotFit)
{
    const QString rule = u"; the faces of a cube map must be square and of one size$"_s;
    Runner<CubemapLoaderRenderPass> pass;
    const QString small = save(1, 4);
    load(pass, {small, small, save(2, 8), small, small, small});
    expectMessage(u"CubemapLoaderRenderPass:\\d+\\] face \\+Y is 8x8, face \\+X is 4x4"_s + rule);
    const QString wide = m_folder.filePath(u"wide.png"_s);
    ASSERT_TRUE(makeImage(1, 4).copy(0, 0, 4, 2).save(wide));
    load(pass, {wide, wide, wide, wide, wide, wide});
    expectMessage(u"CubemapLoaderRenderPass:\\d+\\] face \\+X is 4x2"_s + rule);
    // GL reports the face and the cube map too.
    for (const auto& error :
         {u"GL_INVALID_VALUE in glTexImage2D"_s, u"176\\] OpenGL error GL_INVALID_VALUE"_s,
          u"GL_INVALID_OPERATION in glGenerateMipmap"_s, u"185\\] OpenGL error GL_INVALID_OPERATION"_s}) {
        expectMessage(error);
    }
}

} // namespace
} // namespace Morvane::Qel::Test
