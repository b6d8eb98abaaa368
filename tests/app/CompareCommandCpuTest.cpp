#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <array>
#include <cmath>

#include <gtest/gtest.h>

#include <Qel/graph/ImageIO.h>

#include "support/Program.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

const QStringList rgba = {u"R"_s, u"G"_s, u"B"_s, u"A"_s};

class Compare : public testing::Test
{
protected:
    QString path(const QString& name) const { return m_folder.filePath(name); }

    void write(const QString& name, int width, int height, const QStringList& channels,
               const std::vector<float>& samples)
    {
        QString error;
        ASSERT_TRUE(writeImage({width, height, channels, samples}, path(name), &error)) << qPrintable(error);
    }

    ProgramResult compare(const QString& a, const QString& b, const QStringList& options = {})
    {
        return runProgram(QStringList{u"compare"_s, path(a), path(b)} + options);
    }

    QTemporaryDir m_folder;
};

} // namespace

TEST_F(Compare, ReportsWhatTheDifferencesComeTo)
{
    constexpr int width = 7;
    constexpr int height = 5;
    std::vector<float> a;
    std::vector<float> b;
    std::array<double, 4> largest{};
    std::array<double, 4> sums{};
    double sumOfSquares = 0.0;
    for (int i = 0; i < width * height; ++i) {
        for (size_t c = 0; c < 4; ++c) {
            a.push_back(static_cast<float>(i) / 40.0F);
            // The worst pixel is number 26, which is (5, 3).
            const float offset = (i == 26 && c == 2)
                                     ? 0.75F
                                     : static_cast<float>((i * 5 + static_cast<int>(c) * 3) % 11) / 20.0F;
            b.push_back(a.back() - offset);
            const double d = std::abs(static_cast<double>(a.back()) - static_cast<double>(b.back()));
            largest[c] = std::max(largest[c], d);
            sums[c] += d;
            sumOfSquares += d * d;
        }
    }
    write(u"a.exr"_s, width, height, rgba, a);
    write(u"b.exr"_s, width, height, rgba, b);
    const ProgramResult result = compare(u"a.exr"_s, u"b.exr"_s);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, QString());
    for (size_t c = 0; c < 4; ++c) {
        const QRegularExpression row(u"^%1 +(\\S+) +(\\S+)$"_s.arg(rgba[static_cast<qsizetype>(c)]),
                                     QRegularExpression::MultilineOption);
        const QRegularExpressionMatch match = row.match(result.output);
        ASSERT_TRUE(match.hasMatch()) << qPrintable(result.output);
        // Nine digits are printed.
        EXPECT_NEAR(match.captured(1).toDouble(), largest[c], 1e-9);
        EXPECT_NEAR(match.captured(2).toDouble(), sums[c] / (width * height), 1e-9);
    }
    const double psnr = 10.0 * std::log10(width * height * 4 / sumOfSquares);
    const QRegularExpressionMatch match = QRegularExpression(u"PSNR (\\S+) dB"_s).match(result.output);
    EXPECT_NEAR(match.captured(1).toDouble(), psnr, 1e-6);
    const QStringList pixels = result.output.split(u'\n').filter(u"pixel ("_s);
    ASSERT_EQ(pixels.size(), 5);
    EXPECT_TRUE(pixels[0].startsWith(u"pixel (5, 3)"_s)) << qPrintable(pixels[0]);
    EXPECT_TRUE(pixels[0].endsWith(u"difference 0.75"_s)) << qPrintable(pixels[0]);
}

TEST_F(Compare, ToleranceDecidesAndIsZeroIfNotGiven)
{
    write(u"a.exr"_s, 1, 1, rgba.first(1), {0.5F});
    write(u"b.exr"_s, 1, 1, rgba.first(1), {0.75F});
    const auto exitCode = [&](const QStringList& options) {
        return compare(u"a.exr"_s, u"b.exr"_s, options).exitCode;
    };
    EXPECT_EQ(exitCode({}), 1);
    EXPECT_EQ(exitCode({u"--tolerance"_s, u"0.25"_s}), 0);
    EXPECT_EQ(exitCode({u"--tolerance"_s, u"0.2499999"_s}), 1);
    EXPECT_EQ(compare(u"a.exr"_s, u"a.exr"_s).exitCode, 0);
    for (const char* wrong : {"-1", "nan", "much"}) {
        EXPECT_EQ(exitCode({u"--tolerance"_s, QString::fromUtf8(wrong)}), 2) << wrong;
    }
}

TEST_F(Compare, PngMeansTheSameAsExr)
{
    std::vector<float> bytes(1024);
    for (size_t i = 0; i < bytes.size(); ++i) {
        const size_t pixel = i / 4;
        bytes[i] = static_cast<float>(pixel) / 255.0F;
    }
    write(u"a.exr"_s, 16, 16, rgba, bytes);
    write(u"a.png"_s, 16, 16, rgba, bytes);
    EXPECT_EQ(compare(u"a.exr"_s, u"a.png"_s).exitCode, 0);
    write(u"depth.exr"_s, 16, 64, {u"Z"_s}, bytes);
    write(u"depth.png"_s, 16, 64, {u"Z"_s}, bytes);
    EXPECT_EQ(compare(u"depth.exr"_s, u"depth.png"_s).exitCode, 0);
}

