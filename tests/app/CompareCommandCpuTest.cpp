#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <numeric>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <Qel/graph/ImageIO.h>

#include "support/Folder.h"
#include "support/Program.h"

namespace Morvane::Qel::Test {

namespace {

using Floats = std::vector<float>;
const QStringList rgba = {"R", "G", "B", "A"};

class Compare : public testing::Test, protected Folder
{
protected:
    ProgramResult compare(const QString& a, const QString& b, const QStringList& options = {})
    {
        return runProgram(QStringList{"compare", path(a), path(b)} + options);
    }
};

} // namespace

TEST_F(Compare, PrintsDifferencesAndWorstPixels)
{
    // Powers of two, so that every printed number is exact. The second pixel differs most, in alpha.
    Floats values(32, 1.0F);
    write("a.exr", {4, 2, rgba, values});
    values[0] = 0.5F;
    values[1] = 1.25F;
    values[7] = 2.0F;
    for (const size_t pixel : {2, 3, 4, 6}) {
        values[4 * pixel] = 0.75F;
    }
    write("b.exr", {4, 2, rgba, values});
    const ProgramResult result = compare("a.exr", "b.exr", {"--alpha"});
    EXPECT_EQ(result.exitCode, 1);
    const QStringList lines = result.output.split('\n');
    ASSERT_EQ(lines.size(), 18) << qPrintable(result.output);
    EXPECT_EQ(lines.mid(1, 4).join(' ').simplified(), "R 0.5 0.1875 G 0.25 0.03125 B 0 0 A 1 0.125");
    // The squares add up to 0.25 + 0.0625 + 1 + 4 * 0.0625. Nine digits are printed.
    EXPECT_NEAR(lines[5].section(' ', 1, 1).toDouble(), 10.0 * std::log10(32.0 / 1.5625), 1e-7);
    EXPECT_EQ(lines[11], "pixel (1, 0) from the top left: 1 1 1 1 | 1 1 1 2, difference 1");
    // Of equal ones, the first; no more than five.
    EXPECT_TRUE(lines[15].startsWith("pixel (0, 1)")) << qPrintable(lines[15]);
}

TEST_F(Compare, ExitCodeDependsOnTheToleranceAndTheValues)
{
    write("a.exr", {2, 1, {"R"}, Floats{0.5F, 0.5F}});
    write("b.exr", {2, 1, {"R"}, Floats{0.5F, 0.75F}});
    // NaN and infinity differ from everything, themselves included.
    write("nan.exr", {2, 1, {"R"}, Floats{0.0F, std::nanf("")}});
    write("infinity.exr", {2, 1, {"R"}, Floats{0.0F, INFINITY}});
    // 32-bit integers would be equal as floats.
    write("id.exr", {1, 1, {"R"}, std::vector<quint32>{0xffffffffU}});
    write("otherId.exr", {1, 1, {"R"}, std::vector<quint32>{0xfffffffeU}});
    // Alpha is 1 where an image has none.
    write("rgb.exr", {1, 1, rgba.first(3), Floats{0.1F, 0.2F, 0.3F}});
    write("opaque.exr", {1, 1, rgba, Floats{0.1F, 0.2F, 0.3F, 1.0F}});
    write("clear.exr", {1, 1, rgba, Floats{0.1F, 0.2F, 0.3F, 0.5F}});
    // PNG and EXR compare by value.
    Floats bytes(1024);
    for (size_t i = 0; i < bytes.size(); ++i) {
        const size_t pixel = i / 4;
        bytes[i] = static_cast<float>(pixel) / 255.0F;
    }
    write("bytes.exr", {16, 16, rgba, bytes});
    write("bytes.png", {16, 16, rgba, bytes});
    write("grey.exr", {64, 16, {"Z"}, bytes});
    write("grey.png", {64, 16, {"Z"}, bytes});
    const struct
    {
        QString a;
        QString b;
        QString tolerance;
        int exitCode;
    } cases[] = {
        {"a", "b.exr", "0.25", 0},       {"a", "b.exr", "0.2499999", 1},
        {"a", "b.exr", "0", 1},          {"a", "a.exr", "0", 0},
        {"a", "b.exr", "-1", 2},         {"a", "b.exr", "nan", 2},
        {"a", "b.exr", "much", 2},       {"nan", "nan.exr", "1e30", 1},
        {"id", "otherId.exr", "1", 0},   {"infinity", "infinity.exr", "1e30", 1},
        {"id", "otherId.exr", "0.5", 1}, {"rgb", "opaque.exr", "0", 0},
        {"opaque", "rgb.exr", "0", 0},   {"rgb", "clear.exr", "0", 1},
        {"bytes", "bytes.png", "0", 0},  {"grey", "grey.png", "0", 0},
    };
    for (const auto& [a, b, tolerance, exitCode] : cases) {
        EXPECT_EQ(compare(a + ".exr", b, {"--alpha", "--tolerance", tolerance}).exitCode, exitCode)
            << qPrintable(a + ' ' + b + ' ' + tolerance);
    }
}

TEST_F(Compare, ImagesThatCannotBeComparedFailInOneLine)
{
    write("a.exr", {2, 1, {"R"}, Floats(2)});
    write("size.exr", {1, 2, {"R"}, Floats(2)});
    write("channels.exr", {2, 1, rgba.first(3), Floats(6)});
    // The image library prints more than a line about a truncated file; the program does not.
    write("cut.png", {2, 1, {"R"}, Floats(2)});
    ASSERT_TRUE(QFile::resize(path("cut.png"), contents("cut.png").size() - 20));
    const auto expectFailure = [&](const QString& name, int exitCode, const QString& message) {
        const ProgramResult result = compare("a.exr", name);
        EXPECT_EQ(result.exitCode, exitCode);
        EXPECT_TRUE(result.isOneError(message)) << qPrintable(result.errors);
        EXPECT_EQ(result.output, QString());
    };
    expectFailure("size.exr", 1, "differ in size");
    expectFailure("channels.exr", 1, "differ in channels");
    expectFailure("cut.png", 2, "cut.png");
    expectFailure("missing.exr", 2, "missing.exr");
}

TEST_F(Compare, WritesTheDifferencesAsAnImage)
{
    write("a.exr", {2, 1, rgba, Floats{0.5F, 0.5F, 0.5F, 1.0F, 0.0F, 0.0F, 0.0F, 0.0F}});
    write("b.exr", {2, 1, rgba, Floats{0.25F, 1.0F, 0.5F, 1.0F, 0.0F, 0.0F, 0.0F, 0.6F}});
    const auto expect = [&](const QString& name, const QStringList& options, const Floats& expected) {
        EXPECT_EQ(compare("a.exr", "b.exr", QStringList{"--difference", path(name)} + options).exitCode, 1);
        EXPECT_EQ(std::get<Floats>(image(name).samples), expected);
    };
    expect("d.exr", {"--gain", "3"}, {0.75F, 1.5F, 0.0F, 0.0F, 0.0F, 0.0F});
    expect("d.exr", {"--alpha"}, {0.25F, 0.5F, 0.0F, 0.0F, 0.0F, 0.0F, 0.0F, 0.6F});
    // A PNG has no alpha, which would hide the colours; the difference of alpha shows in them.
    expect("d.png", {"--alpha"}, {64.0F / 255.0F, 128.0F / 255.0F, 0.0F, 0.6F, 0.6F, 0.6F});
    const ProgramResult result = compare("a.exr", "b.exr", {"--difference", path("none/d.png")});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.isOneError("none/d.png")) << qPrintable(result.errors);
}

