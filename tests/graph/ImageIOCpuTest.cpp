#include <QColor>
#include <QDir>
#include <QFile>
#include <QImage>

#include <algorithm>
#include <bit>
#include <cmath>
#include <csignal>
#include <limits>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfOutputFile.h>
#include <half.h>

#include <Qel/graph/ImageIO.h>

#include "support/Folder.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

const QStringList rgba = {u"R"_s, u"G"_s, u"B"_s, u"A"_s};

class ImageIO : public testing::Test
{
protected:
    QString path(const QString& name) const { return m_folder.path(name); }

    void write(const Image& image, const QString& name)
    {
        QString error;
        ASSERT_TRUE(writeImage(image, path(name), &error)) << qPrintable(error);
    }

    Image read(const QString& name)
    {
        QString error;
        const std::optional<Image> image = readImage(path(name), &error);
        EXPECT_TRUE(image) << qPrintable(error);
        return image.value_or(Image());
    }

    /// The error message of a write that must fail.
    QString writeError(const Image& image, const QString& filePath)
    {
        QString error;
        EXPECT_FALSE(writeImage(image, filePath, &error));
        EXPECT_FALSE(error.contains(u'\n')) << qPrintable(error);
        EXPECT_TRUE(error.startsWith(filePath)) << qPrintable(error);
        return error;
    }

    Folder m_folder;
};

const std::vector<float>& floats(const Image& image)
{
    return std::get<std::vector<float>>(image.samples);
}

std::vector<quint32> bits(const std::vector<float>& values)
{
    std::vector<quint32> result(values.size());
    std::transform(values.begin(), values.end(), result.begin(),
                   [](float value) { return std::bit_cast<quint32>(value); });
    return result;
}

} // namespace

TEST_F(ImageIO, ExrFilesKeepAllBits)
{
    const float infinity = std::numeric_limits<float>::infinity();
    const Image colour{3, 2, rgba, std::vector<float>{0.0F,     -0.0F,     1e-40F,        3.4e38F,     //
                                                      infinity, -infinity, std::nanf(""), 1.0F / 3.0F, //
                                                      -2.0F,    65504.0F,  1e6F,          0.1F,        //
                                                      1.0F,     2.0F,      3.0F,          4.0F,        //
                                                      5.0F,     6.0F,      7.0F,          8.0F,        //
                                                      9.0F,     10.0F,     11.0F,         12.0F}};
    write(colour, u"colour.exr"_s);
    const Image readBack = read(u"colour.exr"_s);
    EXPECT_EQ(readBack.summary(), u"3x2 RGBA"_s);
    EXPECT_EQ(bits(floats(readBack)), bits(floats(colour)));

    const Image depth{2, 1, {u"Z"_s}, std::vector<float>{0.25F, 1.0F}};
    write(depth, u"depth.exr"_s);
    EXPECT_EQ(read(u"depth.exr"_s).channels, depth.channels);
    EXPECT_EQ(floats(read(u"depth.exr"_s)), floats(depth));

    const Image ids{1, 2, rgba.first(2), std::vector<quint32>{0, 0xffffffffU, 0x01020304U, 16777217}};
    write(ids, u"ids.exr"_s);
    EXPECT_EQ(std::get<std::vector<quint32>>(read(u"ids.exr"_s).samples),
              std::get<std::vector<quint32>>(ids.samples));
    EXPECT_EQ(read(u"ids.exr"_s).sample(0, 1, 1), 16777217.0);
}

TEST_F(ImageIO, ExrFilesHaveTheTopRowFirstAndTypedChannels)
{
    write({1, 2, rgba, std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8}}, u"colour.exr"_s);
    Imf::InputFile file(qPrintable(path(u"colour.exr"_s)));
    std::vector<float> green(2);
    Imf::FrameBuffer frameBuffer;
    frameBuffer.insert(
        "G", Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(green.data()), sizeof(float), sizeof(float)));
    file.setFrameBuffer(frameBuffer);
    file.readPixels(0, 1);
    EXPECT_EQ(green, (std::vector<float>{2, 6}));
    EXPECT_EQ(file.header().channels().findChannel("A")->type, Imf::FLOAT);

    write({1, 1, {u"R"_s}, std::vector<quint32>{7}}, u"id.exr"_s);
    const Imf::InputFile ids(qPrintable(path(u"id.exr"_s)));
    EXPECT_EQ(ids.header().channels().findChannel("R")->type, Imf::UINT);
}

