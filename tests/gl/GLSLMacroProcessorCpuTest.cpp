#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <Qel/gl/GLSLMacroProcessor.h>

namespace Morvane::Qel {

namespace {

/// The composed lines that are not blank, each with the place that it is said to come from.
QStringList lines(const GLSLMacroProcessor::Result& result)
{
    QStringList described;
    const QStringList composed = result.source.split(u'\n');
    for (int i = 0; i < composed.size(); ++i) {
        if (!composed[i].trimmed().isEmpty()) {
            const auto origin = result.origin(i + 1);
            described.append(QStringLiteral("%1:%2 %3")
                                 .arg(QDir(result.files[origin.file]).dirName())
                                 .arg(origin.line)
                                 .arg(composed[i].trimmed()));
        }
    }
    return described;
}

std::string print(const QStringList& list)
{
    return list.join(u'\n').toStdString();
}

class GLSLMacroProcessorTest : public testing::Test
{
protected:
    QString write(const QString& name, const QByteArray& text)
    {
        QString path = m_folder.filePath(name);
        EXPECT_TRUE(QDir().mkpath(QFileInfo(path).path()));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
        return path;
    }
    void expectLines(const QString& source, const QStringList& expected)
    {
        const auto result = m_processor.process(source, QStringLiteral("main"));
        EXPECT_EQ(print(result.errors), "");
        EXPECT_EQ(print(lines(result)), print(expected));
    }