TEST_F(Compare, SignalsRemoveUnfinishedFiles)
{
    Floats ramp(size_t{400} * 400);
    std::iota(ramp.begin(), ramp.end(), 0.0F);
    write("a.exr", {400, 400, {"R"}, ramp});
    write("b.exr", {400, 400, {"R"}, Floats(ramp.size())});
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small{10000, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const ProgramResult result = compare("a.exr", "b.exr", {"--difference", path("d.exr")});
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    // SIGXFSZ ended it.
    EXPECT_EQ(result.exitCode, -1);
    EXPECT_EQ(files("d.exr*"), QStringList());
}

TEST_F(Compare, JsonHoldsTheScores)
{
    const auto json = [&](const QString& b, const QStringList& options) {
        return QJsonDocument::fromJson(compare("a.png", b, options).output.toUtf8());
    };
    write("a.png", {11, 11, rgba, Floats(484)});
    write("b.png", {11, 11, rgba, Floats(484, 1.0F)});
    const QJsonDocument different = json("b.png", {"--json", "--flip-map", path("map.exr")});
    EXPECT_EQ(different["channels"].toObject().keys(), (QStringList{"B", "G", "R"}));
    EXPECT_EQ(different["psnr"].toDouble(-1.0), 0.0);
    EXPECT_TRUE(different["notes"][0].toString().contains("alpha is left out"));
    EXPECT_NEAR(different["flip"].toDouble(), std::get<Floats>(image("map.exr").samples)[0], 1e-6);
    write("a.png", {10, 11, rgba, Floats(440)});
    const QJsonDocument same = json("a.png", {"--json", "--flip-map", path("map.png")});
    EXPECT_TRUE(same["psnr"].isNull() && same["ssim"].isNull() && same["flip"].isDouble());
    // The heat map begins with a blue that is almost black.
    EXPECT_EQ(std::get<Floats>(image("map.png").samples)[2], 4.0F / 255.0F);
}

TEST_F(Compare, FoldersArePairedByName)
{
    for (const QString folder : {"a/", "b/"}) {
        ASSERT_TRUE(QDir().mkdir(path(folder)));
        write(folder + "0.exr", {1, 1, {"R"}, Floats{0.5F}});
        write(folder + "1.exr", {1, 1, {"R"}, Floats{folder == "a/" ? 0.5F : 0.75F}});
    }
    const ProgramResult result = compare("a", "b", {"--difference", path("d")});
    EXPECT_EQ(result.exitCode, 1);
    const QString output = result.output.simplified();
    // The mean of the squares is 1/32.
    EXPECT_TRUE(output.contains("worst 0.25 0.25 12.0411998 - ") && output.contains(" 0.125 15.0514998 - "));
    EXPECT_EQ(std::get<Floats>(image("d/1.exr").samples), Floats{0.25F});
    write("a/2.exr", {1, 1, {"R"}, Floats{0.5F}});
    EXPECT_TRUE(compare("a", "b").isOneError("lacks 2.exr"));
}

} // namespace Morvane::Qel::Test