TEST_F(ImageIO, ReadsHalfFloatsAndOffsetDataWindows)
{
    const Imath::Box2i window({-1, 3}, {0, 3});
    Imf::Header header(Imath::Box2i({0, 0}, {9, 9}), window);
    header.channels().insert("G", Imf::Channel(Imf::HALF));
    header.channels().insert("R", Imf::Channel(Imf::HALF));
    header.channels().insert("id", Imf::Channel(Imf::UINT));
    const std::vector<half> red = {half(0.5F), half(-3.0F)};
    const std::vector<half> green = {half(8.0F), half(0.25F)};
    const std::vector<quint32> id = {3, 70000};
    Imf::FrameBuffer frameBuffer;
    const auto insert = [&](const char* name, Imf::PixelType type, const void* values, size_t size) {
        frameBuffer.insert(name, Imf::Slice::Make(type, values, window, size));
    };
    insert("R", Imf::HALF, red.data(), sizeof(half));
    insert("G", Imf::HALF, green.data(), sizeof(half));
    insert("id", Imf::UINT, id.data(), sizeof(quint32));
    {
        Imf::OutputFile file(qPrintable(path(u"half.exr"_s)), header);
        file.setFrameBuffer(frameBuffer);
        file.writePixels(1);
    }
    const Image image = read(u"half.exr"_s);
    EXPECT_EQ(image.channels, (QStringList{u"R"_s, u"G"_s, u"id"_s}));
    EXPECT_EQ(floats(image), (std::vector<float>{0.5F, 8.0F, 3.0F, -3.0F, 0.25F, 70000.0F}));
}

TEST_F(ImageIO, PngFilesClampRoundAndKeepStraightAlpha)
{
    const float nan = std::nanf("");
    // Values from 0.5 / 255 round up.
    const float half = 0.5F / 255.0F;
    write({2, 2, rgba,
           std::vector<float>{-1.0F, 2.0F, nan, 0.0F,                                              //
                              half * 1.001F, half * 0.999F, 0.5F, 0.25F,                           //
                              std::numeric_limits<float>::infinity(), 1.0F, 254.4F / 255.0F, 1.0F, //
                              0.2F, 0.4F, 0.6F, 0.8F}},
          u"p.png"_s);
    const QImage image(path(u"p.png"_s));
    EXPECT_EQ(image.pixelColor(0, 0), QColor(0, 255, 0, 0));
    EXPECT_EQ(image.pixelColor(1, 0), QColor(1, 0, 128, 64));
    EXPECT_EQ(image.pixelColor(0, 1), QColor(255, 255, 254, 255));
    EXPECT_EQ(image.pixelColor(1, 1), QColor(51, 102, 153, 204));
    // Colour with alpha 0 survives, and bytes are divided by 255.
    const Image readBack = read(u"p.png"_s);
    EXPECT_EQ(readBack.summary(), u"2x2 RGBA"_s);
    EXPECT_EQ(
        std::vector<float>(floats(readBack).begin(), floats(readBack).begin() + 8),
        (std::vector<float>{0.0F, 1.0F, 0.0F, 0.0F, 1.0F / 255.0F, 0.0F, 128.0F / 255.0F, 64.0F / 255.0F}));

    write({1, 2, {u"Z"_s}, std::vector<float>{0.0F, 0.6F}}, u"grey.png"_s);
    EXPECT_EQ(QImage(path(u"grey.png"_s)).pixelColor(0, 1), QColor(153, 153, 153));
    EXPECT_EQ(read(u"grey.png"_s).summary(), u"1x2 R"_s);

    write({1, 1, rgba.first(2), std::vector<float>{0.2F, 0.4F}}, u"rg.png"_s);
    EXPECT_EQ(QImage(path(u"rg.png"_s)).pixelColor(0, 0), QColor(51, 102, 0));
}

TEST_F(ImageIO, ReadsPngsWith16BitsAndPalettes)
{
    QImage deep(1, 1, QImage::Format_RGBA64);
    deep.setPixelColor(0, 0, QColor::fromRgba64(12345, 0, 65535, 30000));
    ASSERT_TRUE(deep.save(path(u"deep.png"_s)));
    EXPECT_EQ(floats(read(u"deep.png"_s)),
              (std::vector<float>{12345.0F / 65535.0F, 0.0F, 1.0F, 30000.0F / 65535.0F}));

    QImage palette(2, 1, QImage::Format_Indexed8);
    palette.setColorTable({qRgb(10, 20, 30), qRgb(40, 50, 60)});
    palette.setPixel(0, 0, 1);
    palette.setPixel(1, 0, 0);
    ASSERT_TRUE(palette.save(path(u"palette.png"_s)));
    const Image image = read(u"palette.png"_s);
    EXPECT_EQ(image.summary(), u"2x1 RGB"_s);
    EXPECT_EQ(floats(image), (std::vector<float>{40.0F / 255.0F, 50.0F / 255.0F, 60.0F / 255.0F,
                                                 10.0F / 255.0F, 20.0F / 255.0F, 30.0F / 255.0F}));
}

