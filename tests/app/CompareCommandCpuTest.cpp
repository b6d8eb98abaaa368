#include <QFile>

#include <cmath>

#include <gtest/gtest.h>

#include <Qel/graph/ImageIO.h>

#include "support/Folder.h"
#include "support/Program.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

const QStringList rgba = {u"R"_s, u"G"_s, u"B"_s, u"A"_s};

class Compare : public testing::Test, protected Folder
{
protected:
    template<class Sample = float>
    void writePixels(const QString& name, int width, int height, const QStringList& channels,
                     const std::vector<Sample>& samples)
    {
        QString error;
        ASSERT_TRUE(writeImage({width, height, channels, samples}, path(name), &error)) << qPrintable(error);
    }

    ProgramResult compare(const QString& a, const QString& b, const QStringList& options = {})
    {
        return runProgram(QStringList{u"compare"_s, path(a), path(b)} + options);
    }
};

} // namespace

TEST_F(Compare, PrintsDifferencesAndWorstPixels)
{
    // Powers of two, so that every printed number is exact. The second pixel differs most, in alpha.
    writePixels(u"a.exr"_s, 4, 2, rgba, std::vector<float>(32, 1.0F));
    std::vector<float> b(32, 1.0F);
    b[0] = 0.5F;
    b[1] = 1.25F;
    b[7] = 2.0F;
    for (const size_t pixel : {2, 3, 4, 6}) {
        b[4 * pixel] = 0.75F;
    }
    writePixels(u"b.exr"_s, 4, 2, rgba, b);
    const ProgramResult result = compare(u"a.exr"_s, u"b.exr"_s);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, QString());
    const QStringList lines = result.output.split(u'\n');
    ASSERT_EQ(lines.size(), 13) << qPrintable(result.output);
    const char* const expected[] = {"R 0.5 0.1875", "G 0.25 0.03125", "B 0 0", "A 1 0.125"};
    for (int c = 0; c < 4; ++c) {
        EXPECT_EQ(lines[c + 1].simplified(), QString::fromUtf8(expected[c]));
    }
    // The squares add up to 0.25 + 0.0625 + 1 + 4 * 0.0625. Nine digits are printed.
    EXPECT_NEAR(lines[5].section(u' ', 1, 1).toDouble(), 10.0 * std::log10(32.0 / 1.5625), 1e-7);
    EXPECT_EQ(lines[6], u"pixel (1, 0) from the top left: 1 1 1 1 | 1 1 1 2, difference 1"_s);
    EXPECT_EQ(lines[7], u"pixel (0, 0) from the top left: 1 1 1 1 | 0.5 1.25 1 1, difference 0.5"_s);
    // Of equal ones, the first; no more than five.
    EXPECT_TRUE(lines[10].startsWith(u"pixel (0, 1)"_s)) << qPrintable(lines[10]);
}

TEST_F(Compare, ToleranceAndNonFiniteValues)
{
    const auto exitCode = [&](const QString& b, const QString& tolerance) {
        return compare(u"a.exr"_s, b, {u"--tolerance"_s, tolerance}).exitCode;
    };
    writePixels(u"a.exr"_s, 2, 1, rgba.first(1), std::vector{0.5F, 0.5F});
    writePixels(u"b.exr"_s, 2, 1, rgba.first(1), std::vector{0.5F, 0.75F});
    EXPECT_EQ(exitCode(u"b.exr"_s, u"0.25"_s), 0);
    EXPECT_EQ(exitCode(u"b.exr"_s, u"0.2499999"_s), 1);
    EXPECT_EQ(compare(u"a.exr"_s, u"b.exr"_s).exitCode, 1);
    EXPECT_EQ(compare(u"a.exr"_s, u"a.exr"_s).exitCode, 0);
    for (const char* wrong : {"-1", "nan", "much"}) {
        EXPECT_EQ(exitCode(u"b.exr"_s, QString::fromUtf8(wrong)), 2) << wrong;
    }
    // NaN and infinity differ from everything, themselves included.
    for (const float value : {std::nanf(""), INFINITY}) {
        writePixels(u"a.exr"_s, 2, 1, rgba.first(1), std::vector{0.0F, value});
        EXPECT_EQ(exitCode(u"a.exr"_s, u"1e30"_s), 1);
    }
    // 32-bit integers would be equal as floats.
    writePixels(u"a.exr"_s, 1, 1, rgba.first(1), std::vector<quint32>{0xffffffffU});
    writePixels(u"b.exr"_s, 1, 1, rgba.first(1), std::vector<quint32>{0xfffffffeU});
    EXPECT_EQ(exitCode(u"b.exr"_s, u"1"_s), 0);
    EXPECT_EQ(exitCode(u"b.exr"_s, u"0.5"_s), 1);
}

