#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <array>

#include <gtest/gtest.h>

#include "support/Program.h"

namespace Morvane::Qel::Test {

namespace {

const QString passes = QStringLiteral(R"({"passes": [
    {"name": "sky", "type": "GradientRenderPass"},
    {"name": "copy", "type": "ShaderRenderPass",
     "options": {"inputs": ["Qel_QelTexture*_Input"], "outputs": ["Qel_QelTexture*_Frame"]},
     "inputs": {"Input": "@sky.Frame"}}],
    "output": "@copy.Frame"})");

/// Wrong use is found before there is a GL context: no driver can be used here.
class Usage : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(QDir(m_folder.path()).mkdir(QStringLiteral("empty")));
        write(QStringLiteral("good.json"), passes);
    }

    QString path(const QString& name) const { return m_folder.filePath(name); }

    void write(const QString& name, const QString& text)
    {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text.toUtf8());
    }

    ProgramResult run(const QStringList& arguments)
    {
        return runProgram(arguments,
                          {QStringLiteral("__EGL_VENDOR_LIBRARY_DIRS=") + path(QStringLiteral("empty"))});
    }

    void expectWrongUse(const QStringList& arguments, const QString& message)
    {
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.exitCode, 2) << qPrintable(arguments.join(u' '));
        EXPECT_TRUE(result.isOneError(message)) << qPrintable(result.errors);
        EXPECT_EQ(result.output, QString());
    }

    /// A graph with one part of the good one replaced.
    void expectWrongGraph(const QString& part, const QString& replacement, const QString& message)
    {
        ASSERT_EQ(passes.count(part), 1) << qPrintable(part);
        write(QStringLiteral("wrong.json"), QString(passes).replace(part, replacement));
        expectWrongUse({QStringLiteral("render"), path(QStringLiteral("wrong.json"))}, message);
        const ProgramResult result = run({QStringLiteral("graph"), path(QStringLiteral("wrong.json"))});
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_TRUE(result.isOneError(message)) << qPrintable(result.errors);
    }

    QTemporaryDir m_folder;
};

} // namespace

TEST_F(Usage, HelpAndVersionGoToStandardOutput)
{
    const std::array<QStringList, 4> helps{QStringList{QStringLiteral("--help")},
                                           {QStringLiteral("render"), QStringLiteral("--help")},
                                           {QStringLiteral("compare"), QStringLiteral("--help")},
                                           {QStringLiteral("passes"), QStringLiteral("--help")}};
    for (const QStringList& arguments : helps) {
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.exitCode, 0);
        EXPECT_TRUE(result.output.startsWith(QStringLiteral("Usage: qel"))) << qPrintable(result.output);
        EXPECT_EQ(result.errors, QString());
    }
    EXPECT_TRUE(run({QStringLiteral("--version")}).output.startsWith(QStringLiteral("qel ")));
}

TEST_F(Usage, WrongArgumentsAreExplainedInOneLine)
{
    const QString good = path(QStringLiteral("good.json"));
    const auto render = [&](const QStringList& options) {
        return QStringList{QStringLiteral("render"), good} + options;
    };
    expectWrongUse({}, QStringLiteral("qel --help"));
    expectWrongUse({QStringLiteral("paint")}, QStringLiteral("unknown command \"paint\""));
    expectWrongUse({QStringLiteral("render")}, QStringLiteral("GRAPH is missing"));
    expectWrongUse({QStringLiteral("info"), QStringLiteral("more")},
                   QStringLiteral("unexpected argument \"more\""));
    expectWrongUse(render({QStringLiteral("--colour")}), QStringLiteral("colour"));
    expectWrongUse(render({QStringLiteral("--frames")}), QStringLiteral("frames"));
    for (const char* frames : {"0", "-3", "many", "1.5", "99999999999"}) {
        expectWrongUse(render({QStringLiteral("--frames"), QString::fromUtf8(frames)}),
                       QString::fromUtf8(frames));
    }
    for (const char* size : {"0x10", "10x0", "-4x4", "10", "10x10x10", "x", "axb", "99999999999x1"}) {
        expectWrongUse(render({QStringLiteral("--size"), QString::fromUtf8(size)}), QString::fromUtf8(size));
    }
    expectWrongUse(render({QStringLiteral("--device"), QStringLiteral("cpu")}),
                   QStringLiteral("no device \"cpu\""));
    for (const char* name : {"%d%d.png", "%s.png", "a%.png", "%x.png", "%", "%-4d.png", "%4.2d.png"}) {
        expectWrongUse(render({QStringLiteral("--output"), path(QString::fromUtf8(name))}),
                       QStringLiteral("only one number"));
    }
    expectWrongUse(render({QStringLiteral("--output"), path(QStringLiteral("a.tiff"))}),
                   QStringLiteral(".png or an .exr"));
    expectWrongUse(render({QStringLiteral("--output"), path(QStringLiteral("none/a.png"))}),
                   QStringLiteral("No such file"));
    expectWrongUse(render({QStringLiteral("--output"), path(QStringLiteral("none/%d.png"))}),
                   QStringLiteral("No such file"));
    expectWrongUse(render({QStringLiteral("--set"), QStringLiteral("sky")}),
                   QStringLiteral("PASS.PORT=VALUE"));
    expectWrongUse(render({QStringLiteral("--set"), QStringLiteral("sk.ColorTop=#ffffff")}),
                   QStringLiteral("did you mean \"sky\""));
    expectWrongUse(render({QStringLiteral("--set"), QStringLiteral("sky.ColorTp=#ffffff")}),
                   QStringLiteral("did you mean \"ColorTop\""));
    expectWrongUse(render({QStringLiteral("--set"), QStringLiteral("sky.ColorTop=12")}),
                   QStringLiteral("sky.ColorTop"));
    expectWrongUse(render({QStringLiteral("--model"), path(QStringLiteral("none.obj"))}),
                   QStringLiteral("none.obj"));
    expectWrongUse({QStringLiteral("graph"), good, QStringLiteral("--dot"), QStringLiteral("--mermaid")},
                   QStringLiteral("exclude each other"));
    expectWrongUse({QStringLiteral("passes"), QStringLiteral("GradientPass")},
                   QStringLiteral("did you mean \"GradientRenderPass\""));
}

