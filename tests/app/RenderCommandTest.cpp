#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSize>
#include <QTemporaryDir>

#include <cmath>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <Qel/graph/ImageIO.h>

#include "support/Program.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

const QString gradient = uR"({"viewport": [5, 8],
    "passes": [{"name": "sky", "type": "GradientRenderPass",
                "inputs": {"ColorTop": "#ff0000ff", "ColorBottom": "#0033ff66"}}],
    "output": "@sky.Frame"})"_s;

/// Alpha grows from left to right, and colour upwards.
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

class RenderCommand : public testing::Test
{
protected:
    void SetUp() override
    {
        write(u"gradient.json"_s, gradient);
        write(u"ramp.json"_s, shaderGraph);
        write(u"ramp.frag"_s, ramp);
    }

    QString path(const QString& name) const { return m_folder.filePath(name); }

    void write(const QString& name, const QString& text)
    {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text.toUtf8());
    }

    QByteArray contents(const QString& name)
    {
        QFile file(path(name));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(name);
        return file.readAll();
    }

    QStringList files(const QString& folder, const QString& filter)
    {
        return QDir(path(folder)).entryList({filter}, QDir::Files | QDir::Hidden, QDir::Name);
    }

    ProgramResult render(const QString& graph, const QStringList& options)
    {
        return runProgram(QStringList{u"render"_s, path(graph), u"--device"_s, u"software"_s} + options);
    }

    /// Renders to a file and reads it.
    Image picture(const QString& graph, const QString& name, const QStringList& options = {})
    {
        const ProgramResult result = render(graph, options + QStringList{u"--output"_s, path(name)});
        EXPECT_EQ(result.exitCode, 0) << qPrintable(result.errors);
        EXPECT_EQ(result.errors, QString());
        EXPECT_EQ(result.output, QString());
        QString error;
        const std::optional<Image> image = readImage(path(name), &error);
        EXPECT_TRUE(image) << qPrintable(error);
        return image.value_or(Image());
    }

    QTemporaryDir m_folder;
};

} // namespace

TEST_F(RenderCommand, PictureIsTheFormulasAtAnySize)
{
    for (const QSize size : {QSize(5, 8), QSize(1, 1), QSize(300, 7), QSize(2, 301)}) {
        const QStringList sized = {u"--size"_s, u"%1x%2"_s.arg(size.width()).arg(size.height())};
        const Image exr = picture(u"gradient.json"_s, u"g.exr"_s, sized);
        const Image png = picture(u"gradient.json"_s, u"g.png"_s, sized);
        ASSERT_EQ(exr.summary(), u"%1x%2 RGBA"_s.arg(size.width()).arg(size.height()));
        ASSERT_EQ(png.summary(), exr.summary());
        for (int y = 0; y < size.height(); ++y) {
            // Row 0 is the upper one; colours are taken at the middles of the rows.
            const double t = 1.0 - (y + 0.5) / size.height();
            const double expected[] = {t, 0.2 * (1.0 - t), 1.0 - t, 0.4 + 0.6 * t};
            for (int x = 0; x < size.width(); ++x) {
                for (int c = 0; c < 4; ++c) {
                    // Interpolation in 32-bit floats.
                    ASSERT_NEAR(exr.sample(x, y, c), expected[c], 1e-6) << x << ", " << y;
                    // Both files hold the same picture, one of them in bytes.
                    ASSERT_EQ(std::lround(png.sample(x, y, c) * 255.0),
                              std::lround(exr.sample(x, y, c) * 255.0));
                }
            }
        }
    }
}

TEST_F(RenderCommand, EightBitPicturesAreTheSameInBothFiles)
{
    picture(u"ramp.json"_s, u"a.png"_s);
    picture(u"ramp.json"_s, u"a.exr"_s);
    const ProgramResult same = runProgram({u"compare"_s, path(u"a.png"_s), path(u"a.exr"_s)});
    EXPECT_EQ(same.exitCode, 0) << qPrintable(same.output);
    // A graph without an output shows its picture on the screen.
    write(u"screen.json"_s,
          QString(shaderGraph).replace(u"\"output\": \"@ramp.Frame\""_s, u"\"lights\": []"_s));
    picture(u"screen.json"_s, u"screen.exr"_s, {u"--size"_s, u"64x40"_s});
    picture(u"ramp.json"_s, u"texture.png"_s, {u"--size"_s, u"64x40"_s});
    const ProgramResult screen = runProgram({u"compare"_s, path(u"screen.exr"_s), path(u"texture.png"_s)});
    EXPECT_EQ(screen.exitCode, 0) << qPrintable(screen.output + screen.errors);
}

