#include <QColor>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/compositing/TextureLoaderRenderPass.h>

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
    QStringList notices() const { return messages().information.filter(u"opaque white texel"_s); }

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
    EXPECT_TRUE(notices().isEmpty());
}

TEST_F(TextureLoaderRenderPassTest, ReportsOnceWhyAFileIsNotLoaded)
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
    qsizetype numNotices = 0;
    for (const auto& [name, reason] :
         {std::pair(u"%1.png"_s.arg(limit + 1),
                    u"has %1x1 pixels, more than the driver's limit of %2"_s.arg(limit + 1).arg(limit)),
          std::pair(u"text.png"_s, u"cannot be read as an image: "_s), std::pair(u"."_s, u"is not a file"_s),
          std::pair(u"missing.png"_s, u"does not exist"_s)}) {
        EXPECT_TRUE(equal(load(pass, path(name)), white)) << qPrintable(name);
        EXPECT_TRUE(equal(load(pass, path(name)), white)) << qPrintable(name);
        ASSERT_EQ(notices().size(), ++numNotices) << qPrintable(name);
        EXPECT_TRUE(notices().last().contains(u"\"%1\" %2"_s.arg(path(name), reason)));
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
    EXPECT_TRUE(notices().isEmpty());
    EXPECT_TRUE(equal(load(pass, {}), white)) << "a path that is unset again";
    EXPECT_EQ(notices().size(), 1);
    EXPECT_EQ(pass.texture(), texture);
}

} // namespace
} // namespace Morvane::Qel::Test
