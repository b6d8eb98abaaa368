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

namespace Morvane::Qel::Test {

namespace {

const QString gradient = QStringLiteral(R"({"viewport": [5, 8],
    "passes": [{"name": "sky", "type": "GradientRenderPass",
                "inputs": {"ColorTop": "#ff0000ff", "ColorBottom": "#0033ff66"}}],
    "output": "@sky.Frame"})");

/// Alpha grows from left to right, and colour upwards.
const QString ramp = QStringLiteral(R"(#version 150
in vec2 vo_TexCoord;
uniform float Qel_float_Blue;
out vec4 o_Frame;
void main() { o_Frame = vec4(0.0, vo_TexCoord.y, Qel_float_Blue, vo_TexCoord.x); }
)");

const QString shaderGraph = QStringLiteral(R"({"viewport": [16, 16],
    "passes": [{"name": "ramp", "type": "ShaderRenderPass",
                "options": {"inputs": ["Qel_QRect_Viewport", "Qel_float_Blue"],
                            "outputs": ["Qel_QelTexture*_Frame"], "fragmentShader": "ramp.frag"},
                "inputs": {"Blue": 0.2}},
               {"name": "screen", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@ramp.Frame"}},
               {"name": "unused", "type": "GradientRenderPass"}],
    "output": "@ramp.Frame"})");

class RenderCommand : public testing::Test
{
protected:
    void SetUp() override
    {
        write(QStringLiteral("gradient.json"), gradient);
        write(QStringLiteral("ramp.json"), shaderGraph);
        write(QStringLiteral("ramp.frag"), ramp);
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
        return runProgram(QStringList{QStringLiteral("render"), path(graph), QStringLiteral("--device"),
                                      QStringLiteral("software")} +
                          options);
    }

