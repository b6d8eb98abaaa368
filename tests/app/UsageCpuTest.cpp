#include <QDir>

#include <gtest/gtest.h>

#include "support/Folder.h"
#include "support/Program.h"

namespace Morvane::Qel::Test {

namespace {

const QString passes = R"({"passes": [
    {"name": "sky", "type": "GradientRenderPass"},
    {"name": "copy", "type": "ShaderRenderPass",
     "options": {"inputs": ["Qel_QelTexture*_Input"], "outputs": ["Qel_QelTexture*_Frame"]},
     "inputs": {"Input": "@sky.Frame"}}],
    "output": "@copy.Frame"})";

/// Runs the program without any GL driver: wrong use is reported before there is a context.
class Usage : public testing::Test, protected Folder
{
protected:
    Usage()
    {
        EXPECT_TRUE(QDir().mkdir(path("empty")));
        write("good.json", passes);
    }

    ProgramResult run(const QStringList& arguments)
    {
        return runProgram(arguments, {"__EGL_VENDOR_LIBRARY_DIRS=" + path("empty")});
    }

    void expectWrongUse(const QStringList& arguments, const QString& message)
    {
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.exitCode, 2) << qPrintable(arguments.join(' '));
        EXPECT_TRUE(result.isOneError(message)) << qPrintable(result.errors);
        EXPECT_EQ(result.output, QString());
    }

    const QString good = path("good.json");
};

} // namespace

TEST_F(Usage, HelpAndVersionGoToStandardOutput)
{
    for (const char* command : {"", "render ", "passes ", "graph ", "compare ", "info "}) {
        const ProgramResult result = run((QString(command) + "--help").split(' '));
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_TRUE(result.output.startsWith("Usage: qel")) << qPrintable(result.output);
        EXPECT_EQ(result.errors, QString());
    }
    EXPECT_TRUE(run({"--version"}).output.startsWith("qel "));
}

TEST_F(Usage, WrongArgumentsFailInOneLine)
{
    expectWrongUse({}, "qel --help");
    expectWrongUse({"paint"}, "there are \"render\", \"passes\"");
    expectWrongUse({"rendr"}, "did you mean \"render\"? See \"qel --help\"");
    expectWrongUse({"render"}, "GRAPH is missing");
    expectWrongUse({"info", "more"}, "unexpected argument \"more\"");
    expectWrongUse({"render", good, "--fram", "2"}, "unknown option \"--fram\"; did you mean \"--frames\"?");
    expectWrongUse({"info", "--quiet", "--verbose"}, "cannot be combined");
    expectWrongUse({"render", good, "--frames"}, "frames");
    expectWrongUse({"graph", good, "--dot", "--mermaid"}, "cannot be combined");
    expectWrongUse({"render", good, "--json"}, "--json needs --profile");
    expectWrongUse({"compare", good, good, "--gain", "2"}, "--gain needs --difference");
    expectWrongUse({"compare", good, good, "--pixels-per-degree", "0.5"}, "0.5 is not a number from 1");
    expectWrongUse({"passes", "GradientPass"}, "did you mean \"GradientRenderPass\"? See \"qel passes\"");
    // Part of the name, a typing error in its part, a word of the summary, and what is in too many names.
    expectWrongUse({"passes", "forward"},
                   "did you mean \"ForwardRenderPass\" or \"ShadowedForwardRenderPass\"?");
    expectWrongUse({"passes", "Foward"}, "did you mean \"ForwardRenderPass\"?");
    expectWrongUse({"passes", "FXAA"}, "did you mean \"FastApproximateAntiAliasingRenderPass\"?");
    expectWrongUse({"passes", "Render"}, "no pass type \"Render\"; see \"qel passes\"");
    const auto expectWrongValues = [&](const QString& option, const QStringList& values,
                                       const QString& message) {
        for (const QString& value : values) {
            expectWrongUse({"render", good, option, value}, message);
        }
    };
    expectWrongValues("--frames", {"0", "1.5", "99999999999"}, "--frames");
    expectWrongValues("--size", {"0x10", "10x0", "10", "10x10x10", "axb", "99999999999x1"}, "--size");
    expectWrongValues("--camera", {"free"}, "unknown --camera \"free\"");
    expectWrongValues("--camera", {"graph"}, "the graph has no camera");
    expectWrongValues("--device", {"sofware"}, "unknown --device \"sofware\"; did you mean \"software\"?");
    expectWrongValues("--output", {"%d%d.png", "%s.png", "a%.png", "%-4d.png", "%4.2d.png"},
                      "only one number");
    expectWrongValues("--output", {"a.tiff"}, ".png or an .exr");
    expectWrongValues("--output", {path("none/a.png"), path("none/%d.png")}, "No such file");
    expectWrongValues("--set", {"sky"}, "PASS.PORT=VALUE");
    expectWrongValues("--set", {"sky.ColorTp=#ffffff", "sky.ColorTop=12"}, "sky.ColorT");
    expectWrongValues("--model", {path("none.obj")}, "qel: --model " + path("none.obj: no file"));
}

