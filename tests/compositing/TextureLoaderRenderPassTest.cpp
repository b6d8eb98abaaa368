#include <QColor>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/compositing/TextureLoaderRenderPass.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/PassRegistry.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

/// The expected texture of an image: its last row is the first.
Pixels upsideDown(const QImage& image)
{
    return Pixels::generate(image.width(), image.height(), [&](int x, int y) {
        const QRgb c = image.pixel(x, image.height() - 1 - y);
        return QVector4D(static_cast<float>(qRed(c)), static_cast<float>(qGreen(c)),
                         static_cast<float>(qBlue(c)), static_cast<float>(qAlpha(c))) /
               255.0F;
    });
}

const Pixels white = Pixels::filled(1, 1, {1, 1, 1, 1});

class TextureLoaderRenderPassTest : public GLTest
{
protected:
    QString path(const QString& name) const { return m_folder.filePath(name); }

private:
    QTemporaryDir m_folder;
};

Pixels load(Runner<TextureLoaderRenderPass>& pass, const QString& file)
{
    return pass.render({file}).roundedToBytes();
}

TEST_F(TextureLoaderRenderPassTest, ConvertsEveryPixelFormat)
{
    // Rows that need padding in formats of fewer than 32 bits.
    QImage colours(5, 3, QImage::Format_ARGB32);
    for (int i = 0; i < 15; ++i) {
        colours.setPixel(i % 5, i / 5, qRgba(i * 17, 255 - i * 16, i * 5, 255 - i % 5 * 50));
    }
    Runner<TextureLoaderRenderPass> pass;
    for (const QImage::Format format :
         {QImage::Format_Mono, QImage::Format_Indexed8, QImage::Format_ARGB32, QImage::Format_RGB16,
          QImage::Format_RGB888, QImage::Format_Grayscale8, QImage::Format_RGBA64}) {
        const QImage image = colours.convertToFormat(format);
        const QString file = path(u"%1.png"_s.arg(format));
        ASSERT_TRUE(image.save(file));
        EXPECT_TRUE(equal(load(pass, file), upsideDown(image))) << format;
    }
    EXPECT_TRUE(pass->imageProblem().isEmpty());
}

TEST_F(TextureLoaderRenderPassTest, TellsWhyAFileIsNotLoaded)
{
    const int limit = context().maxTextureSize();
    Runner<TextureLoaderRenderPass> pass;
    for (const int width : {limit, limit + 1}) {
        QImage image(width, 1, QImage::Format_Mono);
        image.fill(0);
        image.setPixel(0, 0, 1);
        ASSERT_TRUE(image.save(path(u"%1.png"_s.arg(width))));
        EXPECT_TRUE(
            equal(load(pass, path(u"%1.png"_s.arg(width))), width > limit ? white : upsideDown(image)));
    }
    QFile text(path(u"text.png"_s));
    ASSERT_TRUE(text.open(QIODevice::WriteOnly) && text.write("not an image\n") > 0);
    text.close();
    for (const auto& [name, reason] :
         {std::pair(u"%1.png"_s.arg(limit + 1),
                    u"has %1x1 pixels, more than the driver's limit of %2"_s.arg(limit + 1).arg(limit)),
          std::pair(u"text.png"_s, u"cannot be read as an image: "_s), std::pair(u"."_s, u"is not a file"_s),
          std::pair(u"missing.png"_s, u"does not exist"_s)}) {
        EXPECT_TRUE(equal(load(pass, path(name)), white)) << qPrintable(name);
        EXPECT_TRUE(equal(load(pass, path(name)), white)) << qPrintable(name);
        EXPECT_TRUE(pass->imageProblem().startsWith(u"\"%1\" %2"_s.arg(path(name), reason)));
    }
}

TEST_F(TextureLoaderRenderPassTest, LoadsOnlyWhenThePathChanges)
{
    Runner<TextureLoaderRenderPass> pass;
    pass.run();
    Texture* texture = pass.texture();
    ASSERT_TRUE(texture);
    EXPECT_TRUE(texture->size().isEmpty());

    const QString file = path(u"mit Leerzeichen und Ümläuten 漢字.png"_s);
    QImage image(4, 4, QImage::Format_ARGB32);
    image.fill(QColor(10, 20, 30, 40));
    ASSERT_TRUE(image.save(file));
    EXPECT_TRUE(equal(load(pass, file), upsideDown(image)));
    EXPECT_TRUE(texture->isReadOnly());
    EXPECT_EQ(texture->levels(), 3);

    // Another image in the texture shows that nothing is uploaded again.
    const Pixels mark = Pixels::filled(4, 4, {1, 0, 1, 0});
    texture->setImage2D(0, GL_RGBA, 4, 4, GL_RGBA, GL_FLOAT, mark.values.data());
    EXPECT_TRUE(equal(load(pass, file), mark));
    EXPECT_TRUE(pass->imageProblem().isEmpty());
    EXPECT_TRUE(equal(load(pass, {}), white)) << "a path that is unset again";
    EXPECT_TRUE(pass->imageProblem().isEmpty());
    EXPECT_EQ(pass.texture(), texture);
}