    QTemporaryDir m_folder;
    GLSLMacroProcessor m_processor;
};

TEST_F(GLSLMacroProcessorTest, IncludesOnceAndKeepsTrackOfLines)
{
    write(QStringLiteral("a/outer.glslh"),
          "// outer\n#include \"inner.glslh\"\nfloat outer();\n#include \"cycle.glslh\"\n");
    write(QStringLiteral("a/inner.glslh"), "#version 400\nfloat inner();");
    write(QStringLiteral("a/cycle.glslh"), "#include \"outer.glslh\"\nfloat cycle();\n");
    // Beside the including file comes first, then the paths in their order.
    write(QStringLiteral("b/inner.glslh"), "float wrongInner();\n");
    write(QStringLiteral("b/outer.glslh"), "float wrongOuter();\n");
    m_processor.addIncludePath(m_folder.filePath(QStringLiteral("a")));
    m_processor.addIncludePath(m_folder.filePath(QStringLiteral("b")));
    expectLines(QStringLiteral("#version 150\n"
                               "#include \"outer.glslh\" // again\n"
                               "#  include \"inner.glslh\"\n"
                               "void main() {}"),
                {
                    QStringLiteral("main:1 #version 150"),
                    QStringLiteral("outer.glslh:1 // outer"),
                    QStringLiteral("inner.glslh:2 float inner();"),
                    QStringLiteral("outer.glslh:3 float outer();"),
                    QStringLiteral("cycle.glslh:2 float cycle();"),
                    QStringLiteral("main:2 // again"),
                    QStringLiteral("main:4 void main() {}"),
                });
    // A source that is a file includes from its own folder, and itself never.
    const QString path = write(QStringLiteral("b/self.glsl"), "");
    const auto result =
        m_processor.process(QStringLiteral("#include \"self.glsl\"\n#include \"inner.glslh\"\n"), path);
    EXPECT_EQ(print(lines(result)), "inner.glslh:1 float wrongInner();");
}

TEST_F(GLSLMacroProcessorTest, LeavesCommentsAlone)
{
    write(QStringLiteral("x.glslh"), "float x;\n");
    m_processor.addIncludePath(m_folder.path());
    const QString untouched = QStringLiteral("// #include \"missing\"\n"
                                             "/* #include \"missing\"\n"
                                             "#instancedata \"missing\"\n"
                                             "// */ float y; // /*\n"
                                             "float z; #include \"missing\"\n");
    const auto result = m_processor.process(untouched, {});
    EXPECT_EQ(print(result.errors), "");
    EXPECT_EQ(result.source, untouched);
    // Comments that begin or end on a directive's line go on as before.
    expectLines(QStringLiteral("/* a\n*/ #include /* b */ \"x.glslh\" /*\n#include \"missing\"\n*/"),
                {
                    QStringLiteral("main:1 /* a"),
                    QStringLiteral("main:2 */"),
                    QStringLiteral("x.glslh:1 float x;"),
                    QStringLiteral("main:2 /*"),
                    QStringLiteral("main:3 #include \"missing\""),
                    QStringLiteral("main:4 */"),
                });
}

TEST_F(GLSLMacroProcessorTest, DefinesFollowTheVersion)
{
    m_processor.addDefine(QStringLiteral("A"), QStringLiteral("1"));
    m_processor.addDefine(QStringLiteral("B"), QStringLiteral("x y"));
    m_processor.addDefine(QStringLiteral("A"), QStringLiteral("2"));
    const QString a = QStringLiteral("defines:1 #define A 2");
    const QString b = QStringLiteral("defines:2 #define B x y");
    expectLines(QStringLiteral("// first\n\n#version 150 /* long\ncomment */\n# extension all : warn\n"
                               "// more\nint i;\n#extension X : enable\n"),
                {QStringLiteral("main:1 // first"), QStringLiteral("main:3 #version 150 /* long"),
                 QStringLiteral("main:4 comment */"), QStringLiteral("main:5 # extension all : warn"), a, b,
                 QStringLiteral("main:6 // more"), QStringLiteral("main:7 int i;"),
                 QStringLiteral("main:8 #extension X : enable")});
    expectLines(QStringLiteral("/* #version 150 */\nint i;"),
                {a, b, QStringLiteral("main:1 /* #version 150 */"), QStringLiteral("main:2 int i;")});
    expectLines(QStringLiteral("#version 150"), {QStringLiteral("main:1 #version 150"), a, b});
    expectLines({}, {a, b});
}

TEST_F(GLSLMacroProcessorTest, FollowsLineDirectivesOfTheSource)
{
    // Up to 1.50 the directive's own line gets the number, from 3.30 on the next one.
    expectLines(QStringLiteral("#version 150\n#line 10\nint i;\n"),
                {QStringLiteral("main:1 #version 150"), QStringLiteral("main:11 int i;")});
    expectLines(QStringLiteral("#version 400\n#line 10 3 // comment\nint i;\n"),
                {QStringLiteral("main:1 #version 400"), QStringLiteral("main:2 // comment"),
                 QStringLiteral("main:10 int i;")});
}

TEST_F(GLSLMacroProcessorTest, ReportsWhatItCannotResolve)
{
    const QString header = write(QStringLiteral("bad.glslh"), "\n#include \"nowhere.glslh\"\n");
    m_processor.addIncludePath(QStringLiteral("/no/such/folder"));
    const auto result = m_processor.process(
        QStringLiteral("#version 150\n#include <angle>\n#instancedata \"Nonsense\"\n#include \"%1\"\n")
            .arg(header),
        QStringLiteral("a.frag"));
    EXPECT_EQ(
        print(result.errors),
        print({
            QStringLiteral("a.frag:2: #include needs a name in double quotes"),
            QStringLiteral("a.frag:3: unknown instance-data plan \"Nonsense\"; known are \"InstanceInfo\", "
                           "\"OBJMaterial\", \"VeskInstance\""),
            QStringLiteral("%1:2: cannot find include \"nowhere.glslh\"; searched %2, /no/such/folder, "
                           ":/Media/Shaders")
                .arg(header, m_folder.path()),
        }));
}

TEST_F(GLSLMacroProcessorTest, FindsTheHostsFiles)
{
    EXPECT_EQ(m_processor.findFile(QStringLiteral("QelUtilities.glslc")),
              QStringLiteral(":/Media/Shaders/QelUtilities.glslc"));
    EXPECT_EQ(m_processor.findFile(QStringLiteral("Nothing.glslc")), QString());
    const auto result = m_processor.process(QStringLiteral("#include \"QelUtilities.glslh\"\n"
                                                           "#include \"QelUtilities.glslh\"\n"),
                                            QStringLiteral("main"));
    EXPECT_EQ(print(result.errors), "");
    EXPECT_EQ(result.source.count(QStringLiteral("vec2 directionToLatLong_Vesk(")), 1);
    // An own file of the name takes precedence.
    const QString own = write(QStringLiteral("QelUtilities.glslc"), "");
    m_processor.addIncludePath(m_folder.path());
    EXPECT_EQ(m_processor.findFile(QStringLiteral("QelUtilities.glslc")), own);
}

} // namespace

} // namespace Morvane::Qel
