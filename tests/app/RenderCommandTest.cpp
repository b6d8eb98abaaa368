#include <QJsonDocument>
#include <QSize>

#include <cmath>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <Qel/graph/ImageIO.h>

#include "support/Folder.h"
#include "support/Program.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

const QString gradient = uR"({"viewport": [5, 8],
    "passes": [{"name": "sky", "type": "GradientRenderPass",
                "inputs": {"ColorTop": "#ff0000ff", "ColorBottom": "#0033ff66"}}],
    "output": "@sky.Frame"})"_s;

/// Alpha increases to the right, green upwards.
const QString ramp = uR"(#version 150
in vec2 vo_TexCoord;
uniform float Qel_float_Blue;
out vec4 o_Frame;
void main() { o_Frame = vec4(0.0, vo_TexCoord.y, Qel_float_Blue, vo_TexCoord.x); }
)"_s;

const QString shaderGraph = uR"({"viewport": [16, 16],
    "passes": [{"name": "ramp", "type": "ShaderRenderPass",
                "options": {"inputs": ["Qel_QRect_Viewport", "Qel_float_Blue"],
                            "outputs": ["Qel_QelTexture*_Frame"], "fragmentShader": "ramp.frag"},
                "inputs": {"Blue": 0.2}},
               {"name": "screen", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@ramp.Frame"}},
               {"name": "unused", "type": "GradientRenderPass"}],
    "output": "@ramp.Frame"})"_s;

class RenderCommand : public testing::Test, protected Folder
{
protected:
    void SetUp() override
    {
        write(u"gradient.json"_s, gradient);
        write(u"ramp.json"_s, shaderGraph);
        write(u"ramp.frag"_s, ramp);
    }

    ProgramResult render(const QString& graph, const QStringList& options)
    {
        return runProgram(QStringList{u"render"_s, path(graph), u"--device"_s, u"software"_s} + options);
    }

    Image read(const QString& name)
    {
        QString error;
        const std::optional<Image> image = readImage(path(name), &error);
        EXPECT_TRUE(image) << qPrintable(error);
        return image.value_or(Image());
    }

    /// Renders to a file and reads it.
    Image rendered(const QString& graph, const QString& name, const QStringList& options = {})
    {
        const ProgramResult result = render(graph, options + QStringList{u"--output"_s, path(name)});
        EXPECT_EQ(result.exitCode, 0) << qPrintable(result.errors);
        EXPECT_EQ(result.errors + result.output, QString());
        return read(name);
    }
};

} // namespace

TEST_F(RenderCommand, ImageMatchesTheFormulaAtAnySize)
{
    for (const QSize size : {QSize(5, 8), QSize(1, 1), QSize(300, 7), QSize(2, 301)}) {
        const QString text = u"%1x%2"_s.arg(size.width()).arg(size.height());
        const Image exr = rendered(u"gradient.json"_s, u"g.exr"_s, {u"--size"_s, text});
        const Image png = rendered(u"gradient.json"_s, u"g.png"_s, {u"--size"_s, text});
        ASSERT_EQ(exr.summary(), text + u" RGBA"_s);
        ASSERT_EQ(png.summary(), exr.summary());
        for (int y = 0; y < size.height(); ++y) {
            // Row 0 is the top row; t is taken at the centre of a row.
            const double t = 1.0 - (y + 0.5) / size.height();
            const double expected[] = {t, 0.2 * (1.0 - t), 1.0 - t, 0.4 + 0.6 * t};
            for (int x = 0; x < size.width(); ++x) {
                for (int c = 0; c < 4; ++c) {
                    // GL interpolates in 32-bit floats.
                    ASSERT_NEAR(exr.sample(x, y, c), expected[c], 1e-6) << x << ", " << y;
                    ASSERT_EQ(std::lround(png.sample(x, y, c) * 255.0),
                              std::lround(exr.sample(x, y, c) * 255.0));
                }
            }
        }
    }
}

