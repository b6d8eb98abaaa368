#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <Qel/graph/ImageIO.h>

#include "support/Folder.h"
#include "support/Paths.h"
#include "support/Program.h"

namespace Morvane::Qel::Test {

namespace {

/// Alpha increases to the right, green upwards.
const QString ramp = R"(#version 150
in vec2 vo_TexCoord;
uniform float Qel_float_Blue;
out vec4 o_Frame;
void main() { o_Frame = vec4(0.0, vo_TexCoord.y, Qel_float_Blue, vo_TexCoord.x); }
)";

const QString shaderGraph = R"({"viewport": [16, 16],
    "passes": [{"name": "ramp", "type": "ShaderRenderPass",
                "options": {"inputs": ["Qel_QRect_Viewport", "Qel_float_Blue"],
                            "outputs": ["Qel_QelTexture*_Frame"], "fragmentShader": "ramp.frag"},
                "inputs": {"Blue": 0.2}},
               {"name": "screen", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@ramp.Frame"}},
               {"name": "unused", "type": "GradientRenderPass"}],
    "output": "@ramp.Frame"})";

/// Six frames of one colour: an eighth of the time in red, the offset of the jitter in green and blue. %1 is
/// "settle", %2 restarts the jitter and the mean.
const QString animation = R"({"viewport": [16, 16], "animation": {"frames": 6, "fps": 4}, "settle": %1,
    "passes": [{"name": "jitter", "type": "TemporalAAJitterPass", "inputs": {"Dirty": %2}},
               {"name": "clock", "type": "ShaderRenderPass",
                "options": {"inputs": ["Qel_QRect_Viewport", "Qel_float_Time", "Qel_QMatrix4x4_Projection"],
                            "outputs": ["Qel_QelTexture*_Frame"], "fragmentShader": "clock.frag"},
                "inputs": {"Projection": "@jitter.ProjectionMatrix"}},
               {"name": "mean", "type": "TemporalAARenderPass",
                "inputs": {"Frame": "@clock.Frame", "Dirty": %2}}],
    "output": "@mean.Frame"})";

const QString clockShader = R"(#version 150
uniform float Qel_float_Time;
uniform mat4 Qel_QMatrix4x4_Projection;
out vec4 o_Frame;
void main() { o_Frame = vec4(Qel_float_Time / 8.0, 0.5 + 8.0 * Qel_QMatrix4x4_Projection[2].xy, 1.0); }
)";

class RenderCommand : public testing::Test, protected Folder
{
protected:
    RenderCommand()
    {
        write("ramp.json", shaderGraph);
        write("ramp.frag", ramp);
        write("clock.frag", clockShader);
        // Without an output, the image is what the graph draws to the screen.
        write("screen.json", QString(shaderGraph).replace("\"output\": \"@ramp.Frame\"", "\"lights\": []"));
    }

    ProgramResult render(const QString& graph, const QStringList& options)
    {
        return runProgram(QStringList{"render", path(graph), "--device", "software"} + options);
    }

    /// Renders to a file and reads it.
    Image rendered(const QString& graph, const QString& name, const QStringList& options)
    {
        const ProgramResult result = render(graph, QStringList{"--output", path(name)} + options);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_EQ(result.errors + result.output, QString());
        return image(name);
    }
};

} // namespace

TEST_F(RenderCommand, SetTheScreenAndBothFormats)
{
    // An 8-bit texture is the same in both formats and on the screen.
    const QStringList set{"--size", "64x41", "--set", "ramp.Blue=0.6", "--alpha", "keep"};
    const Image png = rendered("ramp.json", "a.png", set);
    ASSERT_EQ(png.summary(), "64x41 RGBA");
    EXPECT_EQ(rendered("ramp.json", "a.exr", set).samples, png.samples);
    EXPECT_EQ(rendered("screen.json", "screen.exr", set).samples, png.samples);
    for (int y = 0; y < 41; ++y) {
        for (int x = 0; x < 64; ++x) {
            // Row 0 is the top row. Rounding to 8 bits changes values by half a step, and drivers may choose
            // either neighbour of a value between two.
            EXPECT_EQ(png.sample(x, y, 0), 0.0);
            EXPECT_NEAR(png.sample(x, y, 1), 1.0 - (y + 0.5) / 41.0, 0.51 / 255.0);
            EXPECT_NEAR(png.sample(x, y, 2), 0.6, 1e-6);
            EXPECT_NEAR(png.sample(x, y, 3), (x + 0.5) / 64.0, 0.51 / 255.0);
        }
    }
}