TEST_F(Usage, WrongGraphsFailInOneLine)
{
    expectWrongUse({"render", path("none.json")}, "none.json");
    expectWrongUse({"render", path({})}, path({}));
    const QStringList replacements[] = {
        // What is replaced in the good graph, by what, and the message.
        {"\"output\":", "\"output\"", "wrong.json:6:"},
        {"GradientRenderPass", "GradientPass",
         "wrong.json: sky: no pass type \"GradientPass\"; did you mean"},
        {"@sky.Frame", "@copy.Frame", "copy: cyclic"},
        {"\"outputs\"", "\"fragmentShader\": \"none.frag\", \"outputs\"", "none.frag"},
        {"\"output\":", "\"models\": {\"m\": \"none.obj\"}, \"output\":", "none.obj"}};
    for (const QStringList& replacement : replacements) {
        write("wrong.json", QString(passes).replace(replacement[0], replacement[1]));
        expectWrongUse({"render", path("wrong.json")}, replacement[2]);
    }
    expectWrongUse({"graph", path("wrong.json")}, "none.obj");
}

TEST_F(Usage, AGraphFromStandardInput)
{
    const auto graph = [&](const QString& text) {
        return runProgram({"graph", "-", "--dot"}, {"__EGL_VENDOR_LIBRARY_DIRS=" + path("empty")}, text);
    };
    EXPECT_TRUE(graph(passes).output.startsWith("digraph"));
    EXPECT_TRUE(graph("{\"passes\": [],}").isOneError("<stdin>:1:"));
    EXPECT_TRUE(graph(QString(passes).replace("GradientR", "R")).isOneError("<stdin>: sky: "));
}

TEST_F(Usage, CommandsWithoutADriver)
{
    for (const QStringList& arguments : {QStringList{"render", good, "--output", path("a.png")}, {"info"}}) {
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.exitCode, 3);
        EXPECT_TRUE(result.isOneError("no usable OpenGL")) << qPrintable(result.errors);
    }
    EXPECT_EQ(files("a.png"), QStringList());

    // The order and drawings of a graph need no driver.
    const ProgramResult order = run({"graph", good});
    EXPECT_EQ(order.exitCode, 0);
    EXPECT_LT(order.output.indexOf("sky  GradientRenderPass"),
              order.output.indexOf("copy  ShaderRenderPass"));
    EXPECT_TRUE(order.errors.contains("no usable OpenGL")) << qPrintable(order.errors);
    const ProgramResult dot = run({"graph", good, "--dot"});
    EXPECT_EQ(dot.exitCode, 0);
    EXPECT_EQ(dot.errors, QString());
    EXPECT_TRUE(dot.output.startsWith("digraph")) << qPrintable(dot.output);
    EXPECT_TRUE(dot.output.contains("pass0 -> pass1 [label=\"Frame to Input\"]")) << qPrintable(dot.output);
    const ProgramResult mermaid = run({"graph", good, "--mermaid"});
    EXPECT_TRUE(mermaid.output.contains("pass1 -->|\"Frame\"| image")) << qPrintable(mermaid.output);
}

} // namespace Morvane::Qel::Test