TEST_F(ImageIO, FailedWritesNameTheCauseAndLeaveNoFile)
{
    const Image image{1, 1, rgba, std::vector<float>{0, 0, 0, 0}};
    for (const char* name : {"none/a.png", "none/a.exr"}) {
        EXPECT_TRUE(writeError(image, path(QString::fromUtf8(name))).contains(u"No such file"_s));
    }
    for (const char* name : {"a.jpg", "a", "a.png.bak"}) {
        EXPECT_TRUE(writeError(image, path(QString::fromUtf8(name))).contains(u".png or an .exr"_s));
    }
    ASSERT_TRUE(QDir(m_folder.path({})).mkdir(u"folder.exr"_s));
    writeError(image, path(u"folder.exr"_s));
    EXPECT_TRUE(writeError({1, 1, rgba.first(1), std::vector<quint32>{1}}, path(u"id.png"_s))
                    .contains(u"integer images"_s));
    EXPECT_EQ(m_folder.files(u"*"_s), QStringList());

    QString error;
    EXPECT_FALSE(checkImagePath(path(u"none/a.png"_s), &error));
    EXPECT_TRUE(checkImagePath(path(u"a.EXR"_s), &error));
    EXPECT_EQ(m_folder.files(u"*"_s), QStringList());
}

TEST_F(ImageIO, AFullDiskLeavesTheOldFile)
{
    const Image old{1, 1, rgba, std::vector<float>{1, 1, 1, 1}};
    write(old, u"a.png"_s);
    write(old, u"a.exr"_s);
    // Noise does not compress.
    Image large{256, 256, rgba, {}};
    quint32 state = 1;
    for (int i = 0; i < 256 * 256 * 4; ++i) {
        state = state * 1664525U + 1013904223U;
        std::get<std::vector<float>>(large.samples).push_back(static_cast<float>(state >> 8) / 16777216.0F);
    }
    // With its signal ignored, the limit on file sizes makes writes fail as on a full disk.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small{10000, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const QString errors = writeError(large, path(u"a.png"_s)) + writeError(large, path(u"a.exr"_s));
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(errors.count(u"check that the disk is not full"_s), 2) << qPrintable(errors);
    EXPECT_EQ(m_folder.files(u"*"_s), (QStringList{u"a.exr"_s, u"a.png"_s}));
    EXPECT_EQ(read(u"a.png"_s).summary(), old.summary());
    EXPECT_EQ(floats(read(u"a.exr"_s)), floats(old));
}

TEST_F(ImageIO, DamagedFilesAreRejectedWithOneLine)
{
    const Image image{40, 40, rgba, std::vector<float>(size_t{40} * 40 * 4, 0.3F)};
    for (const QString& extension : {u"exr"_s, u"png"_s}) {
        write(image, u"whole."_s + extension);
        const QByteArray bytes = m_folder.contents(u"whole."_s + extension);
        const auto readDamaged = [&](const QByteArray& content) {
            const QString name = path(u"damaged."_s + extension);
            QFile file(name);
            EXPECT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(content);
            file.close();
            QString error;
            const bool readable = readImage(name, &error).has_value();
            EXPECT_NE(readable, error.startsWith(name)) << qPrintable(error);
            EXPECT_FALSE(error.contains(u'\n')) << qPrintable(error);
            return readable;
        };
        for (qsizetype length = 0; length < bytes.size() * 9 / 10; length += 13) {
            EXPECT_FALSE(readDamaged(bytes.first(length))) << qPrintable(extension) << " cut at " << length;
        }
        // Some of these are still valid images; none may crash.
        for (qsizetype place = 0; place < bytes.size(); place += 3) {
            QByteArray content = bytes;
            content[place] = static_cast<char>(content[place] ^ 0x55);
            readDamaged(content);
        }
    }
    QString error;
    EXPECT_FALSE(readImage(path(u"missing.exr"_s), &error));
    EXPECT_TRUE(error.contains(u"No such file"_s)) << qPrintable(error);
    EXPECT_FALSE(readImage(m_folder.path({}), &error));
    EXPECT_TRUE(error.contains(u"folder"_s)) << qPrintable(error);
}

} // namespace Morvane::Qel::Test