TEST_F(RenderCommand, NumberInTheNameWritesEveryFrame)
{
    for (const char* pattern : {"f%03d.png", "100%%-%d.png", "last.png"}) {
        EXPECT_EQ(render("ramp.json", {"--frames", "2", "--output", path(pattern)}).exitCode, 0);
    }
    EXPECT_EQ(files("*.png"), (QStringList{"100%-0.png", "100%-1.png", "f000.png", "f001.png", "last.png"}));
    EXPECT_EQ(contents("last.png"), contents("f001.png"));
}

TEST_F(RenderCommand, PartsOfASequenceEqualTheWhole)
{
    for (const bool hasHistory : {true, false}) {
        const QString name = hasHistory ? "history" : "settled";
        const QString dirty = hasHistory ? "false" : "\"@NewFrame\"";
        write(name + ".json", animation.arg(hasHistory ? 1 : 3).arg(dirty));
        EXPECT_EQ(render(name + ".json", {"--output", path(name + "%02d.png")}).errors, QString());
        EXPECT_EQ(render(name + ".json", {"--frames", "3..5", "--output", path(name + "-part%d.png")}).errors,
                  QString());
        EXPECT_EQ(files(name + "*.png").size(), 6 + 3);
        for (int frame = 3; frame < 6; ++frame) {
            const QByteArray whole = contents(QString("%1%2.png").arg(name).arg(frame, 2, 10, QChar('0')));
            EXPECT_EQ(contents(QString("%1-part%2.png").arg(name).arg(frame)), whole) << frame;
            EXPECT_NE(contents(QString("%1-part%2.png").arg(name).arg(frame == 5 ? 3 : 5)), whole) << frame;
        }
        // The mean of frames 1 to 5, rounded in each of them, or frame 5 alone, at 5/4 seconds.
        EXPECT_NEAR(image(name + "05.png").sample(0, 0, 0), (hasHistory ? 3.0 : 5.0) / 4.0 / 8.0,
                    2.0 / 255.0);
        EXPECT_EQ(runProgram({"graph", path(name + ".json")}).output.contains("\nrun-up: all frames from 0"),
                  hasHistory);
    }
}

TEST_F(RenderCommand, VideosHoldAllFramesInTheirColors)
{
    write("moving.json", animation.arg(1).arg("true"));
    EXPECT_EQ(render("moving.json", {"--output", path("%d.png")}).errors, QString());
    for (const char* name : {"video.mp4", "video.webm", "video.gif"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(render("moving.json", {"--output", path(name)}).errors, QString());
        QProcess decoder;
        decoder.start("ffmpeg",
                      {"-v", "error", "-i", path(name), "-f", "rawvideo", "-pix_fmt", "rgb24", "-"});
        ASSERT_TRUE(decoder.waitForFinished());
        const QByteArray pixels = decoder.readAllStandardOutput();
        constexpr qsizetype frameSize = qsizetype{16} * 16 * 3;
        ASSERT_EQ(pixels.size(), 6 * frameSize);
        for (int frame = 0; frame < 6; ++frame) {
            const Image expected = image(QString("%1.png").arg(frame));
            for (int c = 0; c < 3; ++c) {
                // The encoders are lossy, and video has fewer steps between black and white.
                EXPECT_NEAR(static_cast<quint8>(pixels[frame * frameSize + c]),
                            255.0 * expected.sample(0, 0, c), 4.0)
                    << "frame " << frame;
            }
        }
    }
    EXPECT_TRUE(
        runProgram({"render", path("moving.json"), "--output", path("no.mp4")}, {"PATH=/nowhere"})
            .isOneError("no.mp4: cannot be written: there is no program ffmpeg, which encodes videos; "
                        "install the Debian package ffmpeg"));
    EXPECT_EQ(files("no.mp4*"), QStringList());
}

TEST_F(RenderCommand, SequencesThatEndEarlySayWhatTheyWrote)
{
    write("moving.json", animation.arg(1).arg("true"));
    ASSERT_TRUE(QDir(path({})).mkpath("f3.png"));
    EXPECT_TRUE(render("moving.json", {"--output", path("f%d.png")})
                    .isOneError("choose a regular file or a new name; frames 0 to 2 were written"));
    QProcess program;
    program.start(programPath(), {"render", path("moving.json"), "--device", "software", "--frames",
                                  "0..999999", "--output", path("long%d.png")});
    while (files("long2.png").isEmpty() && program.state() != QProcess::NotRunning) {
        program.waitForFinished(20);
    }
    program.terminate();
    ASSERT_TRUE(program.waitForFinished());
    EXPECT_EQ(program.exitStatus(), QProcess::CrashExit) << "ended by the signal";
    const QString errors = QString::fromLocal8Bit(program.readAllStandardError());
    const QRegularExpressionMatch match =
        QRegularExpression("^qel: interrupted; frames 0 to (\\d+) were written\n$").match(errors);
    EXPECT_TRUE(match.hasMatch()) << qPrintable(errors);
    EXPECT_EQ(files("long*").size(), match.captured(1).toInt() + 1);
}

TEST_F(RenderCommand, DumpWritesEveryOutputOfEveryPassThatRuns)
{
    // A square that fills the view.
    write("square.obj", "v -9 -9 0\nv 9 -9 0\nv 9 9 0\nv -9 9 0\nf 1 2 3\nf 1 3 4\n");
    write("square.json", R"({"viewport": [8, 6], "models": {"square": "square.obj"},
        "camera": {"eye": [0, 0, 5], "target": [0, 0, 0]},
        "passes": [{"name": "scene", "type": "ForwardRenderPass"}, {"name": "unused", "type": "GradientRenderPass"},
                   {"name": "sky", "type": "GradientRenderPass"},
                   {"name": "screen", "type": "TextureToScreenRenderPass", "inputs": {"Texture": "@sky.Frame"}}],
        "output": "@scene.Frame"})");
    const ProgramResult result = render("square.json", {"--dump", path("new/dump")});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(result.isOneError("unused is culled")) << qPrintable(result.errors);
    EXPECT_EQ(files("*", "new/dump"),
              (QStringList{"outputs.json", "scene.Frame.exr", "scene.Frame.png", "scene.Id.exr",
                           "scene.Id.png", "sky.Frame.exr", "sky.Frame.png"}));
    // The default colours in a float format: 8 bits could not hold this value.
    EXPECT_NEAR(image("new/dump/sky.Frame.exr").sample(0, 0, 0), (64.0 + (153.0 - 64.0) / 12.0) / 255.0,
                1e-6);
}