TEST_F(Compare, NanAndInfinityAreDifferencesAlsoOfThemselves)
{
    for (const float value : {std::nanf(""), INFINITY}) {
        write(u"a.exr"_s, 2, 1, rgba.first(1), {0.0F, value});
        const ProgramResult result = compare(u"a.exr"_s, u"a.exr"_s, {u"--tolerance"_s, u"1e30"_s});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_TRUE(result.output.contains(u"pixel (1, 0)"_s)) << qPrintable(result.output);
    }
}

TEST_F(Compare, AlphaCountsAndIsOneWhereThereIsNone)
{
    write(u"rgb.exr"_s, 1, 1, rgba.first(3), {0.1F, 0.2F, 0.3F});
    write(u"opaque.exr"_s, 1, 1, rgba, {0.1F, 0.2F, 0.3F, 1.0F});
    write(u"clear.exr"_s, 1, 1, rgba, {0.1F, 0.2F, 0.3F, 0.5F});
    EXPECT_EQ(compare(u"rgb.exr"_s, u"opaque.exr"_s).exitCode, 0);
    EXPECT_EQ(compare(u"opaque.exr"_s, u"rgb.exr"_s).exitCode, 0);
    EXPECT_EQ(compare(u"rgb.exr"_s, u"clear.exr"_s).exitCode, 1);
    EXPECT_EQ(compare(u"opaque.exr"_s, u"clear.exr"_s).exitCode, 1);
}

TEST_F(Compare, PicturesThatDoNotMatchFailWithOneLine)
{
    write(u"a.exr"_s, 2, 1, rgba.first(1), {0, 0});
    write(u"size.exr"_s, 1, 2, rgba.first(1), {0, 0});
    write(u"channels.exr"_s, 2, 1, rgba.first(3), {0, 0, 0, 0, 0, 0});
    ProgramResult result = compare(u"a.exr"_s, u"size.exr"_s);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.isOneError(u"differ in size"_s)) << qPrintable(result.errors);
    result = compare(u"a.exr"_s, u"channels.exr"_s);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.isOneError(u"differ in channels"_s)) << qPrintable(result.errors);

    // The image library says more than a line about a file that breaks off; the program does not.
    write(u"whole.png"_s, 2, 1, rgba.first(1), {0, 0});
    QFile whole(path(u"whole.png"_s));
    ASSERT_TRUE(whole.open(QIODevice::ReadWrite));
    ASSERT_TRUE(whole.resize(whole.size() - 20));
    for (const char* name : {"whole.png", "missing.png", "missing.exr"}) {
        result = compare(u"a.exr"_s, QString::fromUtf8(name));
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_TRUE(result.isOneError(QString::fromUtf8(name))) << qPrintable(result.errors);
        EXPECT_EQ(result.output, QString());
    }
}

TEST_F(Compare, IntegersCompareExactly)
{
    QString error;
    ASSERT_TRUE(
        writeImage({1, 1, rgba.first(1), std::vector<quint32>{0xffffffffU}}, path(u"a.exr"_s), &error));
    ASSERT_TRUE(
        writeImage({1, 1, rgba.first(1), std::vector<quint32>{0xfffffffeU}}, path(u"b.exr"_s), &error));
    const ProgramResult result = compare(u"a.exr"_s, u"b.exr"_s);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.output.contains(u"difference 1\n"_s)) << qPrintable(result.output);
}

TEST_F(Compare, WritesTheDifferencesAsAPicture)
{
    write(u"a.exr"_s, 2, 1, rgba, {0.5F, 0.5F, 0.5F, 1.0F, 0.0F, 0.0F, 0.0F, 0.0F});
    write(u"b.exr"_s, 2, 1, rgba, {0.25F, 1.0F, 0.5F, 1.0F, 0.0F, 0.0F, 0.0F, 0.6F});
    const auto difference = [&](const QString& name) {
        EXPECT_EQ(compare(u"a.exr"_s, u"b.exr"_s, {u"--difference"_s, path(name)}).exitCode, 1);
        QString error;
        const std::optional<Image> image = readImage(path(name), &error);
        EXPECT_TRUE(image) << qPrintable(error);
        return image ? std::get<std::vector<float>>(image->samples) : std::vector<float>();
    };
    EXPECT_EQ(difference(u"d.exr"_s), (std::vector<float>{0.25F, 0.5F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.6F}));
    // No alpha, which would hide the colours; its difference shows in them.
    const float alpha = 153.0F / 255.0F;
    EXPECT_EQ(difference(u"d.png"_s),
              (std::vector<float>{64.0F / 255.0F, 128.0F / 255.0F, 0.0F, alpha, alpha, alpha}));
    const ProgramResult result = compare(u"a.exr"_s, u"b.exr"_s, {u"--difference"_s, path(u"none/d.png"_s)});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.isOneError(u"none/d.png"_s)) << qPrintable(result.errors);
}

} // namespace Morvane::Qel::Test
