#include <QColor>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>

#include <array>
#include <memory>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/compositing/CubemapLoaderRenderPass.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

class CubemapLoaderRenderPassTest : public GLTest
{
protected:
    /// Writes a square image of one colour whose first row is white and whose first column is black.
    QString makeFace(int number, int size, QImage::Format format = QImage::Format_ARGB32)
    {
        QImage image(size, size, QImage::Format_ARGB32);
        image.fill(faceColor(number));
        for (int i = 0; i < size; ++i) {
            image.setPixelColor(i, 0, Qt::white);
        }
        for (int i = 1; i < size; ++i) {
            image.setPixelColor(0, i, Qt::black);
        }
        QString path = m_folder.filePath(u"face %1.png"_s.arg(number));
        EXPECT_TRUE(image.convertToFormat(format).save(path));
        return path;
    }

    static QColor faceColor(int number)
    {
        return QColor(number % 2 * 255, number / 2 % 2 * 255, number / 4 % 2 * 255);
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
        int width = 0;
        int height = 0;
        glGetTexLevelParameteriv(target, 0, GL_TEXTURE_WIDTH, &width);
        glGetTexLevelParameteriv(target, 0, GL_TEXTURE_HEIGHT, &height);
        QImage image(width, height, QImage::Format_RGBA8888);
        glGetTexImage(target, 0, GL_RGBA, GL_UNSIGNED_BYTE, image.bits());
        return image;
    }

    QTemporaryDir m_folder;
};

TEST_F(CubemapLoaderRenderPassTest, LoadsEveryImageToItsFaceTopRowFirst)
{
    // Several formats, so that rows of 3 and of 1 byte a pixel and 16-bit channels are among them.
    const std::array formats{QImage::Format_ARGB32, QImage::Format_RGB888, QImage::Format_Indexed8,
                             QImage::Format_RGBA64, QImage::Format_RGB32,  QImage::Format_RGB16};
    std::vector<Input> paths;
    for (int face = 0; face < 6; ++face) {
        paths.emplace_back(makeFace(face + 1, 5, formats[static_cast<size_t>(face)]));
    }
    Runner<CubemapLoaderRenderPass> pass;
    Texture* cubemap = load(pass, paths);
    ASSERT_TRUE(cubemap);
    EXPECT_EQ(cubemap->target(), static_cast<unsigned int>(GL_TEXTURE_CUBE_MAP));
    for (int face = 0; face < 6; ++face) {
        const QImage file(paths[static_cast<size_t>(face)].value().toString());
        EXPECT_EQ(readFace(cubemap, face), file.convertToFormat(QImage::Format_RGBA8888)) << "face " << face;
        EXPECT_EQ(readFace(cubemap, face).pixelColor(3, 3), faceColor(face + 1)) << "face " << face;
    }
    EXPECT_EQ(cubemap->levels(), 3);
    for (const GLenum parameter : {GL_TEXTURE_WRAP_S, GL_TEXTURE_WRAP_T, GL_TEXTURE_WRAP_R}) {
        EXPECT_EQ(cubemap->parameter(parameter), GL_CLAMP_TO_EDGE);
    }
}

TEST_F(CubemapLoaderRenderPassTest, KeepsEveryCubeMapItLoaded)
{
    std::vector<Input> dayPaths;
    for (int face = 0; face < 6; ++face) {
        dayPaths.emplace_back(makeFace(face + 1, 4));
    }
    std::vector<Input> nightPaths = dayPaths;
    nightPaths[3] = makeFace(7, 4);
    Runner<CubemapLoaderRenderPass> pass;
    Texture* day = load(pass, dayPaths);
    Texture* night = load(pass, nightPaths);
    EXPECT_NE(day, night);
    for (const Input& path : {dayPaths[0], dayPaths[3], nightPaths[3]}) {
        ASSERT_TRUE(QFile::remove(path.value().toString()));
    }
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(load(pass, dayPaths), day);
        EXPECT_EQ(load(pass, nightPaths), night);
    }
    EXPECT_EQ(readFace(day, 3).pixelColor(2, 2), faceColor(4));
    EXPECT_EQ(readFace(night, 3).pixelColor(2, 2), faceColor(7));
}

TEST_F(CubemapLoaderRenderPassTest, ReplacesUnreadableFacesByATransparentTexel)
{
    const QColor transparent(0, 0, 0, 0);
    Runner<CubemapLoaderRenderPass> pass;
    // Without paths: a cube map of six texels, made once, without a message.
    Texture* unset = load(pass, {});
    EXPECT_EQ(load(pass, {}), unset);
    EXPECT_EQ(readFace(unset, 5).size(), QSize(1, 1));
    EXPECT_EQ(readFace(unset, 5).pixelColor(0, 0), transparent);
    const auto notices = [&] { return messages().information.filter(u"transparent black texel"_s); };
    EXPECT_TRUE(notices().isEmpty());

    const QString texel = makeFace(5, 1);
    const QString missing = m_folder.filePath(u"missing.png"_s);
    const QString text = m_folder.filePath(u"text.png"_s);
    QFile textFile(text);
    ASSERT_TRUE(textFile.open(QIODevice::WriteOnly));
    textFile.write("not an image\n");
    textFile.close();
    Texture* mixed = load(pass, {texel, missing, texel, m_folder.path(), text, texel});
    for (const int face : {0, 2, 5}) {
        EXPECT_EQ(readFace(mixed, face).pixelColor(0, 0), QColor(Qt::white));
    }
    for (const int face : {1, 3, 4}) {
        EXPECT_EQ(readFace(mixed, face).pixelColor(0, 0), transparent);
    }
    ASSERT_EQ(notices().size(), 3);
    EXPECT_TRUE(notices()[0].contains(u"face -X: \"%1\" does not exist"_s.arg(missing)));
    EXPECT_TRUE(notices()[1].contains(u"face -Y: \"%1\" is not a file"_s.arg(m_folder.path())));
    EXPECT_TRUE(notices()[2].contains(u"face +Z: \"%1\" cannot be read as an image: "_s.arg(text)));
    load(pass, {texel, missing, texel, texel, texel, texel});
    EXPECT_EQ(notices().size(), 3) << "a path that did not change is reported again";

    // GL reports faces of different sizes.
    load(pass, {makeFace(6, 8), texel, texel, texel, texel, texel});
    expectMessage(u"GL_INVALID_OPERATION in glGenerateMipmap"_s);
    expectMessage(u"CubemapLoaderRenderPass:185\\] OpenGL error GL_INVALID_OPERATION"_s);
}

} // namespace
} // namespace Morvane::Qel::Test