    /// Renders to a file and reads it.
    Image picture(const QString& graph, const QString& name, const QStringList& options = {})
    {
        const ProgramResult result =
            render(graph, options + QStringList{QStringLiteral("--output"), path(name)});
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
        const QStringList sized = {QStringLiteral("--size"),
                                   QStringLiteral("%1x%2").arg(size.width()).arg(size.height())};
        const Image exr = picture(QStringLiteral("gradient.json"), QStringLiteral("g.exr"), sized);
        const Image png = picture(QStringLiteral("gradient.json"), QStringLiteral("g.png"), sized);
        ASSERT_EQ(exr.summary(), QStringLiteral("%1x%2 RGBA").arg(size.width()).arg(size.height()));
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
    picture(QStringLiteral("ramp.json"), QStringLiteral("a.png"));
    picture(QStringLiteral("ramp.json"), QStringLiteral("a.exr"));
    const ProgramResult same =
        runProgram({QStringLiteral("compare"), path(QStringLiteral("a.png")), path(QStringLiteral("a.exr"))});
    EXPECT_EQ(same.exitCode, 0) << qPrintable(same.output);
    // A graph without an output shows its picture on the screen.
    write(QStringLiteral("screen.json"),
          QString(shaderGraph)
              .replace(QStringLiteral("\"output\": \"@ramp.Frame\""), QStringLiteral("\"lights\": []")));
    picture(QStringLiteral("screen.json"), QStringLiteral("screen.exr"),
            {QStringLiteral("--size"), QStringLiteral("64x40")});
    picture(QStringLiteral("ramp.json"), QStringLiteral("texture.png"),
            {QStringLiteral("--size"), QStringLiteral("64x40")});
    const ProgramResult screen = runProgram(
        {QStringLiteral("compare"), path(QStringLiteral("screen.exr")), path(QStringLiteral("texture.png"))});
    EXPECT_EQ(screen.exitCode, 0) << qPrintable(screen.output + screen.errors);
}

TEST_F(RenderCommand, SetChangesAnInput)
{
    EXPECT_NEAR(picture(QStringLiteral("ramp.json"), QStringLiteral("a.png")).sample(3, 3, 2), 51.0 / 255.0,
                1e-6);
    const Image image = picture(QStringLiteral("ramp.json"), QStringLiteral("a.png"),
                                {QStringLiteral("--set"), QStringLiteral("ramp.Blue=0.6")});
    EXPECT_NEAR(image.sample(3, 3, 2), 153.0 / 255.0, 1e-6);
}

TEST_F(RenderCommand, NumberInTheNameWritesEveryFrame)
{
    const QStringList frames = {QStringLiteral("--frames"), QStringLiteral("3"), QStringLiteral("--output")};
    EXPECT_EQ(render(QStringLiteral("gradient.json"), frames + QStringList(path(QStringLiteral("f%03d.png"))))
                  .exitCode,
              0);
    EXPECT_EQ(
        files({}, QStringLiteral("f*")),
        (QStringList{QStringLiteral("f000.png"), QStringLiteral("f001.png"), QStringLiteral("f002.png")}));
    EXPECT_EQ(contents(QStringLiteral("f000.png")), contents(QStringLiteral("f002.png")));
    EXPECT_EQ(
        render(QStringLiteral("gradient.json"), frames + QStringList(path(QStringLiteral("100%%-%d.exr"))))
            .exitCode,
        0);
    EXPECT_EQ(files({}, QStringLiteral("100*")),
              (QStringList{QStringLiteral("100%-0.exr"), QStringLiteral("100%-1.exr"),
                           QStringLiteral("100%-2.exr")}));
    EXPECT_EQ(render(QStringLiteral("gradient.json"), frames + QStringList(path(QStringLiteral("last.png"))))
                  .exitCode,
              0);
    EXPECT_EQ(contents(QStringLiteral("last.png")), contents(QStringLiteral("f000.png")));
}

TEST_F(RenderCommand, DumpWritesEveryOutputOfEveryPassThatRuns)
{
    // A square that fills the view, of two triangles.
    write(QStringLiteral("square.obj"),
          QStringLiteral("v -9 -9 0\nv 9 -9 0\nv 9 9 0\nv -9 9 0\nf 1 2 3\nf 1 3 4\n"));
    write(QStringLiteral("square.json"),
          QStringLiteral(R"({"viewport": [8, 6], "models": {"square": "square.obj"},
        "camera": {"eye": [0, 0, 5], "target": [0, 0, 0]},
        "passes": [{"name": "scene", "type": "ForwardRenderPass"}, {"name": "unused", "type": "GradientRenderPass"},
                   {"name": "sky", "type": "GradientRenderPass"},
                   {"name": "screen", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@sky.Frame"}}],
        "output": "@scene.Frame"})"));
    const ProgramResult result =
        render(QStringLiteral("square.json"), {QStringLiteral("--dump"), path(QStringLiteral("new/dump"))});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(result.isOneError(QStringLiteral("unused is left out"))) << qPrintable(result.errors);
    EXPECT_EQ(files(QStringLiteral("new/dump"), QStringLiteral("*")),
              (QStringList{QStringLiteral("outputs.json"), QStringLiteral("scene.Frame.exr"),
                           QStringLiteral("scene.Id.exr"), QStringLiteral("sky.Frame.exr")}));
    EXPECT_TRUE(QJsonDocument::fromJson(contents(QStringLiteral("new/dump/outputs.json"))).isObject());
    QString error;
    const std::optional<Image> sky = readImage(path(QStringLiteral("new/dump/sky.Frame.exr")), &error);
    ASSERT_TRUE(sky) << qPrintable(error);
    EXPECT_EQ(sky->summary(), QStringLiteral("8x6 RGBA"));
    // The default colours, in a float format: a byte could not hold this.
    EXPECT_NEAR(sky->sample(0, 0, 0), (64.0 + (153.0 - 64.0) / 12.0) / 255.0, 1e-6);
}

TEST_F(RenderCommand, FailedRenderKeepsTheOldFileAndSaysWhyInOneLine)
{
    write(QStringLiteral("ramp.frag"),
          QString(ramp).replace(QStringLiteral("vec4(0.0,"), QStringLiteral("vec4(missing,")));
    write(QStringLiteral("a.png"), QStringLiteral("old"));
    const ProgramResult result =
        render(QStringLiteral("ramp.json"), {QStringLiteral("--output"), path(QStringLiteral("a.png"))});
    EXPECT_EQ(result.exitCode, 2);
    // Graph and pass, file and line, and what the driver says.
    EXPECT_TRUE(result.isOneError(QStringLiteral("ramp.json: ramp: "))) << qPrintable(result.errors);
    EXPECT_TRUE(result.errors.contains(QStringLiteral("ramp.frag:5"))) << qPrintable(result.errors);
    EXPECT_TRUE(result.errors.contains(QStringLiteral("missing"))) << qPrintable(result.errors);
    EXPECT_EQ(contents(QStringLiteral("a.png")), QByteArray("old"));
    EXPECT_EQ(files({}, QStringLiteral("a.png*")), QStringList(QStringLiteral("a.png")));
    // The source around the line comes on demand.
    const ProgramResult verbose = render(QStringLiteral("ramp.json"), {QStringLiteral("--verbose")});
    EXPECT_TRUE(verbose.errors.contains(QStringLiteral("uniform float Qel_float_Blue;")))
        << qPrintable(verbose.errors);
}

TEST_F(RenderCommand, BadModelsAndSizesFailInOneLine)
{
    const auto expectFailure = [&](const QStringList& options, const QString& message) {
        const ProgramResult result =
            render(QStringLiteral("gradient.json"),
                   options + QStringList{QStringLiteral("--output"), path(QStringLiteral("a.png"))});
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_TRUE(result.isOneError(message)) << qPrintable(result.errors);
        EXPECT_EQ(files({}, QStringLiteral("a.png*")), QStringList());
    };
    write(QStringLiteral("broken.gltf"), QStringLiteral("{\"asset\": {\"version\": \"2.0\"}, \"meshes\": ["));
    expectFailure({QStringLiteral("--model"), path(QStringLiteral("broken.gltf"))},
                  QStringLiteral("broken.gltf"));
    write(QStringLiteral("text.xyz"), QStringLiteral("no model"));
    expectFailure({QStringLiteral("--model"), path(QStringLiteral("text.xyz"))}, QStringLiteral("text.xyz"));
    expectFailure({QStringLiteral("--size"), QStringLiteral("1000000x4")}, QStringLiteral("1000000x4"));
}

TEST_F(RenderCommand, ProfileAndSilence)
{
    const ProgramResult profile =
        render(QStringLiteral("ramp.json"),
               {QStringLiteral("--profile"), QStringLiteral("--frames"), QStringLiteral("4")});
    EXPECT_EQ(profile.exitCode, 0);
    EXPECT_TRUE(profile.output.contains(QStringLiteral("\nramp "))) << qPrintable(profile.output);
    EXPECT_TRUE(profile.output.contains(QStringLiteral("\nscreen "))) << qPrintable(profile.output);
    const ProgramResult nothing = render(QStringLiteral("ramp.json"), {});
    EXPECT_EQ(nothing.exitCode, 0);
    EXPECT_TRUE(nothing.isOneError(QStringLiteral("nothing is written"))) << qPrintable(nothing.errors);
}

TEST_F(RenderCommand, MemoryStaysConstantOverManyFrames)
{
    const auto peakMemory = [&](const char* frames) {
        EXPECT_EQ(render(QStringLiteral("ramp.json"), {QStringLiteral("--size"), QStringLiteral("128x128"),
                                                       QStringLiteral("--frames"), QString::fromUtf8(frames)})
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
    const ProgramResult result = runProgram({QStringLiteral("graph"), path(QStringLiteral("ramp.json")),
                                             QStringLiteral("--device"), QStringLiteral("software")});
    EXPECT_EQ(result.exitCode, 0) << qPrintable(result.errors);
    EXPECT_TRUE(result.output.contains(QStringLiteral("Frame  16x16 GL_RGBA8"))) << qPrintable(result.output);
    EXPECT_TRUE(result.output.contains(QStringLiteral("left out: unused  GradientRenderPass: ")))
        << qPrintable(result.output);
    EXPECT_TRUE(result.output.contains(QStringLiteral("picture: ramp.Frame"))) << qPrintable(result.output);
}

TEST_F(RenderCommand, InfoTellsOfDriverAndPasses)
{
    const ProgramResult result =
        runProgram({QStringLiteral("info"), QStringLiteral("--device"), QStringLiteral("software")});
    EXPECT_EQ(result.exitCode, 0) << qPrintable(result.errors);
    EXPECT_TRUE(result.output.contains(QStringLiteral("llvmpipe"))) << qPrintable(result.output);
    EXPECT_TRUE(result.output.contains(QStringLiteral("ForwardRenderPass"))) << qPrintable(result.output);
}

} // namespace Morvane::Qel::Test
