#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include "support/Folder.h"
#include "support/Program.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

const QString passes = uR"({"passes": [
    {"name": "sky", "type": "GradientRenderPass"},
    {"name": "copy", "type": "ShaderRenderPass",
     "options": {"inputs": ["Qel_QelTexture*_Input"], "outputs": ["Qel_QelTexture*_Frame"]},
     "inputs": {"Input": "@sky.Frame"}}],
    "output": "@copy.Frame"})"_s;

/// Runs the program without any GL driver: wrong use is reported before there is a context.
class Usage : public testing::Test, protected Folder
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(QDir().mkdir(path(u"empty"_s)));
        write(u"good.json"_s, passes);
    }

    ProgramResult run(const QStringList& arguments)
    {
        return runProgram(arguments, {u"__EGL_VENDOR_LIBRARY_DIRS="_s + path(u"empty"_s)});
    }

    void expectWrongUse(const QStringList& arguments, const QString& message)
    {
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.exitCode, 2) << qPrintable(arguments.join(u' '));
        EXPECT_TRUE(result.isOneError(message)) << qPrintable(result.errors);
        EXPECT_EQ(result.output, QString());
    }

    /// Replaces one part of the good graph.
    void expectWrongGraph(const QString& part, const QString& replacement, const QString& message)
    {
        ASSERT_EQ(passes.count(part), 1) << qPrintable(part);
        write(u"wrong.json"_s, QString(passes).replace(part, replacement));
        expectWrongUse({u"render"_s, path(u"wrong.json"_s)}, message);
    }
};

} // namespace

TEST_F(Usage, HelpAndVersionGoToStandardOutput)
{
    for (const char* command : {"", "render", "passes", "graph", "compare", "info"}) {
        const QStringList arguments =
            QString::fromUtf8(command).split(u' ', Qt::SkipEmptyParts) + QStringList(u"--help"_s);
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_TRUE(result.output.startsWith(u"Usage: qel"_s)) << qPrintable(result.output);
        EXPECT_EQ(result.errors, QString());
    }
    EXPECT_TRUE(run({u"--version"_s}).output.startsWith(u"qel "_s));
}

TEST_F(Usage, WrongArgumentsFailInOneLine)
{
    const QString good = path(u"good.json"_s);
    const auto expectWrong = [&](const QString& option, const QStringList& values,
                                 const QString& message = {}) {
        for (const QString& value : values) {
            expectWrongUse({u"render"_s, good, option, value}, message.isEmpty() ? value : message);
        }
    };
    expectWrongUse({}, u"qel --help"_s);
    expectWrongUse({u"paint"_s}, u"unknown command \"paint\""_s);
    expectWrongUse({u"render"_s}, u"GRAPH is missing"_s);
    expectWrongUse({u"info"_s, u"more"_s}, u"unexpected argument \"more\""_s);
    expectWrongUse({u"render"_s, good, u"--colour"_s}, u"colour"_s);
    expectWrongUse({u"render"_s, good, u"--frames"_s}, u"frames"_s);
    expectWrong(u"--frames"_s, {u"0"_s, u"-3"_s, u"1.5"_s, u"99999999999"_s});
    expectWrong(u"--size"_s,
                {u"0x10"_s, u"10x0"_s, u"-4x4"_s, u"10"_s, u"10x10x10"_s, u"axb"_s, u"99999999999x1"_s});
    expectWrong(u"--device"_s, {u"cpu"_s}, u"no device \"cpu\""_s);
    for (const char* name : {"%d%d.png", "%s.png", "a%.png", "%-4d.png", "%4.2d.png"}) {
        expectWrong(u"--output"_s, {path(QString::fromUtf8(name))}, u"only one number"_s);
    }
    expectWrong(u"--output"_s, {path(u"a.tiff"_s)}, u".png or an .exr"_s);
    expectWrong(u"--output"_s, {path(u"none/a.png"_s), path(u"none/%d.png"_s)}, u"No such file"_s);
    expectWrong(u"--set"_s, {u"sky"_s}, u"PASS.PORT=VALUE"_s);
    expectWrong(u"--set"_s, {u"sk.ColorTop=#ffffff"_s}, u"did you mean \"sky\""_s);
    expectWrong(u"--set"_s, {u"sky.ColorTp=#ffffff"_s}, u"did you mean \"ColorTop\""_s);
    expectWrong(u"--set"_s, {u"sky.ColorTop=12"_s}, u"sky.ColorTop"_s);
    expectWrong(u"--model"_s, {path(u"none.obj"_s)}, u"none.obj"_s);
    expectWrongUse({u"graph"_s, good, u"--dot"_s, u"--mermaid"_s}, u"cannot be combined"_s);
    expectWrongUse({u"passes"_s, u"GradientPass"_s}, u"did you mean \"GradientRenderPass\""_s);
}