TEST_F(RenderCommand, SetTheScreenAndBothFormats)
{
    const auto expectEqual = [&](const QString& a, const QString& b) {
        const ProgramResult result = runProgram({u"compare"_s, path(a), path(b)});
        EXPECT_EQ(result.exitCode, 0) << qPrintable(result.output + result.errors);
    };
    // An 8-bit texture is the same in both formats.
    const QStringList set = {u"--size"_s, u"64x40"_s, u"--set"_s, u"ramp.Blue=0.6"_s};
    const Image image = rendered(u"ramp.json"_s, u"a.png"_s, set);
    EXPECT_NEAR(image.sample(3, 3, 2), 153.0 / 255.0, 1e-6);
    rendered(u"ramp.json"_s, u"a.exr"_s, set);
    expectEqual(u"a.png"_s, u"a.exr"_s);
    // Without an output, the image is what the graph draws to the screen.
    write(u"screen.json"_s,
          QString(shaderGraph).replace(u"\"output\": \"@ramp.Frame\""_s, u"\"lights\": []"_s));
    rendered(u"screen.json"_s, u"screen.exr"_s, set);
    expectEqual(u"screen.exr"_s, u"a.png"_s);
}

TEST_F(RenderCommand, NumberInTheNameWritesEveryFrame)
{
    const auto expectFiles = [&](const QString& pattern, const QString& wildcard, const QStringList& names) {
        const QStringList options = {u"--frames"_s, u"3"_s, u"--output"_s, path(pattern)};
        EXPECT_EQ(render(u"gradient.json"_s, options).exitCode, 0);
        EXPECT_EQ(files(wildcard), names);
    };
    expectFiles(u"f%03d.png"_s, u"f*"_s, {u"f000.png"_s, u"f001.png"_s, u"f002.png"_s});
    expectFiles(u"100%%-%d.exr"_s, u"100*"_s, {u"100%-0.exr"_s, u"100%-1.exr"_s, u"100%-2.exr"_s});
    expectFiles(u"last.png"_s, u"last*"_s, {u"last.png"_s});
    EXPECT_EQ(contents(u"f000.png"_s), contents(u"f002.png"_s));
    EXPECT_EQ(contents(u"last.png"_s), contents(u"f000.png"_s));
}

