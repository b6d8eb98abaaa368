#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Qel/gl/GLSLMacroProcessor.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Readable in a failure, unlike a QStringList.
using Lines = std::vector<std::string>;

/// The composed lines that are not blank, each after the file and line it comes from.
Lines lines(const GLSLMacroProcessor::Result& result)
{
    Lines described;
    const QStringList composed = result.source.split(u'\n');
    for (int i = 0; i < composed.size(); ++i) {
        if (!composed[i].trimmed().isEmpty()) {
            const auto origin = result.origin(i + 1);
            described.push_back(u"%1:%2 %3"_s.arg(QDir(result.files[origin.file]).dirName())
                                    .arg(origin.line)
                                    .arg(composed[i].trimmed())
                                    .toStdString());
        }
    }
    return described;
}

Lines errors(const GLSLMacroProcessor::Result& result)
{
    Lines messages;
    for (const QString& message : result.errors) {
        messages.push_back(message.toStdString());
    }
    return messages;
}

class GLSLMacroProcessorTest : public testing::Test
{
protected:
    QString write(const QString& name, const QByteArray& text)
    {
        QString path = m_folder.filePath(name);
        QDir(m_folder.path()).mkpath(QFileInfo(path).path());
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
        return path;
    }
    void expectLines(const QString& source, const Lines& expected)
    {
        const auto result = m_processor.process(source, u"main"_s);
        EXPECT_EQ(errors(result), Lines());
        EXPECT_EQ(lines(result), expected);
    }

    QTemporaryDir m_folder;
    GLSLMacroProcessor m_processor;
};

TEST_F(GLSLMacroProcessorTest, IncludesEachFileOnceAndMapsLines)
{
    write(u"a/outer.glslh"_s,
          "// outer\n#include \"inner.glslh\"\nfloat outer();\n#include \"cycle.glslh\"\n");
    write(u"a/inner.glslh"_s, "#version 400\nfloat inner();");
    write(u"a/cycle.glslh"_s, "#include \"outer.glslh\"\nfloat cycle();\n");
    // The folder of the including file comes first, then the paths in their order.
    write(u"b/inner.glslh"_s, "float wrongInner();\n");
    write(u"b/outer.glslh"_s, "float wrongOuter();\n");
    m_processor.addIncludePath(m_folder.filePath(u"a"_s));
    m_processor.addIncludePath(m_folder.filePath(u"b"_s));
    expectLines(
        u"#version 150\n#include \"outer.glslh\" // again\n#  include \"inner.glslh\"\nvoid main() {}"_s,
        {"main:1 #version 150", "outer.glslh:1 // outer", "inner.glslh:2 float inner();",
         "outer.glslh:3 float outer();", "cycle.glslh:2 float cycle();", "main:2 // again",
         "main:4 void main() {}"});
    // A source that is a file includes from its own folder, but never itself.
    const QString path = write(u"b/self.glsl"_s, "");
    const auto result = m_processor.process(u"#include \"self.glsl\"\n#include \"inner.glslh\"\n"_s, path);
    EXPECT_EQ(lines(result), Lines{"inner.glslh:1 float wrongInner();"});
}

TEST_F(GLSLMacroProcessorTest, IgnoresDirectivesInComments)
{
    write(u"x.glslh"_s, "float x;\n");
    m_processor.addIncludePath(m_folder.path());
    const QString untouched = u"// #include \"missing\"\n"
                              "/* #include \"missing\"\n"
                              "#instancedata \"missing\"\n"
                              "// */ float y; // /*\n"
                              "float z; #include \"missing\"\n"_s;
    const auto result = m_processor.process(untouched, {});
    EXPECT_EQ(errors(result), Lines());
    EXPECT_EQ(result.source, untouched);
    // Comments that begin or end on the line of a directive stay.
    expectLines(u"/* a\n*/ #include /* b */ \"x.glslh\" /*\n#include \"missing\"\n*/"_s,
                {"main:1 /* a", "main:2 */", "x.glslh:1 float x;", "main:2 /*", "main:3 #include \"missing\"",
                 "main:4 */"});
}

TEST_F(GLSLMacroProcessorTest, InsertsDefinesAfterTheVersion)
{
    m_processor.addDefine(u"A"_s, u"1"_s);
    m_processor.addDefine(u"B"_s, u"x y"_s);
    m_processor.addDefine(u"A"_s, u"2"_s);
    const std::string a = "defines:1 #define A 2";
    const std::string b = "defines:2 #define B x y";
    expectLines(u"// first\n\n#version 150 /* long\ncomment */\n# extension all : warn\n"
                "// more\nint i;\n#extension X : enable\n"_s,
                {"main:1 // first", "main:3 #version 150 /* long", "main:4 comment */",
                 "main:5 # extension all : warn", a, b, "main:6 // more", "main:7 int i;",
                 "main:8 #extension X : enable"});
    expectLines(u"/* #version 150 */\nint i;"_s, {a, b, "main:1 /* #version 150 */", "main:2 int i;"});
    expectLines(u"#version 150"_s, {"main:1 #version 150", a, b});
    expectLines({}, {a, b});
}

TEST_F(GLSLMacroProcessorTest, AppliesLineDirectives)
{
    // Up to 1.50 the directive numbers its own line, from 3.30 on the next one.
    expectLines(u"#version 150\n#line 10\nint i;\n"_s, {"main:1 #version 150", "main:11 int i;"});
    expectLines(u"#version 400\n#line 10 3 // comment\nint i;\n"_s,
                {"main:1 #version 400", "main:2 // comment", "main:10 int i;"});
}

TEST_F(GLSLMacroProcessorTest, InsertsPrototypesAndReportsUnresolvedDirectives)
{
    const QString header = write(u"bad.glslh"_s, "\n#include \"nowhere.glslh\"\n");
    m_processor.addIncludePath(u"/no/such/folder"_s);
    const auto result = m_processor.process(u"#version 150\n#include <angle>\n#instancedata \"Nonsense\"\n"
                                            "#include \"%1\"\n#instancedata \"B\" // b\n"_s.arg(header),
                                            u"a.frag"_s, {{u"A"_s, u"int a();"_s}, {u"B"_s, u"int b();"_s}});
    EXPECT_EQ(errors(result),
              (Lines{"a.frag:2: #include needs a name in double quotes",
                     "a.frag:3: unknown instance-data plan \"Nonsense\"; known are \"A\", \"B\"",
                     u"%1:2: cannot find include \"nowhere.glslh\"; searched %2, /no/such/folder, "
                     ":/Media/Shaders"_s.arg(header, m_folder.path())
                         .toStdString()}));
    EXPECT_EQ(lines(result).back(), "a.frag:5 int b(); // b");
}

TEST_F(GLSLMacroProcessorTest, FindsTheLibrarysFiles)
{
    EXPECT_EQ(m_processor.findFile(u"QelUtilities.glslc"_s), u":/Media/Shaders/QelUtilities.glslc"_s);
    EXPECT_EQ(m_processor.findFile(u"Nothing.glslc"_s), QString());
    // A file of that name in an include path takes precedence.
    const QString own = write(u"QelUtilities.glslc"_s, "");
    m_processor.addIncludePath(m_folder.path());
    EXPECT_EQ(m_processor.findFile(u"QelUtilities.glslc"_s), own);
}

} // namespace

} // namespace Morvane::Qel
