#include <QColor>
#include <QDir>
#include <QFile>
#include <QImage>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstring>
#include <limits>
#include <random>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfRgbaFile.h>
#include <OpenEXR/ImfStringAttribute.h>

#include <Qel/graph/ImageIO.h>

#include "support/Folder.h"

namespace Morvane::Qel::Test {

namespace {

using Floats = std::vector<float>;
using Integers = std::vector<quint32>;

const QStringList rgba = {"R", "G", "B", "A"};
const float infinity = std::numeric_limits<float>::infinity();

class ImageIO : public testing::Test, protected Folder
{
protected:
    Floats readFloats(const QString& name) { return std::get<Floats>(image(name).samples); }

    void expectWriteError(const QString& name, const Image& image, const QString& message)
    {
        QString error;
        EXPECT_FALSE(writeImage(image, path(name), &error));
        EXPECT_FALSE(error.contains('\n')) << qPrintable(error);
        EXPECT_TRUE(error.startsWith(path(name)) && error.contains(message)) << qPrintable(error);
    }
};

} // namespace

TEST_F(ImageIO, ExrFilesKeepAllBits)
{
    const Floats colours{0.0F,     -0.0F,     1e-40F,        3.4e38F,     //
                         infinity, -infinity, std::nanf(""), 1.0F / 3.0F, //
                         -2.0F,    65504.0F,  1e6F,          0.1F};
    write("colour.exr", {1, 3, rgba, colours});
    EXPECT_EQ(image("colour.exr").summary(), "1x3 RGBA");
    EXPECT_EQ(std::memcmp(readFloats("colour.exr").data(), colours.data(), sizeof(float) * colours.size()),
              0);
    // Another reader finds the top row first and 32-bit channels.
    Imf::RgbaInputFile file(qPrintable(path("colour.exr")));
    std::array<Imf::Rgba, 3> pixels;
    file.setFrameBuffer(pixels.data(), 1, 1);
    file.readPixels(0, 2);
    EXPECT_EQ(static_cast<float>(pixels[2].g), 65504.0F);
    EXPECT_EQ(file.header().channels().findChannel("A")->type, Imf::FLOAT);

    write("depth.exr", {2, 1, {"Z"}, Floats{0.25F, 1.0F}});
    EXPECT_EQ(image("depth.exr").channels, QStringList("Z"));
    EXPECT_EQ(readFloats("depth.exr"), (Floats{0.25F, 1.0F}));

    const Integers ids{0, 0xffffffffU, 0x01020304U, 16777217};
    write("ids.exr", {1, 2, rgba.first(2), ids});
    EXPECT_EQ(std::get<Integers>(image("ids.exr").samples), ids);
    EXPECT_EQ(image("ids.exr").sample(0, 1, 1), 16777217.0);
}

TEST_F(ImageIO, ReadsHalfFloatsAndOffsetDataWindows)
{
    const std::array<Imf::Rgba, 2> pixels{Imf::Rgba(0.5F, 8.0F, 3.0F), Imf::Rgba(-3.0F, 0.25F, 1.0F)};
    {
        // One column, from x = -1 and y = 1.
        Imf::RgbaOutputFile file(qPrintable(path("half.exr")), {{0, 0}, {9, 9}}, {{-1, 1}, {-1, 2}},
                                 Imf::WRITE_RGB);
        file.setFrameBuffer(pixels.data(), 1, 1);
        file.writePixels(2);
    }
    EXPECT_EQ(image("half.exr").channels, rgba.first(3));
    EXPECT_EQ(readFloats("half.exr"), (Floats{0.5F, 8.0F, 3.0F, -3.0F, 0.25F, 1.0F}));
}

TEST_F(ImageIO, PngFilesClampRoundAndKeepStraightAlpha)
{
    // Values from 0.5 / 255 round up.
    const float half = 0.5F / 255.0F;
    write("p.png", {2, 2, rgba,
                    Floats{-1.0F, 2.0F, std::nanf(""), 0.0F,          //
                           half * 1.001F, half * 0.999F, 0.5F, 0.25F, //
                           infinity, 1.0F, 254.4F / 255.0F, 1.0F,     //
                           0.2F, 0.4F, 0.6F, 0.8F}});
    const QImage png(path("p.png"));
    EXPECT_EQ(png.pixelColor(0, 0), QColor(0, 255, 0, 0));
    EXPECT_EQ(png.pixelColor(1, 0), QColor(1, 0, 128, 64));
    EXPECT_EQ(png.pixelColor(0, 1), QColor(255, 255, 254, 255));
    EXPECT_EQ(png.pixelColor(1, 1), QColor(51, 102, 153, 204));
    // Colour with alpha 0 survives, and bytes are divided by 255.
    Floats firstRow = readFloats("p.png");
    firstRow.resize(8);
    EXPECT_EQ(firstRow,
              (Floats{0.0F, 1.0F, 0.0F, 0.0F, 1.0F / 255.0F, 0.0F, 128.0F / 255.0F, 64.0F / 255.0F}));

    write("grey.png", {1, 2, {"Z"}, Floats{0.0F, 0.6F}});
    EXPECT_EQ(QImage(path("grey.png")).pixelColor(0, 1), QColor(153, 153, 153));
    EXPECT_EQ(image("grey.png").summary(), "1x2 R");
    write("rg.png", {1, 1, rgba.first(2), Floats{0.2F, 0.4F}});
    EXPECT_EQ(QImage(path("rg.png")).pixelColor(0, 0), QColor(51, 102, 0));

    QImage deep(1, 1, QImage::Format_RGBA64);
    deep.setPixelColor(0, 0, QColor::fromRgba64(12345, 0, 65535, 30000));
    ASSERT_TRUE(deep.save(path("deep.png")));
    EXPECT_EQ(readFloats("deep.png"), (Floats{12345.0F / 65535.0F, 0.0F, 1.0F, 30000.0F / 65535.0F}));
    QImage palette(1, 1, QImage::Format_Indexed8);
    palette.setColorTable({qRgb(10, 20, 30), qRgb(51, 102, 0)});
    palette.setPixel(0, 0, 1);
    ASSERT_TRUE(palette.save(path("palette.png")));
    EXPECT_EQ(readFloats("palette.png"), (Floats{0.2F, 0.4F, 0.0F}));
}

TEST_F(ImageIO, PngFilesHoldEveryPixelAndStaySmall)
{
    // Flat, sloping, vertical stripes, horizontal stripes and noise, so that every filter has its rows; the
    // last one needs several chunks.
    std::minstd_rand random;
    const auto byte = [&](int kind, int x, int y, int c) {
        const std::array values{40, (x * x + 3 * x * y + y * y) / 64 + 9 * c, x * x * (7 + c),
                                y * y * (5 + c), static_cast<int>(random())};
        return static_cast<float>(values[static_cast<size_t>(kind)] & 255) / 255.0F;
    };
    for (const auto& [width, height] : {std::pair(1, 1), {1, 40}, {3, 5}, {201, 40}, {997, 500}}) {
        for (const int numChannels : {1, 3, 4}) {
            Image image{width, height, rgba.first(numChannels), Floats()};
            for (int y = 0; y < height; ++y) {
                for (int x = 0; x < width * numChannels; ++x) {
                    std::get<Floats>(image.samples)
                        .push_back(byte(height > 100 ? 4 : y / 8, x / numChannels, y, x % numChannels));
                }
            }
            QString error;
            ASSERT_TRUE(writeImage(image, path("p.png"), &error, {.pngAlpha = PngAlpha::Keep}));
            EXPECT_EQ(readFloats("p.png"), std::get<Floats>(image.samples)) << image.summary().toStdString();
            ASSERT_TRUE(QImage(path("p.png")).save(path("qt.png")));
            EXPECT_LE(contents("p.png").size(), contents("qt.png").size() * 23 / 20 + 32);
        }
    }
}

TEST_F(ImageIO, AlphaIsLeftOutKeptOrDividedOut)
{
    // Half covered; over 1 when divided; not covered at all.
    const Image image{3, 1, rgba, Floats{0.1F, 0.2F, 0.4F, 0.5F, 0.6F, 0, 0, 0.5F, 0.2F, 0.2F, 0.2F, 0}};
    const auto written = [&](PngAlpha pngAlpha, AlphaMeaning alpha) {
        QString error;
        EXPECT_TRUE(writeImage(image, path("a.png"), &error, {.pngAlpha = pngAlpha, .alpha = alpha}));
        const QImage png(path("a.png"));
        return QList{png.pixelColor(0, 0), png.pixelColor(1, 0), png.pixelColor(2, 0)};
    };
    const QList opaque{QColor(26, 51, 102), QColor(153, 0, 0), QColor(51, 51, 51)};
    const QList kept{QColor(26, 51, 102, 128), QColor(153, 0, 0, 128), QColor(51, 51, 51, 0)};
    const QList divided{QColor(51, 102, 204, 128), QColor(255, 0, 0, 128), QColor(0, 0, 0, 0)};
    EXPECT_EQ(written(PngAlpha::Opaque, AlphaMeaning::Premultiplied), opaque);
    EXPECT_EQ(written(PngAlpha::Keep, AlphaMeaning::Premultiplied), kept);
    EXPECT_EQ(written(PngAlpha::Straight, AlphaMeaning::Premultiplied), divided);
    EXPECT_EQ(written(PngAlpha::Straight, AlphaMeaning::Unspecified), divided);
    EXPECT_EQ(written(PngAlpha::Straight, AlphaMeaning::Data), kept);

    // EXR files keep all channels and say what they are.
    QString error;
    const ImageFileOptions options{.encoding = Encoding::Linear, .alpha = AlphaMeaning::Premultiplied};
    ASSERT_TRUE(writeImage(image, path("a.exr"), &error, options));
    EXPECT_EQ(readFloats("a.exr"), std::get<Floats>(image.samples));
    const Imf::InputFile file(qPrintable(path("a.exr")));
    EXPECT_EQ(file.header().typedAttribute<Imf::StringAttribute>("qelAlpha").value(), "premultiplied");
    EXPECT_EQ(file.header().typedAttribute<Imf::StringAttribute>("qelEncoding").value(), "linear light");
}

TEST_F(ImageIO, FailedWritesNameTheCauseAndKeepTheFolderAsItWas)
{
    const Image white{1, 1, rgba, Floats{1, 1, 1, 1}};
    ASSERT_TRUE(QDir(path({})).mkdir("folder.exr"));
    for (const char* name : {"none/a.png", "none/a.exr"}) {
        expectWriteError(name, white, "No such file");
    }
    for (const char* name : {"a.jpg", "a", "a.png.bak"}) {
        expectWriteError(name, white, ".png or an .exr");
    }
    expectWriteError("folder.exr", white, {});
    expectWriteError("id.png", {1, 1, rgba.first(1), Integers{1}}, "integer images");
    QString error;
    EXPECT_FALSE(checkImagePath(path("none/a.png"), &error));
    EXPECT_TRUE(checkImagePath(path("a.EXR"), &error));
    EXPECT_EQ(files("*"), QStringList());

    // Only regular files are replaced, also behind links, which stay.
    write("old.png", QString("old"));
    ASSERT_EQ(mkfifo(qPrintable(path("pipe.png")), 0600), 0);
    for (const auto& [target, name] : {std::pair("pipe.png", "one.png"),
                                       {"one.png", "two.png"},
                                       {"/dev/null", "null.exr"},
                                       {"old.png", "link.png"},
                                       {"link.png", "far.png"},
                                       {"new.png", "dangling.png"}}) {
        ASSERT_EQ(symlink(target, qPrintable(path(name))), 0);
    }
    for (const char* name : {"pipe.png", "one.png", "two.png"}) {
        expectWriteError(name, white, "it is a named pipe; choose a regular file");
    }
    expectWriteError("null.exr", white, "it is a device");
    write("far.png", white);
    write("dangling.png", white);
    EXPECT_EQ(readFloats("old.png"), readFloats("new.png"));
    for (const char* name : {"pipe.png", "one.png", "two.png", "null.exr", "link.png", "far.png",
                             "dangling.png", "old.png", "new.png"}) {
        EXPECT_EQ(QFileInfo(path(name)).isSymLink(), !QString("pipe.png old.png new.png").contains(name))
            << name;
        QFile::remove(path(name));
    }

    // With its signal ignored, the limit on file sizes makes writes fail as on a full disk.
    write("a.png", white);
    write("a.exr", white);
    Image large{256, 256, rgba, Floats(size_t{256} * 256 * 4)};
    // Noise does not compress.
    std::generate_n(std::get<Floats>(large.samples).begin(), size_t{256} * 256 * 4,
                    [random = std::minstd_rand()]() mutable { return static_cast<float>(random()) / 2e9F; });
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small{10000, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    expectWriteError("a.png", large, "File too large; check that the disk is not full");
    expectWriteError("a.exr", large, "File too large; check that the disk is not full");
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(files("*"), (QStringList{"a.exr", "a.png"}));
    EXPECT_EQ(readFloats("a.png"), (Floats{1, 1, 1, 1}));
    EXPECT_EQ(readFloats("a.exr"), (Floats{1, 1, 1, 1}));
}

TEST_F(ImageIO, DamagedFilesAreRejectedWithOneLine)
{
    const auto isReadable = [&](const QString& name) {
        QString error;
        const bool readable = readImage(path(name), &error).has_value();
        EXPECT_NE(readable, error.startsWith(path(name))) << qPrintable(error);
        EXPECT_FALSE(error.contains('\n')) << qPrintable(error);
        return readable;
    };
    for (const char* name : {"image.exr", "image.png"}) {
        write(name, {40, 40, rgba, Floats(size_t{40} * 40 * 4, 0.3F)});
        const QByteArray bytes = contents(name);
        QFile file(path(name));
        // From the end, so that each cut only shortens the file.
        for (qsizetype length = bytes.size() * 9 / 10; length > 0; length -= 13) {
            ASSERT_TRUE(file.resize(length));
            EXPECT_FALSE(isReadable(name)) << name << " cut at " << length;
        }
        // Some of these are still valid images; none may crash.
        for (qsizetype place = 0; place < bytes.size(); place += 3) {
            QByteArray damaged = bytes;
            damaged[place] = static_cast<char>(damaged[place] ^ 0x55);
            ASSERT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(damaged);
            file.close();
            isReadable(name);
        }
    }
    // The header of a PNG of 200000x200000.
    QFile huge(path("huge.png"));
    ASSERT_TRUE(huge.open(QIODevice::WriteOnly));
    huge.write(
        QByteArray::fromBase64("iVBORw0KGgoAAAANSUhEUgADDUAAAw1ACAYAAAD5O4gKAAAACUlEQVR4nGMAAAABAAFe/335"));
    huge.close();
    QString error;
    EXPECT_FALSE(readImage(huge.fileName(), &error));
    EXPECT_TRUE(error.contains("200000x200000 pixels, needs more memory")) << qPrintable(error);
    // The headers of EXR files whose numbers the library would allocate memory by.
    const ImageFileOptions options{.encoding = Encoding::Linear};
    ASSERT_TRUE(writeImage({1, 1, {"Z"}, Floats{0.5F}}, path("whole.exr"), &error, options));
    QFile whole(path("whole.exr"));
    ASSERT_TRUE(whole.open(QIODevice::ReadOnly));
    const QByteArray bytes = whole.readAll();
    const auto expectProblem = [&](const char* attribute, qsizetype offset, const char* message) {
        QByteArray changed = bytes;
        // Little-endian 0x40000000 after the names of the attribute and its type.
        const qsizetype names = changed.indexOf(attribute);
        const qsizetype value = changed.indexOf('\0', changed.indexOf('\0', names) + 1) + 1;
        changed.replace(value + offset, 4, QByteArray("\0\0\0\x40", 4));
        QFile file(path("changed.exr"));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(changed) == bytes.size());
        file.close();
        EXPECT_FALSE(readImage(file.fileName(), &error));
        EXPECT_TRUE(error.contains(message)) << qPrintable(error);
    };
    expectProblem("qelEncoding", 0, "qelEncoding");
    expectProblem("dataWindow", 12, "Invalid data window (0, 0 - 1073741824, 0)");
    EXPECT_FALSE(isReadable("missing.exr"));
    EXPECT_FALSE(isReadable({}));
}

} // namespace Morvane::Qel::Test