TEST_F(RenderCommand, DumpWritesEveryOutputOfEveryPassThatRuns)
{
    // A square that fills the view.
    write(u"square.obj"_s, u"v -9 -9 0\nv 9 -9 0\nv 9 9 0\nv -9 9 0\nf 1 2 3\nf 1 3 4\n"_s);
    write(u"square.json"_s, uR"({"viewport": [8, 6], "models": {"square": "square.obj"},
        "camera": {"eye": [0, 0, 5], "target": [0, 0, 0]},
        "passes": [{"name": "scene", "type": "ForwardRenderPass"}, {"name": "unused", "type": "GradientRenderPass"},
                   {"name": "sky", "type": "GradientRenderPass"},
                   {"name": "screen", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@sky.Frame"}}],
        "output": "@scene.Frame"})"_s);
    const ProgramResult result = render(u"square.json"_s, {u"--dump"_s, path(u"new/dump"_s)});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(result.isOneError(u"unused"_s)) << qPrintable(result.errors);
    EXPECT_EQ(files(u"*"_s, u"new/dump"_s),
              (QStringList{u"outputs.json"_s, u"scene.Frame.exr"_s, u"scene.Id.exr"_s, u"sky.Frame.exr"_s}));
    EXPECT_TRUE(QJsonDocument::fromJson(contents(u"new/dump/outputs.json"_s)).isObject());
    const Image sky = read(u"new/dump/sky.Frame.exr"_s);
    ASSERT_EQ(sky.summary(), u"8x6 RGBA"_s);
    // The default colours in a float format: 8 bits could not hold this value.
    EXPECT_NEAR(sky.sample(0, 0, 0), (64.0 + (153.0 - 64.0) / 12.0) / 255.0, 1e-6);
}

TEST_F(RenderCommand, FailureKeepsTheOldFileAndGivesOneLine)
{
    write(u"a.png"_s, u"old"_s);
    const auto expectFailure = [&](const QString& graph, const QStringList& options, const QString& message) {
        const ProgramResult result = render(graph, options + QStringList{u"--output"_s, path(u"a.png"_s)});
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_TRUE(result.isOneError(message)) << qPrintable(result.errors);
        EXPECT_EQ(contents(u"a.png"_s), QByteArray("old"));
        EXPECT_EQ(files(u"a.png*"_s), QStringList(u"a.png"_s));
        return result.errors;
    };
    write(u"broken.gltf"_s, u"{\"asset\": {\"version\": \"2.0\"}, \"meshes\": ["_s);
    write(u"text.xyz"_s, u"no model"_s);
    for (const QString& model : {u"broken.gltf"_s, u"text.xyz"_s}) {
        expectFailure(u"gradient.json"_s, {u"--model"_s, path(model)}, model);
    }
    expectFailure(u"gradient.json"_s, {u"--size"_s, u"1000000x4"_s}, u"1000000x4"_s);

    // Graph and pass, file and line, and the driver's message; the source around the line only on demand.
    write(u"ramp.frag"_s, QString(ramp).replace(u"vec4(0.0,"_s, u"vec4(missing,"_s));
    const QString line = expectFailure(u"ramp.json"_s, {}, u"ramp.json: ramp: "_s);
    EXPECT_TRUE(line.contains(u"ramp.frag:5"_s) && line.contains(u"missing"_s)) << qPrintable(line);
    const QString verbose = render(u"ramp.json"_s, {u"--verbose"_s}).errors;
    EXPECT_TRUE(verbose.contains(u"uniform float Qel_float_Blue;"_s)) << qPrintable(verbose);
}

TEST_F(RenderCommand, MemoryStaysConstantOverManyFrames)
{
    const auto peakMemory = [&](const QString& frames) {
        EXPECT_EQ(render(u"ramp.json"_s, {u"--size"_s, u"128x128"_s, u"--frames"_s, frames}).exitCode, 0);
        // The largest of the children so far, in kilobytes.
        rusage usage{};
        getrusage(RUSAGE_CHILDREN, &usage);
        return usage.ru_maxrss;
    };
    const long few = peakMemory(u"20"_s);
    // Leaking one texture a frame would cost 30 MB; runs differ by less than 4. An address sanitizer holds
    // back up to 256 MB of freed memory.
#if defined(__SANITIZE_ADDRESS__)
    constexpr long allowance = 264000;
#else
    constexpr long allowance = 8000;
#endif
    EXPECT_LT(peakMemory(u"500"_s), few + allowance);
}

TEST_F(RenderCommand, ProfileGraphAndInfoPrintTheirTables)
{
    const auto expectOutput = [](const ProgramResult& result, const QStringList& parts) {
        EXPECT_EQ(result.exitCode, 0) << qPrintable(result.errors);
        for (const QString& part : parts) {
            EXPECT_TRUE(result.output.contains(part)) << qPrintable(part + u'\n' + result.output);
        }
    };
    const QStringList software = {u"--device"_s, u"software"_s};
    expectOutput(render(u"ramp.json"_s, {u"--profile"_s, u"--frames"_s, u"4"_s}),
                 {u"\nramp "_s, u"\nscreen "_s});
    expectOutput(runProgram(QStringList{u"graph"_s, path(u"ramp.json"_s)} + software),
                 {u"Frame  16x16 GL_RGBA8"_s, u"unused  GradientRenderPass: "_s, u"ramp.Frame\n"_s});
    expectOutput(runProgram(QStringList(u"info"_s) + software), {u"llvmpipe"_s, u"ForwardRenderPass"_s});
    const ProgramResult nothing = render(u"ramp.json"_s, {});
    expectOutput(nothing, {});
    EXPECT_TRUE(nothing.isOneError(u"nothing is written"_s)) << qPrintable(nothing.errors);
}

} // namespace Morvane::Qel::Test