TEST_F(RenderCommand, SetChangesAnInput)
{
    EXPECT_NEAR(picture(u"ramp.json"_s, u"a.png"_s).sample(3, 3, 2), 51.0 / 255.0, 1e-6);
    const Image image = picture(u"ramp.json"_s, u"a.png"_s, {u"--set"_s, u"ramp.Blue=0.6"_s});
    EXPECT_NEAR(image.sample(3, 3, 2), 153.0 / 255.0, 1e-6);
}

TEST_F(RenderCommand, NumberInTheNameWritesEveryFrame)
{
    const QStringList frames = {u"--frames"_s, u"3"_s, u"--output"_s};
    EXPECT_EQ(render(u"gradient.json"_s, frames + QStringList(path(u"f%03d.png"_s))).exitCode, 0);
    EXPECT_EQ(files({}, u"f*"_s), (QStringList{u"f000.png"_s, u"f001.png"_s, u"f002.png"_s}));
    EXPECT_EQ(contents(u"f000.png"_s), contents(u"f002.png"_s));
    EXPECT_EQ(render(u"gradient.json"_s, frames + QStringList(path(u"100%%-%d.exr"_s))).exitCode, 0);
    EXPECT_EQ(files({}, u"100*"_s), (QStringList{u"100%-0.exr"_s, u"100%-1.exr"_s, u"100%-2.exr"_s}));
    EXPECT_EQ(render(u"gradient.json"_s, frames + QStringList(path(u"last.png"_s))).exitCode, 0);
    EXPECT_EQ(contents(u"last.png"_s), contents(u"f000.png"_s));
}

