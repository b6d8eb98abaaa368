#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <array>
#include <cmath>

#include <gtest/gtest.h>

#include <Qel/graph/ImageIO.h>

#include "support/Program.h"

namespace Morvane::Qel::Test {

namespace {

const QStringList rgba = {QStringLiteral("R"), QStringLiteral("G"), QStringLiteral("B"), QStringLiteral("A")};

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
        return runProgram(QStringList{QStringLiteral("compare"), path(a), path(b)} + options);
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
    write(QStringLiteral("a.exr"), width, height, rgba, a);
    write(QStringLiteral("b.exr"), width, height, rgba, b);
    const ProgramResult result = compare(QStringLiteral("a.exr"), QStringLiteral("b.exr"));
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.errors, QString());
    for (size_t c = 0; c < 4; ++c) {
        const QRegularExpression row(
            QStringLiteral("^%1 +(\\S+) +(\\S+)$").arg(rgba[static_cast<qsizetype>(c)]),
            QRegularExpression::MultilineOption);
        const QRegularExpressionMatch match = row.match(result.output);
        ASSERT_TRUE(match.hasMatch()) << qPrintable(result.output);
        // Nine digits are printed.
        EXPECT_NEAR(match.captured(1).toDouble(), largest[c], 1e-9);
        EXPECT_NEAR(match.captured(2).toDouble(), sums[c] / (width * height), 1e-9);
    }
    const double psnr = 10.0 * std::log10(width * height * 4 / sumOfSquares);
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("PSNR (\\S+) dB")).match(result.output);
    EXPECT_NEAR(match.captured(1).toDouble(), psnr, 1e-6);
    const QStringList pixels = result.output.split(u'\n').filter(QStringLiteral("pixel ("));
    ASSERT_EQ(pixels.size(), 5);
    EXPECT_TRUE(pixels[0].startsWith(QStringLiteral("pixel (5, 3)"))) << qPrintable(pixels[0]);
    EXPECT_TRUE(pixels[0].endsWith(QStringLiteral("difference 0.75"))) << qPrintable(pixels[0]);
}

TEST_F(Compare, ToleranceDecidesAndIsZeroIfNotGiven)
{
    write(QStringLiteral("a.exr"), 1, 1, rgba.first(1), {0.5F});
    write(QStringLiteral("b.exr"), 1, 1, rgba.first(1), {0.75F});
    const auto exitCode = [&](const QStringList& options) {
        return compare(QStringLiteral("a.exr"), QStringLiteral("b.exr"), options).exitCode;
    };
    EXPECT_EQ(exitCode({}), 1);
    EXPECT_EQ(exitCode({QStringLiteral("--tolerance"), QStringLiteral("0.25")}), 0);
    EXPECT_EQ(exitCode({QStringLiteral("--tolerance"), QStringLiteral("0.2499999")}), 1);
    EXPECT_EQ(compare(QStringLiteral("a.exr"), QStringLiteral("a.exr")).exitCode, 0);
    for (const char* wrong : {"-1", "nan", "much"}) {
        EXPECT_EQ(exitCode({QStringLiteral("--tolerance"), QString::fromUtf8(wrong)}), 2) << wrong;
    }
}

TEST_F(Compare, PngMeansTheSameAsExr)
{
    std::vector<float> bytes(1024);
    for (size_t i = 0; i < bytes.size(); ++i) {
        const size_t pixel = i / 4;
        bytes[i] = static_cast<float>(pixel) / 255.0F;
    }
    write(QStringLiteral("a.exr"), 16, 16, rgba, bytes);
    write(QStringLiteral("a.png"), 16, 16, rgba, bytes);
    EXPECT_EQ(compare(QStringLiteral("a.exr"), QStringLiteral("a.png")).exitCode, 0);
    write(QStringLiteral("depth.exr"), 16, 64, {QStringLiteral("Z")}, bytes);
    write(QStringLiteral("depth.png"), 16, 64, {QStringLiteral("Z")}, bytes);
    EXPECT_EQ(compare(QStringLiteral("depth.exr"), QStringLiteral("depth.png")).exitCode, 0);
}

TEST_F(Compare, NanAndInfinityAreDifferencesAlsoOfThemselves)
{
    for (const float value : {std::nanf(""), INFINITY}) {
        write(QStringLiteral("a.exr"), 2, 1, rgba.first(1), {0.0F, value});
        const ProgramResult result = compare(QStringLiteral("a.exr"), QStringLiteral("a.exr"),
                                             {QStringLiteral("--tolerance"), QStringLiteral("1e30")});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_TRUE(result.output.contains(QStringLiteral("pixel (1, 0)"))) << qPrintable(result.output);
    }
}

