#include <QColor>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QImageWriter>
#include <QTemporaryDir>

#include <memory>
#include <random>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/compositing/TextureLoaderRenderPass.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

/// Drivers turn 8 bits into floats with an error of their own in the last place.
constexpr float lastPlace = 1e-6F;

QVector4D toVector(QRgb color)
{
    return QVector4D(static_cast<float>(qRed(color)), static_cast<float>(qGreen(color)),
                     static_cast<float>(qBlue(color)), static_cast<float>(qAlpha(color))) /
           255.0F;
}

/// The picture that GL should hold of an image: its last row is the first.
Pixels upsideDown(const QImage& image)
{
    return Pixels::generate(image.width(), image.height(),
                            [&](int x, int y) { return toVector(image.pixel(x, image.height() - 1 - y)); });
}

class TextureLoaderRenderPassTest : public GLTest
{
protected:
    void TearDown() override
    {
        m_pass.reset();
        GLTest::TearDown();
    }

    void SetUp() override
    {
        GLTest::SetUp();
        ASSERT_TRUE(m_folder.isValid());
    }

    QString path(const QString& name) const { return m_folder.filePath(name); }

    Pixels load(const QString& file) { return render(*m_pass, {file}); }

    /// How many lines said why a picture was replaced; they are forgotten.
    qsizetype numNotices()
    {
        const qsizetype notices = messages().information.filter(u"stands in"_s).size();
        const qsizetype fresh = notices - m_numNoticesBefore;
        m_numNoticesBefore = notices;
        return fresh;
    }

    std::unique_ptr<TextureLoaderRenderPass> m_pass = std::make_unique<TextureLoaderRenderPass>();

private:
    QTemporaryDir m_folder;
    qsizetype m_numNoticesBefore = 0;
};

const Pixels white = Pixels::generate(1, 1, [](int, int) { return QVector4D(1, 1, 1, 1); });

TEST_F(TextureLoaderRenderPassTest, ShowsEveryFormatOfImagesRight)
{
    // What each pixel format can hold of a picture with all kinds of colours and alphas, from one that holds
    // everything; sizes whose rows need padding in formats of fewer than 32 bits.
    const auto colour = [](int x, int y) { return qRgba(x * 60, 255 - y * 80, (x + y) * 36, 255 - x * 50); };
    const auto grey = [](int x, int) { return qRgba(x * 60, x * 60, x * 60, 255); };
    const auto blackOrWhite = [](int x, int y) {
        return (x + 2 * y) % 3 == 0 ? qRgba(0, 0, 0, 255) : qRgba(255, 255, 255, 255);
    };
    const auto opaque = [&](int x, int y) { return colour(x, y) | 0xff000000U; };
    const auto fiveBits = [](int x, int y) { return qRgb(x % 2 == 0 ? 255 : 0, y % 2 == 0 ? 255 : 0, 255); };
    struct Case
    {
        const char* name;
        QImage::Format format;
        std::function<QRgb(int, int)> color;
    };
    const std::vector<Case> cases{
        {"Mono", QImage::Format_Mono, blackOrWhite},       {"MonoLSB", QImage::Format_MonoLSB, blackOrWhite},
        {"Indexed8", QImage::Format_Indexed8, fiveBits},   {"RGB32", QImage::Format_RGB32, opaque},
        {"ARGB32", QImage::Format_ARGB32, colour},         {"RGB16", QImage::Format_RGB16, fiveBits},
        {"RGB555", QImage::Format_RGB555, fiveBits},       {"RGB888", QImage::Format_RGB888, opaque},
        {"RGBA8888", QImage::Format_RGBA8888, colour},     {"Grayscale8", QImage::Format_Grayscale8, grey},
        {"Grayscale16", QImage::Format_Grayscale16, grey}, {"RGBX64", QImage::Format_RGBX64, opaque},
        {"RGBA64", QImage::Format_RGBA64, colour},
    };
    for (const Case& c : cases) {
        QImage picture(5, 3, QImage::Format_ARGB32);
        for (int y = 0; y < picture.height(); ++y) {
            for (int x = 0; x < picture.width(); ++x) {
                picture.setPixel(x, y, c.color(x, y));
            }
        }
        const QString file = path(QString::fromLatin1(c.name) + u".png"_s);
        ASSERT_TRUE(picture.convertToFormat(c.format).save(file));
        EXPECT_TRUE(equal(load(file), upsideDown(picture), lastPlace)) << c.name;
        EXPECT_EQ(outputTexture(*m_pass)->size(), picture.size());
    }

    // Every lossless file format that Qt writes here.
    QImage picture(3, 7, QImage::Format_RGB32);
    picture.fill(qRgb(10, 200, 90));
    picture.setPixel(0, 0, qRgb(255, 0, 1));
    picture.setPixel(2, 6, qRgb(2, 0, 255));
    int numFormats = 0;
    for (const QByteArray format : {"bmp", "ppm", "xpm", "tiff", "ico", "tga", "webp"}) {
        if (!QImageWriter::supportedImageFormats().contains(format)) {
            continue;
        }
        const QString file = path(u"picture."_s + QString::fromLatin1(format));
        ASSERT_TRUE(picture.save(file, nullptr, 100)) << format.constData();
        EXPECT_TRUE(equal(load(file), upsideDown(picture), lastPlace)) << format.constData();
        ++numFormats;
    }
    EXPECT_GE(numFormats, 3);
    EXPECT_EQ(numNotices(), 0);
}