TEST_F(Compare, PngAndExrCompareByValue)
{
    std::vector<float> bytes(1024);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<float>(i / 4) / 255.0F;
    }
    for (const auto& [width, channels] : {std::pair{16, rgba}, {64, QStringList(u"Z"_s)}}) {
        writePixels(u"a.exr"_s, width, 16, channels, bytes);
        writePixels(u"a.png"_s, width, 16, channels, bytes);
        EXPECT_EQ(compare(u"a.exr"_s, u"a.png"_s).exitCode, 0);
    }
}

TEST_F(Compare, AlphaIsOneWhereAnImageHasNone)
{
    writePixels(u"rgb.exr"_s, 1, 1, rgba.first(3), std::vector{0.1F, 0.2F, 0.3F});
    writePixels(u"opaque.exr"_s, 1, 1, rgba, std::vector{0.1F, 0.2F, 0.3F, 1.0F});
    writePixels(u"clear.exr"_s, 1, 1, rgba, std::vector{0.1F, 0.2F, 0.3F, 0.5F});
    EXPECT_EQ(compare(u"rgb.exr"_s, u"opaque.exr"_s).exitCode, 0);
    EXPECT_EQ(compare(u"opaque.exr"_s, u"rgb.exr"_s).exitCode, 0);
    EXPECT_EQ(compare(u"rgb.exr"_s, u"clear.exr"_s).exitCode, 1);
}

TEST_F(Compare, ImagesThatCannotBeComparedFailInOneLine)
{
    writePixels(u"a.exr"_s, 2, 1, rgba.first(1), std::vector<float>(2));
    writePixels(u"size.exr"_s, 1, 2, rgba.first(1), std::vector<float>(2));
    writePixels(u"channels.exr"_s, 2, 1, rgba.first(3), std::vector<float>(6));
    // The image library prints more than a line about a truncated file; the program does not.
    writePixels(u"cut.png"_s, 2, 1, rgba.first(1), std::vector<float>(2));
    ASSERT_TRUE(QFile::resize(path(u"cut.png"_s), contents(u"cut.png"_s).size() - 20));
    const auto expectFailure = [&](const QString& name, int exitCode, const QString& message) {
        const ProgramResult result = compare(u"a.exr"_s, name);
        EXPECT_EQ(result.exitCode, exitCode);
        EXPECT_TRUE(result.isOneError(message)) << qPrintable(result.errors);
        EXPECT_EQ(result.output, QString());
    };
    expectFailure(u"size.exr"_s, 1, u"differ in size"_s);
    expectFailure(u"channels.exr"_s, 1, u"differ in channels"_s);
    for (const QString& name : {u"cut.png"_s, u"missing.png"_s, u"missing.exr"_s}) {
        expectFailure(name, 2, name);
    }
}

TEST_F(Compare, WritesTheDifferencesAsAnImage)
{
    writePixels(u"a.exr"_s, 2, 1, rgba, std::vector{0.5F, 0.5F, 0.5F, 1.0F, 0.0F, 0.0F, 0.0F, 0.0F});
    writePixels(u"b.exr"_s, 2, 1, rgba, std::vector{0.25F, 1.0F, 0.5F, 1.0F, 0.0F, 0.0F, 0.0F, 0.6F});
    const auto difference = [&](const QString& name) {
        EXPECT_EQ(compare(u"a.exr"_s, u"b.exr"_s, {u"--difference"_s, path(name)}).exitCode, 1);
        QString error;
        const std::optional<Image> image = readImage(path(name), &error);
        EXPECT_TRUE(image) << qPrintable(error);
        return image ? std::get<std::vector<float>>(image->samples) : std::vector<float>();
    };
    EXPECT_EQ(difference(u"d.exr"_s), (std::vector<float>{0.25F, 0.5F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.6F}));
    // A PNG has no alpha, which would hide the colours; the difference of alpha shows in them.
    const float alpha = 153.0F / 255.0F;
    EXPECT_EQ(difference(u"d.png"_s),
              (std::vector<float>{64.0F / 255.0F, 128.0F / 255.0F, 0.0F, alpha, alpha, alpha}));
    const ProgramResult result = compare(u"a.exr"_s, u"b.exr"_s, {u"--difference"_s, path(u"none/d.png"_s)});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.isOneError(u"none/d.png"_s)) << qPrintable(result.errors);
}

} // namespace Morvane::Qel::Test