TEST_F(Compare, AlphaCountsAndIsOneWhereThereIsNone)
{
    write(QStringLiteral("rgb.exr"), 1, 1, rgba.first(3), {0.1F, 0.2F, 0.3F});
    write(QStringLiteral("opaque.exr"), 1, 1, rgba, {0.1F, 0.2F, 0.3F, 1.0F});
    write(QStringLiteral("clear.exr"), 1, 1, rgba, {0.1F, 0.2F, 0.3F, 0.5F});
    EXPECT_EQ(compare(QStringLiteral("rgb.exr"), QStringLiteral("opaque.exr")).exitCode, 0);
    EXPECT_EQ(compare(QStringLiteral("opaque.exr"), QStringLiteral("rgb.exr")).exitCode, 0);
    EXPECT_EQ(compare(QStringLiteral("rgb.exr"), QStringLiteral("clear.exr")).exitCode, 1);
    EXPECT_EQ(compare(QStringLiteral("opaque.exr"), QStringLiteral("clear.exr")).exitCode, 1);
}

TEST_F(Compare, PicturesThatDoNotMatchFailWithOneLine)
{
    write(QStringLiteral("a.exr"), 2, 1, rgba.first(1), {0, 0});
    write(QStringLiteral("size.exr"), 1, 2, rgba.first(1), {0, 0});
    write(QStringLiteral("channels.exr"), 2, 1, rgba.first(3), {0, 0, 0, 0, 0, 0});
    ProgramResult result = compare(QStringLiteral("a.exr"), QStringLiteral("size.exr"));
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.isOneError(QStringLiteral("differ in size"))) << qPrintable(result.errors);
    result = compare(QStringLiteral("a.exr"), QStringLiteral("channels.exr"));
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.isOneError(QStringLiteral("differ in channels"))) << qPrintable(result.errors);

    // The image library says more than a line about a file that breaks off; the program does not.
    write(QStringLiteral("whole.png"), 2, 1, rgba.first(1), {0, 0});
    QFile whole(path(QStringLiteral("whole.png")));
    ASSERT_TRUE(whole.open(QIODevice::ReadWrite));
    ASSERT_TRUE(whole.resize(whole.size() - 20));
    for (const char* name : {"whole.png", "missing.png", "missing.exr"}) {
        result = compare(QStringLiteral("a.exr"), QString::fromUtf8(name));
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_TRUE(result.isOneError(QString::fromUtf8(name))) << qPrintable(result.errors);
        EXPECT_EQ(result.output, QString());
    }
}

TEST_F(Compare, IntegersCompareExactly)
{
    QString error;
    ASSERT_TRUE(writeImage({1, 1, rgba.first(1), std::vector<quint32>{0xffffffffU}},
                           path(QStringLiteral("a.exr")), &error));
    ASSERT_TRUE(writeImage({1, 1, rgba.first(1), std::vector<quint32>{0xfffffffeU}},
                           path(QStringLiteral("b.exr")), &error));
    const ProgramResult result = compare(QStringLiteral("a.exr"), QStringLiteral("b.exr"));
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.output.contains(QStringLiteral("difference 1\n"))) << qPrintable(result.output);
}

TEST_F(Compare, WritesTheDifferencesAsAPicture)
{
    write(QStringLiteral("a.exr"), 2, 1, rgba, {0.5F, 0.5F, 0.5F, 1.0F, 0.0F, 0.0F, 0.0F, 0.0F});
    write(QStringLiteral("b.exr"), 2, 1, rgba, {0.25F, 1.0F, 0.5F, 1.0F, 0.0F, 0.0F, 0.0F, 0.6F});
    const auto difference = [&](const QString& name) {
        EXPECT_EQ(compare(QStringLiteral("a.exr"), QStringLiteral("b.exr"),
                          {QStringLiteral("--difference"), path(name)})
                      .exitCode,
                  1);
        QString error;
        const std::optional<Image> image = readImage(path(name), &error);
        EXPECT_TRUE(image) << qPrintable(error);
        return image ? std::get<std::vector<float>>(image->samples) : std::vector<float>();
    };
    EXPECT_EQ(difference(QStringLiteral("d.exr")),
              (std::vector<float>{0.25F, 0.5F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.6F}));
    // No alpha, which would hide the colours; its difference shows in them.
    const float alpha = 153.0F / 255.0F;
    EXPECT_EQ(difference(QStringLiteral("d.png")),
              (std::vector<float>{64.0F / 255.0F, 128.0F / 255.0F, 0.0F, alpha, alpha, alpha}));
    const ProgramResult result =
        compare(QStringLiteral("a.exr"), QStringLiteral("b.exr"),
                {QStringLiteral("--difference"), path(QStringLiteral("none/d.png"))});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.isOneError(QStringLiteral("none/d.png"))) << qPrintable(result.errors);
}

} // namespace Morvane::Qel::Test