TEST_F(RenderCommand, TheCameraIsTheGraphsOrFitted)
{
    // Of the square, the graph's camera sees only a part and a fitted one all.
    write("square.obj", "v -9 -9 0\nv 9 -9 0\nv 9 9 0\nv -9 9 0\nf 1 2 3\nf 1 3 4\n");
    write("square.json", R"({"viewport": [16, 12], "models": {"square": "square.obj"},
        "camera": {"eye": [0, 0, 5]}, "passes": [{"name": "scene", "type": "ForwardRenderPass"}],
        "output": "@scene.Frame"})");
    const auto corner = [&](const QStringList& options) {
        const ProgramResult result = render("square.json", options + QStringList{"--output", path("a.exr")});
        EXPECT_EQ(result.exitCode, 0) << qPrintable(result.errors);
        return image("a.exr").sample(0, 0, 3);
    };
    const QStringList model{"--model", path("square.obj")};
    EXPECT_EQ(corner({}), 1.0F);
    EXPECT_EQ(corner({"--camera", "graph"}), 1.0F);
    EXPECT_EQ(corner({"--camera", "fitted"}), 0.0F);
    EXPECT_EQ(corner(model), 0.0F);
    EXPECT_EQ(corner(model + QStringList{"--camera", "graph"}), 1.0F);
}

TEST_F(RenderCommand, FailureKeepsTheOldFileAndGivesOneLine)
{
    write("a.png", QString("old"));
    write("broken.gltf", QString("{\"asset\": {\"version\": \"2.0\"}, \"meshes\": ["));
    write("text.xyz", QString("no model"));
    write("ramp.frag", QString(ramp).replace("vec4(0.0,", "vec4(missing,"));
    const std::pair<QStringList, QString> failures[] = {
        {{"--model", path("broken.gltf")}, "qel: --model " + path("broken.gltf: cannot read model")},
        {{"--model", path("text.xyz")}, "qel: --model " + path("text.xyz: cannot read model")},
        {{"--size", "1000000x4"}, "1000000x4"},
        // Graph and pass, file and line, and the driver's message.
        {{}, "ramp.json: ramp: "},
        {{}, "ramp.frag:5"},
        {{}, "missing"},
    };
    for (const auto& [options, message] : failures) {
        const ProgramResult result = render("ramp.json", QStringList{"--output", path("a.png")} + options);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_TRUE(result.isOneError(message)) << qPrintable(result.errors);
        EXPECT_EQ(contents("a.png"), "old");
        EXPECT_EQ(files("a.png*"), QStringList("a.png"));
    }
    // The source around the line comes only on demand.
    EXPECT_TRUE(render("ramp.json", {"--verbose"}).errors.contains("uniform float Qel_float_Blue;"));
}