TEST_F(Usage, WrongGraphsAreExplainedInOneLine)
{
    expectWrongUse({QStringLiteral("render"), path(QStringLiteral("none.json"))},
                   QStringLiteral("none.json"));
    expectWrongUse({QStringLiteral("render"), m_folder.path()}, m_folder.path());
    write(QStringLiteral("broken.json"), QStringLiteral("{\"passes\": [\n  {\"name\": }]}"));
    expectWrongUse({QStringLiteral("render"), path(QStringLiteral("broken.json"))},
                   QStringLiteral("broken.json:2:"));
    expectWrongGraph(
        QStringLiteral("GradientRenderPass"), QStringLiteral("GradientPass"),
        QStringLiteral(
            "wrong.json: sky: no pass type \"GradientPass\"; did you mean \"GradientRenderPass\""));
    expectWrongGraph(QStringLiteral("@sky.Frame"), QStringLiteral("@skye.Frame"),
                     QStringLiteral("copy.Input: no pass \"skye\"; did you mean \"sky\""));
    expectWrongGraph(QStringLiteral("@sky.Frame"), QStringLiteral("@sky.Fram"),
                     QStringLiteral("did you mean \"Frame\""));
    expectWrongGraph(QStringLiteral("\"Input\": "), QStringLiteral("\"Inputs\": "),
                     QStringLiteral("copy.Inputs: "));
    expectWrongGraph(QStringLiteral("@sky.Frame"), QStringLiteral("@copy.Frame"), QStringLiteral("copy"));
    expectWrongGraph(QStringLiteral("Texture*_Input"), QStringLiteral("GPUModel*_Input"),
                     QStringLiteral("copy.Input"));
    expectWrongGraph(QStringLiteral("\"outputs\""),
                     QStringLiteral("\"fragmentShader\": \"none.frag\", \"outputs\""),
                     QStringLiteral("none.frag"));
    expectWrongGraph(QStringLiteral("\"output\":"), QStringLiteral("\"viewport\": [0, 720], \"output\":"),
                     QStringLiteral("viewport"));
    expectWrongGraph(QStringLiteral("\"output\":"),
                     QStringLiteral("\"models\": {\"m\": \"none.obj\"}, \"output\":"),
                     QStringLiteral("none.obj"));
}

TEST_F(Usage, WithoutDriverTheProgramSaysSo)
{
    const QString good = path(QStringLiteral("good.json"));
    const QString picture = path(QStringLiteral("a.png"));
    for (const QStringList& arguments :
         {QStringList{QStringLiteral("render"), good, QStringLiteral("--output"), picture},
          QStringList{QStringLiteral("info")}}) {
        const ProgramResult result = run(arguments);
        EXPECT_EQ(result.exitCode, 3);
        EXPECT_TRUE(result.isOneError(QStringLiteral("no usable OpenGL"))) << qPrintable(result.errors);
    }
    EXPECT_FALSE(QFile::exists(picture));

    // What needs no driver works.
    const ProgramResult order = run({QStringLiteral("graph"), good});
    EXPECT_EQ(order.exitCode, 0);
    EXPECT_LT(order.output.indexOf(QStringLiteral("sky  GradientRenderPass")),
              order.output.indexOf(QStringLiteral("copy  ShaderRenderPass")));
    EXPECT_TRUE(order.errors.contains(QStringLiteral("no usable OpenGL"))) << qPrintable(order.errors);
    const ProgramResult dot = run({QStringLiteral("graph"), good, QStringLiteral("--dot")});
    EXPECT_EQ(dot.exitCode, 0);
    EXPECT_EQ(dot.errors, QString());
    EXPECT_TRUE(dot.output.startsWith(QStringLiteral("digraph"))) << qPrintable(dot.output);
    EXPECT_TRUE(dot.output.contains(QStringLiteral("pass0 -> pass1 [label=\"Frame to Input\"]")))
        << qPrintable(dot.output);
    const ProgramResult mermaid = run({QStringLiteral("graph"), good, QStringLiteral("--mermaid")});
    EXPECT_TRUE(mermaid.output.contains(QStringLiteral("pass1 -->|\"Frame\"| picture")))
        << qPrintable(mermaid.output);
}

} // namespace Morvane::Qel::Test