TEST_F(RenderCommand, DumpWritesEveryOutputOfEveryPassThatRuns)
{
    // A square that fills the view, of two triangles.
    write(u"square.obj"_s, u"v -9 -9 0\nv 9 -9 0\nv 9 9 0\nv -9 9 0\nf 1 2 3\nf 1 3 4\n"_s);
    write(u"square.json"_s, uR"({"viewport": [8, 6], "models": {"square": "square.obj"},
        "camera": {"eye": [0, 0, 5], "target": [0, 0, 0]},
        "passes": [{"name": "scene", "type": "ForwardRenderPass"}, {"name": "unused", "type": "GradientRenderPass"},
                   {"name": "sky", "type": "GradientRenderPass"},
                   {"name": "screen", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@sky.Frame"}}],
        "output": "@scene.Frame"})"_s);
    const ProgramResult result = render(u"square.json"_s, {u"--dump"_s, path(u"new/dump"_s)});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(result.isOneError(u"unused is left out"_s)) << qPrintable(result.errors);
    EXPECT_EQ(files(u"new/dump"_s, u"*"_s),
              (QStringList{u"outputs.json"_s, u"scene.Frame.exr"_s, u"scene.Id.exr"_s, u"sky.Frame.exr"_s}));
    EXPECT_TRUE(QJsonDocument::fromJson(contents(u"new/dump/outputs.json"_s)).isObject());
    QString error;
    const std::optional<Image> sky = readImage(path(u"new/dump/sky.Frame.exr"_s), &error);
    ASSERT_TRUE(sky) << qPrintable(error);
    EXPECT_EQ(sky->summary(), u"8x6 RGBA"_s);
    // The default colours, in a float format: a byte could not hold this.
    EXPECT_NEAR(sky->sample(0, 0, 0), (64.0 + (153.0 - 64.0) / 12.0) / 255.0, 1e-6);
}

TEST_F(RenderCommand, FailedRenderKeepsTheOldFileAndSaysWhyInOneLine)
{
    write(u"ramp.frag"_s, QString(ramp).replace(u"vec4(0.0,"_s, u"vec4(missing,"_s));
    write(u"a.png"_s, u"old"_s);
    const ProgramResult result = render(u"ramp.json"_s, {u"--output"_s, path(u"a.png"_s)});
    EXPECT_EQ(result.exitCode, 2);
    // Graph and pass, file and line, and what the driver says.
    EXPECT_TRUE(result.isOneError(u"ramp.json: ramp: "_s)) << qPrintable(result.errors);
    EXPECT_TRUE(result.errors.contains(u"ramp.frag:5"_s)) << qPrintable(result.errors);
    EXPECT_TRUE(result.errors.contains(u"missing"_s)) << qPrintable(result.errors);
    EXPECT_EQ(contents(u"a.png"_s), QByteArray("old"));
    EXPECT_EQ(files({}, u"a.png*"_s), QStringList(u"a.png"_s));
    // The source around the line comes on demand.
    const ProgramResult verbose = render(u"ramp.json"_s, {u"--verbose"_s});
    EXPECT_TRUE(verbose.errors.contains(u"uniform float Qel_float_Blue;"_s)) << qPrintable(verbose.errors);
}

TEST_F(RenderCommand, BadModelsAndSizesFailInOneLine)
{
    const auto expectFailure = [&](const QStringList& options, const QString& message) {
        const ProgramResult result =
            render(u"gradient.json"_s, options + QStringList{u"--output"_s, path(u"a.png"_s)});
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_TRUE(result.isOneError(message)) << qPrintable(result.errors);
        EXPECT_EQ(files({}, u"a.png*"_s), QStringList());
    };
    write(u"broken.gltf"_s, u"{\"asset\": {\"version\": \"2.0\"}, \"meshes\": ["_s);
    expectFailure({u"--model"_s, path(u"broken.gltf"_s)}, u"broken.gltf"_s);
    write(u"text.xyz"_s, u"no model"_s);
    expectFailure({u"--model"_s, path(u"text.xyz"_s)}, u"text.xyz"_s);
    expectFailure({u"--size"_s, u"1000000x4"_s}, u"1000000x4"_s);
}

TEST_F(RenderCommand, ProfileAndSilence)
{
    const ProgramResult profile = render(u"ramp.json"_s, {u"--profile"_s, u"--frames"_s, u"4"_s});
    EXPECT_EQ(profile.exitCode, 0);
    EXPECT_TRUE(profile.output.contains(u"\nramp "_s)) << qPrintable(profile.output);
    EXPECT_TRUE(profile.output.contains(u"\nscreen "_s)) << qPrintable(profile.output);
    const ProgramResult nothing = render(u"ramp.json"_s, {});
    EXPECT_EQ(nothing.exitCode, 0);
    EXPECT_TRUE(nothing.isOneError(u"nothing is written"_s)) << qPrintable(nothing.errors);
}

TEST_F(RenderCommand, MemoryStaysConstantOverManyFrames)
{
    const auto peakMemory = [&](const char* frames) {
        EXPECT_EQ(
            render(u"ramp.json"_s, {u"--size"_s, u"128x128"_s, u"--frames"_s, QString::fromUtf8(frames)})
                .exitCode,
            0);
        // The largest of the children so far, in kilobytes.
        rusage usage{};
        getrusage(RUSAGE_CHILDREN, &usage);
        return usage.ru_maxrss;
    };
    const long few = peakMemory("20");
    // A texture left behind every frame would be 30 MB; runs differ by less than 4. An address sanitizer
    // holds back up to 256 MB of freed memory.
#if defined(__SANITIZE_ADDRESS__)
    constexpr long allowance = 264000;
#else
    constexpr long allowance = 8000;
#endif
    EXPECT_LT(peakMemory("500"), few + allowance);
}

TEST_F(RenderCommand, GraphCommandPrintsSizesFormatsAndWhatIsLeftOut)
{
    const ProgramResult result = runProgram({u"graph"_s, path(u"ramp.json"_s), u"--device"_s, u"software"_s});
    EXPECT_EQ(result.exitCode, 0) << qPrintable(result.errors);
    EXPECT_TRUE(result.output.contains(u"Frame  16x16 GL_RGBA8"_s)) << qPrintable(result.output);
    EXPECT_TRUE(result.output.contains(u"left out: unused  GradientRenderPass: "_s))
        << qPrintable(result.output);
    EXPECT_TRUE(result.output.contains(u"picture: ramp.Frame"_s)) << qPrintable(result.output);
}

TEST_F(RenderCommand, InfoTellsOfDriverAndPasses)
{
    const ProgramResult result = runProgram({u"info"_s, u"--device"_s, u"software"_s});
    EXPECT_EQ(result.exitCode, 0) << qPrintable(result.errors);
    EXPECT_TRUE(result.output.contains(u"llvmpipe"_s)) << qPrintable(result.output);
    EXPECT_TRUE(result.output.contains(u"ForwardRenderPass"_s)) << qPrintable(result.output);
}

} // namespace Morvane::Qel::Test