TEST_F(Usage, WrongGraphsFailInOneLine)
{
    expectWrongUse({u"render"_s, path(u"none.json"_s)}, u"none.json"_s);
    expectWrongUse({u"render"_s, path({})}, path({}));
    write(u"broken.json"_s, u"{\"passes\": [\n  {\"name\": }]}"_s);
    expectWrongUse({u"render"_s, path(u"broken.json"_s)}, u"broken.json:2:"_s);
    expectWrongGraph(
        u"GradientRenderPass"_s, u"GradientPass"_s,
        u"wrong.json: sky: no pass type \"GradientPass\"; did you mean \"GradientRenderPass\""_s);
    expectWrongUse({u"graph"_s, path(u"wrong.json"_s)}, u"wrong.json: sky: "_s);
    expectWrongGraph(u"@sky.Frame"_s, u"@copy.Frame"_s, u"copy"_s);
    expectWrongGraph(u"\"outputs\""_s, u"\"fragmentShader\": \"none.frag\", \"outputs\""_s, u"none.frag"_s);
    expectWrongGraph(u"\"output\":"_s, u"\"models\": {\"m\": \"none.obj\"}, \"output\":"_s, u"none.obj"_s);
}

TEST_F(Usage, CommandsWithoutADriver)
{
    const QString good = path(u"good.json"_s);
    const QString picture = path(u"a.png"_s);
    for (const QStringList& arguments :
         {QStringList{u"render"_s, good, u"--output"_s, picture}, QStringList{u"info"_s}}) {
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.exitCode, 3);
        EXPECT_TRUE(result.isOneError(u"no usable OpenGL"_s)) << qPrintable(result.errors);
    }
    EXPECT_FALSE(QFile::exists(picture));

    // The order and drawings of a graph need no driver.
    const ProgramResult order = run({u"graph"_s, good});
    EXPECT_EQ(order.exitCode, 0);
    EXPECT_LT(order.output.indexOf(u"sky  GradientRenderPass"_s),
              order.output.indexOf(u"copy  ShaderRenderPass"_s));
    EXPECT_TRUE(order.errors.contains(u"no usable OpenGL"_s)) << qPrintable(order.errors);
    const ProgramResult dot = run({u"graph"_s, good, u"--dot"_s});
    EXPECT_EQ(dot.exitCode, 0);
    EXPECT_EQ(dot.errors, QString());
    EXPECT_TRUE(dot.output.startsWith(u"digraph"_s)) << qPrintable(dot.output);
    EXPECT_TRUE(dot.output.contains(u"pass0 -> pass1 [label=\"Frame to Input\"]"_s))
        << qPrintable(dot.output);
    const ProgramResult mermaid = run({u"graph"_s, good, u"--mermaid"_s});
    EXPECT_TRUE(mermaid.output.contains(u"pass1 -->|\"Frame\"| image"_s)) << qPrintable(mermaid.output);
}

} // namespace Morvane::Qel::Test
