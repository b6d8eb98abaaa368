#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <Qel/graph/ImageIO.h>

#include "support/Folder.h"
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

class RenderCommand : public testing::Test, protected Folder
{
protected:
    RenderCommand()
    {
        write("ramp.json", shaderGraph);
        write("ramp.frag", ramp);
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

TEST_F(RenderCommand, FailureKeepsTheOldFileAndGivesOneLine)
{
    write("a.png", QString("old"));
    write("broken.gltf", QString("{\"asset\": {\"version\": \"2.0\"}, \"meshes\": ["));
    write("text.xyz", QString("no model"));
    write("ramp.frag", QString(ramp).replace("vec4(0.0,", "vec4(missing,"));
    const std::pair<QStringList, QString> failures[] = {
        {{"--model", path("broken.gltf")}, "broken.gltf"},
        {{"--model", path("text.xyz")}, "text.xyz"},
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
    expectOutput(render("ramp.json", {"--profile", "--frames", "4"}), {"\nramp ", "\nscreen "});
    expectOutput(runProgram({"graph", path("ramp.json"), "--device", "software"}),
                 {"  16x16 GL_RGBA8", "culled: unused  GradientRenderPass: ", "ramp.Frame\n"});
    expectOutput(runProgram({"info", "--device", "software"}), {"llvmpipe", "ForwardRenderPass"});
    EXPECT_TRUE(render("ramp.json", {}).isOneError("nothing is written"));
}

} // namespace Morvane::Qel::Test