TEST_F(RenderCommand, AnImageThatCannotBeReadFailsUnlessToldToKeepGoing)
{
    write("text.png", QString("no image"));
    write("image.json", R"({"viewport": [2, 2], "output": "@photo.Texture", "passes": [
        {"name": "photo", "type": "TextureLoaderRenderPass", "inputs": {"TexturePath": "text.png"}}]})");
    const QString message = "image.json: photo: \"" + path("text.png") + "\" cannot be read as an image";
    const QStringList output{"--output", path("out.png")};
    const ProgramResult failed = render("image.json", output);
    EXPECT_EQ(failed.exitCode, 2);
    EXPECT_TRUE(failed.isOneError(message)) << qPrintable(failed.errors);
    EXPECT_EQ(files("out.png"), QStringList());

    const ProgramResult kept = render("image.json", output + QStringList{"--keep-going", "--frames", "2"});
    EXPECT_EQ(kept.exitCode, 0);
    EXPECT_TRUE(kept.isOneError(message)) << qPrintable(kept.errors);
    EXPECT_EQ(image("out.png").sample(0, 0, 0), 1.0);
    EXPECT_EQ(render("image.json", output + QStringList{"--keep-going", "--quiet"}).errors, QString());
}

TEST_F(RenderCommand, ProfileMeasuresFramesAfterTheWarmUp)
{
    const ProgramResult result =
        render("ramp.json", {"--profile", "--json", "--frames", "4", "--output", path("%d.png")});
    // The frames that are rendered for the profile alone are not written.
    EXPECT_EQ(files("*.png"), (QStringList{"0.png", "1.png", "2.png", "3.png"}));
    const QJsonObject profile = QJsonDocument::fromJson(result.output.toUtf8()).object();
    // The software rasteriser gives the machine's uptime for a query that begins before the first draw.
    EXPECT_LT(profile["frame"]["gpu"]["percentile95"].toDouble(), 60.0e3);
    const QJsonValue times = profile["passes"][0]["cpu"];
    EXPECT_LT(times["median"].toDouble(), times["percentile95"].toDouble());
    EXPECT_EQ(profile["frames"], 4);
    // The shader of the graph takes one texture of four bytes per pixel.
    const QJsonValue memory = profile["passes"][0]["memory"];
    EXPECT_EQ(memory["pooledTextures"], 1);
    EXPECT_EQ(memory["pooledBytes"], 4 * 16 * 16);
    EXPECT_EQ(profile["pool"]["bytes"], 4 * 16 * 16);
}

TEST_F(RenderCommand, ShadersAreWrittenAndTheirMistakesShown)
{
    write("ramp.frag", QString(ramp).remove("#version 150\n").replace("vo_TexCoord", "vo_TexCord"));
    const ProgramResult result = render("ramp.json", {"--frames", "2", "--shaders", path("glsl")});
    EXPECT_EQ(
        QString(result.errors).remove(path("ramp.json").chopped(9)).toStdString(),
        "qel: ramp.json: ramp: the fragment shader has no #version; \"#version 150\" is added\n"
        "qel: ramp.json: ramp: the fragment stage reads vo_TexCord, which the vertex stage does not write; "
        "it has vo_TexCoord\n");
    EXPECT_EQ(files("*", "glsl/ramp.1"), (QStringList{"0.vert", "1.frag"}));
    EXPECT_TRUE(contents("glsl/ramp.1/1.frag").startsWith("#version 150\n"));

    write("ramp.frag", ramp);
    write("tess.json", QString(shaderGraph).replace("\"fragmentShader\"", "\"tessellationControlShader\""));
    const ProgramResult old =
        runProgram({"render", path("tess.json"), "--device", "software", "--frames", "1"},
                   {"MESA_GL_VERSION_OVERRIDE=3.2", "MESA_GLSL_VERSION_OVERRIDE=150",
                    "MESA_EXTENSION_OVERRIDE=-GL_ARB_tessellation_shader"});
    EXPECT_TRUE(old.isOneError("tessellation stages need OpenGL 4.0 or GL_ARB_tessellation_shader"))
        << qPrintable(old.errors);
}

TEST_F(RenderCommand, ProfileGraphAndInfoPrintTheirTables)
{
    const auto expectOutput = [](const ProgramResult& result, const QStringList& parts) {
        EXPECT_EQ(result.exitCode, 0) << qPrintable(result.errors);
        for (const QString& part : parts) {
            EXPECT_TRUE(result.output.contains(part)) << qPrintable(part + '\n' + result.output);
        }
    };
    expectOutput(render("ramp.json", {"--profile", "--frames", "4"}), {"\nramp ", "\nscreen ", "\nmodels "});
    expectOutput(runProgram({"graph", path("ramp.json"), "--device", "software"}),
                 {"  16x16 GL_RGBA8", "culled: unused  GradientRenderPass: ", "ramp.Frame\n"});
    expectOutput(runProgram({"info", "--device", "software"}), {"llvmpipe", "ForwardRenderPass"});
    EXPECT_TRUE(render("ramp.json", {}).isOneError("nothing is written"));
}

} // namespace Morvane::Qel::Test
