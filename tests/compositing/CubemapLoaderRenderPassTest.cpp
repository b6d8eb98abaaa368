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
    void TearDown() override
    {
        m_pass.reset();
        GLTest::TearDown();
    }

    /// A square image with a colour of its own whose first row is white and whose first column is black.
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

    Texture* load(const std::vector<QVariant>& paths)
    {
        runFrame(*m_pass, paths);
        return outputTexture(*m_pass);
    }

    /// The texels of a face in GL's order, with the size of the level that was found there.
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

    std::unique_ptr<CubemapLoaderRenderPass> m_pass = std::make_unique<CubemapLoaderRenderPass>();
    QTemporaryDir m_folder;
};

TEST_F(CubemapLoaderRenderPassTest, PutsEveryImageOnItsFaceTopRowFirst)
{
    // Faces of several formats, so that rows of 3 and of 1 byte a pixel and 16-bit channels are among them.
    const std::array formats{QImage::Format_ARGB32, QImage::Format_RGB888, QImage::Format_Indexed8,
                             QImage::Format_RGBA64, QImage::Format_RGB32,  QImage::Format_RGB16};
    std::vector<QVariant> paths(6);
    for (int face = 0; face < 6; ++face) {
        paths[static_cast<size_t>(face)] = makeFace(face + 1, 5, formats[static_cast<size_t>(face)]);
    }
    Texture* cubemap = load(paths);
    ASSERT_TRUE(cubemap);
    EXPECT_EQ(cubemap->target(), static_cast<unsigned int>(GL_TEXTURE_CUBE_MAP));
    for (int face = 0; face < 6; ++face) {
        EXPECT_EQ(
            readFace(cubemap, face),
            QImage(paths[static_cast<size_t>(face)].toString()).convertToFormat(QImage::Format_RGBA8888))
            << "face " << face;
        EXPECT_EQ(readFace(cubemap, face).pixelColor(3, 3), faceColor(face + 1)) << "face " << face;
    }
    const AutoBinder binder(cubemap);
    int coarsest = 0;
    glGetTexLevelParameteriv(GL_TEXTURE_CUBE_MAP_NEGATIVE_Z, 2, GL_TEXTURE_WIDTH, &coarsest);
    EXPECT_EQ(coarsest, 1) << "the mipmaps are missing";
    for (const GLenum parameter : {GL_TEXTURE_WRAP_S, GL_TEXTURE_WRAP_T, GL_TEXTURE_WRAP_R}) {
        int value = 0;
        glGetTexParameteriv(GL_TEXTURE_CUBE_MAP, parameter, &value);
        EXPECT_EQ(value, GL_CLAMP_TO_EDGE);
    }
}

TEST_F(CubemapLoaderRenderPassTest, KeepsWhatItLoadedOnce)
{
    std::vector<QVariant> dayPaths(6);
    for (int face = 0; face < 6; ++face) {
        dayPaths[static_cast<size_t>(face)] = makeFace(face + 1, 4);
    }
    std::vector<QVariant> nightPaths = dayPaths;
    nightPaths[3] = makeFace(7, 4);
    Texture* day = load(dayPaths);
    Texture* night = load(nightPaths);
    EXPECT_NE(day, night);
    for (const QVariant& path : {dayPaths[0], dayPaths[3], nightPaths[3]}) {
        ASSERT_TRUE(QFile::remove(path.toString()));
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(load(dayPaths), day);
        EXPECT_EQ(load(dayPaths), day);
        EXPECT_EQ(load(nightPaths), night);
    }
    EXPECT_EQ(readFace(day, 3).pixelColor(2, 2), faceColor(4));
    EXPECT_EQ(readFace(night, 3).pixelColor(2, 2), faceColor(7));
    EXPECT_TRUE(messages().information.filter(u"stands in"_s).isEmpty());
}

TEST_F(CubemapLoaderRenderPassTest, TransparentTexelsStandInForWhatCannotBeRead)
{
    // Nothing was ever set: a cube map of six texels, made once.
    Texture* unset = load({});
    EXPECT_EQ(load({}), unset);
    for (int face = 0; face < 6; ++face) {
        EXPECT_EQ(readFace(unset, face).size(), QSize(1, 1));
        EXPECT_EQ(readFace(unset, face).pixelColor(0, 0), QColor(0, 0, 0, 0));
    }
    const auto notices = [&] { return messages().information.filter(u"stands in"_s); };
    EXPECT_TRUE(notices().isEmpty());

    const QString texel = makeFace(5, 1);
    const QString nowhere = m_folder.filePath(u"nowhere.png"_s);
    const QString text = m_folder.filePath(u"text.png"_s);
    QFile textFile(text);
    ASSERT_TRUE(textFile.open(QIODevice::WriteOnly));
    textFile.write("this is no picture\n");
    textFile.close();
    Texture* mixed = load({texel, nowhere, texel, m_folder.path(), text, texel});
    EXPECT_EQ(readFace(mixed, 0).pixelColor(0, 0), QColor(Qt::white));
    EXPECT_EQ(readFace(mixed, 1).pixelColor(0, 0), QColor(0, 0, 0, 0));
    EXPECT_EQ(readFace(mixed, 3).pixelColor(0, 0), QColor(0, 0, 0, 0));
    EXPECT_EQ(readFace(mixed, 4).pixelColor(0, 0), QColor(0, 0, 0, 0));
    EXPECT_EQ(readFace(mixed, 5).pixelColor(0, 0), QColor(Qt::white));
    ASSERT_EQ(notices().size(), 3);
    EXPECT_TRUE(notices()[0].contains(u"face -X: \"%1\" does not exist"_s.arg(nowhere)));
    EXPECT_TRUE(notices()[1].contains(u"face -Y: \"%1\" is not a file"_s.arg(m_folder.path())));
    EXPECT_TRUE(notices()[2].contains(u"face +Z: \"%1\" cannot be read as an image: "_s.arg(text)));
    load({texel, nowhere, texel, texel, texel, texel});
    EXPECT_EQ(notices().size(), 3) << "only a path that changes is worth a line";

    // Faces that do not fit each other are GL's to report.
    load({makeFace(6, 8), texel, texel, texel, texel, texel});
    expectMessage(u"GL_INVALID_OPERATION in glGenerateMipmap"_s);
    expectMessage(u"CubemapLoaderRenderPass:185\\] OpenGL error GL_INVALID_OPERATION"_s);
}

} // namespace
} // namespace Morvane::Qel::Test