TEST_F(TextureLoaderRenderPassTest, TakesSizesUpToTheDriversLimit)
{
    const int limit = context().maxTextureSize();
    for (const QSize& imageSize : {QSize(1, 1), QSize(7, 1), QSize(1, 9), QSize(limit, 1), QSize(2, limit)}) {
        QImage image(imageSize, QImage::Format_RGB32);
        image.fill(Qt::darkCyan);
        image.setPixel(0, 0, qRgb(255, 1, 2));
        image.setPixel(imageSize.width() - 1, imageSize.height() - 1, qRgb(3, 4, 255));
        ASSERT_TRUE(image.save(path(u"sized.bmp"_s)));
        load({});
        numNotices();
        EXPECT_TRUE(equal(load(path(u"sized.bmp"_s)), upsideDown(image), lastPlace));
        EXPECT_EQ(numNotices(), 0);
    }
    QImage image(limit + 1, 1, QImage::Format_Mono);
    image.fill(0);
    ASSERT_TRUE(image.save(path(u"over.png"_s)));
    EXPECT_TRUE(equal(load(path(u"over.png"_s)), white));
    EXPECT_TRUE(messages().information.last().contains(
        u"has %1x1 pixels, more than the driver's limit of %2"_s.arg(limit + 1).arg(limit)));
}

TEST_F(TextureLoaderRenderPassTest, SaysOnceWhyAFileIsNotShown)
{
    QImage image(40, 40, QImage::Format_RGB32);
    image.fill(Qt::red);
    ASSERT_TRUE(image.save(path(u"whole.bmp"_s)));
    QFile whole(path(u"whole.bmp"_s));
    ASSERT_TRUE(whole.open(QIODevice::ReadOnly));
    const auto write = [&](const QString& name, const QByteArray& bytes) {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
    };
    write(u"cut.bmp"_s, whole.read(30));
    write(u"empty.png"_s, {});
    write(u"text.png"_s, "this is no picture\n");
    ASSERT_TRUE(QDir(path({})).mkdir(u"folder.png"_s));

    struct Case
    {
        QString name;
        const char* reason;
    };
    for (const Case& c : {Case{u"cut.bmp"_s, "cannot be read as an image: "},
                          Case{u"empty.png"_s, "cannot be read as an image: "},
                          Case{u"text.png"_s, "cannot be read as an image: "},
                          Case{u"folder.png"_s, "is not a file"}, Case{u"nowhere.png"_s, "does not exist"}}) {
        for (int frame = 0; frame < 3; ++frame) {
            EXPECT_TRUE(equal(load(path(c.name)), white)) << qPrintable(c.name);
        }
        EXPECT_EQ(numNotices(), 1) << qPrintable(c.name);
        EXPECT_TRUE(messages().information.last().contains(
            u"\"%1\" %2"_s.arg(path(c.name), QLatin1StringView(c.reason))))
            << qPrintable(messages().information.last());
    }
}

// Some readers of Qt give what they got, others nothing.
TEST_F(TextureLoaderRenderPassTest, ShowsOfACutFileWhatQtMakesOfIt)
{
    std::mt19937 random(5);
    QImage noise(64, 64, QImage::Format_RGB32);
    for (int y = 0; y < noise.height(); ++y) {
        for (int x = 0; x < noise.width(); ++x) {
            noise.setPixel(x, y, static_cast<QRgb>(random()) | 0xff000000U);
        }
    }
    for (const QString& format : {u"png"_s, u"jpg"_s}) {
        const QString file = path(u"cut."_s + format);
        ASSERT_TRUE(noise.save(file));
        // Noise does not compress, so that the middle of the file is in the pixels.
        ASSERT_TRUE(QFile::resize(file, QFile(file).size() / 2));
        const QImage partial(file);
        EXPECT_TRUE(equal(load(file), partial.isNull() ? white : upsideDown(partial), lastPlace))
            << qPrintable(format);
        EXPECT_EQ(numNotices(), partial.isNull() ? 1 : 0) << qPrintable(format);
    }
    // Qt warns by itself of the one of which it shows a part.
    expectMessage(u"Corrupt JPEG data"_s);
}

TEST_F(TextureLoaderRenderPassTest, ReadsAndUploadsOnlyWhenThePathChanges)
{
    // An unset path is the one that was in force, so nothing is uploaded.
    runFrame(*m_pass, {QVariant()});
    Texture* texture = outputTexture(*m_pass);
    ASSERT_TRUE(texture);
    EXPECT_TRUE(texture->size().isEmpty());
    EXPECT_EQ(numNotices(), 0);

    const QString file = path(u"mit Leerzeichen und Ümläuten 漢字.png"_s);
    QImage image(4, 4, QImage::Format_ARGB32);
    image.fill(QColor(10, 20, 30, 40));
    ASSERT_TRUE(image.save(file));
    EXPECT_TRUE(equal(load(file), upsideDown(image), lastPlace));
    EXPECT_TRUE(texture->isReadOnly());
    int coarsest = 0;
    {
        const AutoBinder binder(texture);
        glGetTexLevelParameteriv(GL_TEXTURE_2D, 2, GL_TEXTURE_WIDTH, &coarsest);
    }
    EXPECT_EQ(coarsest, 1) << "the mipmaps are missing";

    // A mark on the texture shows whether the image is uploaded again.
    const Pixels mark = Pixels::generate(4, 4, [](int, int) { return QVector4D(1, 0, 1, 0); });
    texture->setImage2D(0, GL_RGBA, 4, 4, GL_RGBA, GL_FLOAT, mark.values.data());
    ASSERT_TRUE(QFile::remove(file));
    EXPECT_TRUE(equal(load(file), mark));
    EXPECT_EQ(numNotices(), 0);

    EXPECT_TRUE(equal(load(QString()), white)) << "a path that is taken away";
    EXPECT_EQ(numNotices(), 1);
    EXPECT_EQ(outputTexture(*m_pass), texture) << "one texture for the life of the pass";
}

} // namespace
} // namespace Morvane::Qel::Test
