#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <Qel/gl/GLSLMacroProcessor.h>

using namespace Qt::StringLiterals;

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
            described.append(u"%1:%2 %3"_s.arg(QDir(result.files[origin.file]).dirName())
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
        const auto result = m_processor.process(source, u"main"_s);
        EXPECT_EQ(print(result.errors), "");
        EXPECT_EQ(print(lines(result)), print(expected));
    }

    QTemporaryDir m_folder;
    GLSLMacroProcessor m_processor;
};

TEST_F(GLSLMacroProcessorTest, IncludesOnceAndKeepsTrackOfLines)
{
    write(u"a/outer.glslh"_s,
          "// outer\n#include \"inner.glslh\"\nfloat outer();\n#include \"cycle.glslh\"\n");
    write(u"a/inner.glslh"_s, "#version 400\nfloat inner();");
    write(u"a/cycle.glslh"_s, "#include \"outer.glslh\"\nfloat cycle();\n");
    // Beside the including file comes first, then the paths in their order.
    write(u"b/inner.glslh"_s, "float wrongInner();\n");
    write(u"b/outer.glslh"_s, "float wrongOuter();\n");
    m_processor.addIncludePath(m_folder.filePath(u"a"_s));
    m_processor.addIncludePath(m_folder.filePath(u"b"_s));
    expectLines(u"#version 150\n"
                "#include \"outer.glslh\" // again\n"
                "#  include \"inner.glslh\"\n"
                "void main() {}"_s,
                {
                    u"main:1 #version 150"_s,
                    u"outer.glslh:1 // outer"_s,
                    u"inner.glslh:2 float inner();"_s,
                    u"outer.glslh:3 float outer();"_s,
                    u"cycle.glslh:2 float cycle();"_s,
                    u"main:2 // again"_s,
                    u"main:4 void main() {}"_s,
                });
    // A source that is a file includes from its own folder, and itself never.
    const QString path = write(u"b/self.glsl"_s, "");
    const auto result = m_processor.process(u"#include \"self.glsl\"\n#include \"inner.glslh\"\n"_s, path);
    EXPECT_EQ(print(lines(result)), "inner.glslh:1 float wrongInner();");
}

TEST_F(GLSLMacroProcessorTest, LeavesCommentsAlone)
{
    write(u"x.glslh"_s, "float x;\n");
    m_processor.addIncludePath(m_folder.path());
    const QString untouched = u"// #include \"missing\"\n"
                              "/* #include \"missing\"\n"
                              "#instancedata \"missing\"\n"
                              "// */ float y; // /*\n"
                              "float z; #include \"missing\"\n"_s;
    const auto result = m_processor.process(untouched, {});
    EXPECT_EQ(print(result.errors), "");
    EXPECT_EQ(result.source, untouched);
    // Comments that begin or end on a directive's line go on as before.
    expectLines(u"/* a\n*/ #include /* b */ \"x.glslh\" /*\n#include \"missing\"\n*/"_s,
                {
                    u"main:1 /* a"_s,
                    u"main:2 */"_s,
                    u"x.glslh:1 float x;"_s,
                    u"main:2 /*"_s,
                    u"main:3 #include \"missing\""_s,
                    u"main:4 */"_s,
                });
}

TEST_F(GLSLMacroProcessorTest, DefinesFollowTheVersion)
{
    m_processor.addDefine(u"A"_s, u"1"_s);
    m_processor.addDefine(u"B"_s, u"x y"_s);
    m_processor.addDefine(u"A"_s, u"2"_s);
    const QString a = u"defines:1 #define A 2"_s;
    const QString b = u"defines:2 #define B x y"_s;
    expectLines(u"// first\n\n#version 150 /* long\ncomment */\n# extension all : warn\n"
                "// more\nint i;\n#extension X : enable\n"_s,
                {u"main:1 // first"_s, u"main:3 #version 150 /* long"_s, u"main:4 comment */"_s,
                 u"main:5 # extension all : warn"_s, a, b, u"main:6 // more"_s, u"main:7 int i;"_s,
                 u"main:8 #extension X : enable"_s});
    expectLines(u"/* #version 150 */\nint i;"_s, {a, b, u"main:1 /* #version 150 */"_s, u"main:2 int i;"_s});
    expectLines(u"#version 150"_s, {u"main:1 #version 150"_s, a, b});
    expectLines({}, {a, b});
}

TEST_F(GLSLMacroProcessorTest, FollowsLineDirectivesOfTheSource)
{
    // Up to 1.50 the directive's own line gets the number, from 3.30 on the next one.
    expectLines(u"#version 150\n#line 10\nint i;\n"_s, {u"main:1 #version 150"_s, u"main:11 int i;"_s});
    expectLines(u"#version 400\n#line 10 3 // comment\nint i;\n"_s,
                {u"main:1 #version 400"_s, u"main:2 // comment"_s, u"main:10 int i;"_s});
}

TEST_F(GLSLMacroProcessorTest, ReportsWhatItCannotResolve)
{
    const QString header = write(u"bad.glslh"_s, "\n#include \"nowhere.glslh\"\n");
    m_processor.addIncludePath(u"/no/such/folder"_s);
    const auto result = m_processor.process(
        u"#version 150\n#include <angle>\n#instancedata \"Nonsense\"\n#include \"%1\"\n"_s.arg(header),
        u"a.frag"_s);
    EXPECT_EQ(print(result.errors),
              print({
                  u"a.frag:2: #include needs a name in double quotes"_s,
                  u"a.frag:3: unknown instance-data plan \"Nonsense\"; known are \"InstanceInfo\", "
                  "\"OBJMaterial\", \"VeskInstance\""_s,
                  u"%1:2: cannot find include \"nowhere.glslh\"; searched %2, /no/such/folder, "
                  ":/Media/Shaders"_s.arg(header, m_folder.path()),
              }));
}

TEST_F(GLSLMacroProcessorTest, FindsTheHostsFiles)
{
    EXPECT_EQ(m_processor.findFile(u"QelUtilities.glslc"_s), u":/Media/Shaders/QelUtilities.glslc"_s);
    EXPECT_EQ(m_processor.findFile(u"Nothing.glslc"_s), QString());
    const auto result = m_processor.process(u"#include \"QelUtilities.glslh\"\n"
                                            "#include \"QelUtilities.glslh\"\n"_s,
                                            u"main"_s);
    EXPECT_EQ(print(result.errors), "");
    EXPECT_EQ(result.source.count(u"vec2 directionToLatLong_Vesk("_s), 1);
    // An own file of the name takes precedence.
    const QString own = write(u"QelUtilities.glslc"_s, "");
    m_processor.addIncludePath(m_folder.path());
    EXPECT_EQ(m_processor.findFile(u"QelUtilities.glslc"_s), own);
}

} // namespace

} // namespace Morvane::Qel