TEST_F(TextureLoaderRenderPassTest, WrapsAsTheOptionSays)
{
    for (const auto& [wrap, mode] :
         {std::pair(u"repeat"_s, GL_REPEAT), std::pair(u"clamp"_s, GL_CLAMP_TO_EDGE),
          std::pair(u"mirror"_s, GL_MIRRORED_REPEAT)}) {
        QString error;
        const auto pass =
            PassRegistry::builtin().create(u"TextureLoaderRenderPass"_s, {{u"wrap"_s, wrap}}, &error);
        PassRunner runner(*pass);
        runner.run();
        EXPECT_EQ(runner.texture()->parameter(GL_TEXTURE_WRAP_T), mode);
    }
}

TEST_F(TextureLoaderRenderPassTest, KeepsTheValuesOfExrFiles)
{
    Runner<TextureLoaderRenderPass> pass;
    const auto load = [&](const Image& image, const std::vector<QVector4D>& expected, unsigned int format) {
        QString error;
        ASSERT_TRUE(writeImage(image, path(u"a.exr"_s), &error)) << qPrintable(error);
        pass.set(u"TexturePath"_s, path({}));
        pass.run();
        EXPECT_TRUE(equal(pass.render({path(u"a.exr"_s)}), Pixels{image.width, image.height, expected}));
        EXPECT_EQ(pass.texture()->internalFormat(), format);
    };
    using Floats = std::vector<float>;
    load({1,
          2,
          {u"R"_s, u"G"_s, u"B"_s, u"A"_s},
          Floats{65504.0F, -0.5F, 0.25F, 0.5F, 3.0F, 0.0F, 1.0F, 2.0F}},
         {{3.0F, 0.0F, 1.0F, 2.0F}, {65504.0F, -0.5F, 0.25F, 0.5F}}, GL_RGBA16F);
    load({1, 1, {u"G"_s, u"R"_s}, Floats{70000.0F, 0.1F}}, {{0.1F, 70000.0F, 0.0F, 1.0F}}, GL_RGBA32F);
    load({1, 1, {u"Z"_s}, Floats{0.75F}}, {{0.75F, 0.75F, 0.75F, 1.0F}}, GL_RGBA16F);
    load({1, 1, {u"U"_s, u"V"_s}, Floats{0.0F, 1.0F}}, white.values, GL_RGBA);
    EXPECT_TRUE(pass->imageProblem().contains(u"has the channels U, V, but none of R, G and B"_s));
}

TEST_F(TextureLoaderRenderPassTest, DecodesHdrFilesAndReportsDamagedOnes)
{
    // One scanline by components, with runs and literals, and one of pixels, whose last is repeated.
    const QByteArray header = "#?RADIANCE\nEXPOSURE=2.0\nFORMAT=32-bit_rle_rgbe\n\n-Y 2 +X 8\n";
    const auto bytes = [](std::initializer_list<int> values) {
        QByteArray result;
        for (const int value : values) {
            result.append(static_cast<char>(value));
        }
        return result;
    };
    const QByteArray top =
        bytes({2, 2, 0, 8, 136, 64, 8, 0, 10, 20, 30, 40, 50, 60, 70, 131, 5, 5, 1, 2, 3, 4, 5, 136, 130});
    const QByteArray bottom = bytes({255, 128, 2, 138, 9, 9, 9, 0, 1, 1, 1, 6});
    Runner<TextureLoaderRenderPass> pass;
    int number = 0;
    const auto load = [&](const QByteArray& contents) {
        QFile file(path(u"%1.hdr"_s.arg(++number)));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size());
        file.close();
        return pass.render({file.fileName()});
    };
    const Pixels expected = Pixels::generate(8, 2, [](int x, int y) {
        const QVector3D last = x == 0 ? QVector3D(255, 128, 2) * 4.0F : QVector3D();
        const float blue = x < 3 ? 5.0F : static_cast<float>(x - 2);
        const QVector3D first = QVector3D(64.0F, 10.0F * static_cast<float>(x), blue) / 64.0F;
        return QVector4D((y == 0 ? last : first) / 2.0F, 1.0F);
    });
    EXPECT_TRUE(equal(load(header + top + bottom), expected));
    EXPECT_TRUE(pass->imageProblem().isEmpty());
    const QByteArray whole = header + top + bottom;
    // Without the first two bytes, it is no HDR file.
    for (qsizetype size = 2; size < whole.size(); ++size) {
        EXPECT_TRUE(equal(load(whole.first(size)), white)) << size;
    }
    for (const QByteArray& wrong :
         {bytes({2, 2, 0, 9}) + top.mid(4), bytes({2, 2, 0, 8, 137, 64}) + top.mid(6),
          bytes({2, 2, 0, 8, 0, 64}) + top.mid(6), bytes({1, 1, 1, 8}) + top}) {
        EXPECT_TRUE(equal(load(header + wrong + bottom), white));
        EXPECT_TRUE(pass->imageProblem().contains(u"cannot be read as an HDR image: row 1 is damaged"_s));
    }
    EXPECT_TRUE(equal(load(QByteArray(header).replace("2.0", "0") + top + bottom), white));
    EXPECT_TRUE(equal(load(QByteArray(header).replace("+X 8", "+X 99999999") + top + bottom), white));
    EXPECT_TRUE(pass->imageProblem().contains(u"99999999x2 pixels"_s));
}

} // namespace
} // namespace Morvane::Qel::Test
