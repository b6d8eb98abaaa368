#include <QFileInfo>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Qel/gl/GLSLMacroProcessor.h>

#include "support/Folder.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

/// Readable in a failure, unlike a QStringList.
using Lines = std::vector<std::string>;

/// The composed lines that are not blank, each after the file and line it comes from.
Lines lines(const GLSLMacroProcessor::Result& result)
{
    Lines described;
    const QStringList composed = result.source.split(u'\n');
    for (int i = 0; i < composed.size(); ++i) {
        if (const QString text = composed[i].trimmed(); !text.isEmpty()) {
            const auto [file, line] = result.origin(i + 1);
            const QString name = QFileInfo(result.files[file]).fileName();
            described.push_back(u"%1:%2 %3"_s.arg(name).arg(line).arg(text).toStdString());
        }
    }
    return described;
}

struct GLSLMacroProcessorTest : testing::Test
{
    void expectLines(const QString& source, const Lines& expected)
    {
        const auto result = processor.process(source, u"main"_s);
        EXPECT_EQ(result.errors, QStringList());
        EXPECT_EQ(lines(result), expected);
    }

    Folder folder;
    GLSLMacroProcessor processor;
};

TEST_F(GLSLMacroProcessorTest, IncludesEachFileOnceAndMapsLines)
{
    const Folder other;
    folder.write(u"outer.glslh"_s,
                 u"// outer\n#include \"inner.glslh\"\nfloat outer();\n#include \"cycle.glslh\"\n"_s);
    folder.write(u"inner.glslh"_s, u"#version 400\nfloat inner();"_s);
    folder.write(u"cycle.glslh"_s, u"#include \"outer.glslh\"\nfloat cycle();\n"_s);
    // The folder of the including file comes first, then the paths in their order.
    other.write(u"inner.glslh"_s, u"float wrongInner();\n"_s);
    other.write(u"outer.glslh"_s, u"float wrongOuter();\n"_s);
    processor.addIncludePath(folder.path({}));
    processor.addIncludePath(other.path({}));
    expectLines(
        u"#version 150\n#include \"outer.glslh\" // again\n#  include \"inner.glslh\"\nvoid main() {}"_s,
        {"main:1 #version 150", "outer.glslh:1 // outer", "inner.glslh:2 float inner();",
         "outer.glslh:3 float outer();", "cycle.glslh:2 float cycle();", "main:2 // again",
         "main:4 void main() {}"});
    // A source that is a file includes from its own folder, but never itself.
    other.write(u"self.glsl"_s, {});
    const auto result = processor.process(u"#include \"self.glsl\"\n#include \"inner.glslh\"\n"_s,
                                          other.path(u"self.glsl"_s));
    EXPECT_EQ(lines(result), Lines{"inner.glslh:1 float wrongInner();"});
}

TEST_F(GLSLMacroProcessorTest, IgnoresDirectivesInComments)
{
    folder.write(u"x.glslh"_s, u"float x;\n"_s);
    processor.addIncludePath(folder.path({}));
    const QString untouched = u"// #include \"missing\"\n"
                              "/* #include \"missing\"\n"
                              "#instancedata \"missing\"\n"
                              "// */ float y; // /*\n"
                              "float z; #include \"missing\"\n"_s;
    EXPECT_EQ(processor.process(untouched, {}).source, untouched);
    // Comments that begin or end on the line of a directive stay.
    expectLines(u"/* a\n*/ #include /* b */ \"x.glslh\" /*\n#include \"missing\"\n*/"_s,
                {"main:1 /* a", "main:2 */", "x.glslh:1 float x;", "main:2 /*", "main:3 #include \"missing\"",
                 "main:4 */"});
}

TEST_F(GLSLMacroProcessorTest, InsertsDefinesAfterTheVersion)
{
    processor.addDefine(u"A"_s, u"1"_s);
    processor.addDefine(u"B"_s, u"x y"_s);
    processor.addDefine(u"A"_s, u"2"_s);
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
    folder.write(u"bad.glslh"_s, u"\n#include \"nowhere.glslh\"\n"_s);
    const QString header = folder.path(u"bad.glslh"_s);
    processor.addIncludePath(u"/no/such/folder"_s);
    const auto result = processor.process(u"#version 150\n#include <angle>\n#instancedata \"Nonsense\"\n"
                                          "#include \"%1\"\n#instancedata \"B\" // b\n"_s.arg(header),
                                          u"a.frag"_s, {{u"A"_s, u"int a();"_s}, {u"B"_s, u"int b();"_s}});
    const QString searched = QFileInfo(header).path() + u", /no/such/folder, :/Media/Shaders"_s;
    EXPECT_EQ(
        result.errors,
        QStringList({u"a.frag:2: #include needs a name in double quotes"_s,
                     u"a.frag:3: unknown instance-data plan \"Nonsense\"; known are \"A\", \"B\""_s,
                     u"%1:2: cannot find include \"nowhere.glslh\"; searched %2"_s.arg(header, searched)}));
    EXPECT_EQ(lines(result).back(), "a.frag:5 int b(); // b");
}

TEST_F(GLSLMacroProcessorTest, PrefersFilesOfTheIncludePathsToTheLibrarys)
{
    const QString name = u"QelUtilities.glslc"_s;
    EXPECT_EQ(processor.findFile(name), u":/Media/Shaders/QelUtilities.glslc"_s);
    EXPECT_EQ(processor.findFile(u"Nothing.glslc"_s), QString());
    folder.write(name, {});
    processor.addIncludePath(folder.path({}));
    EXPECT_EQ(processor.findFile(name), folder.path(name));
}

} // namespace

} // namespace Morvane::Qel::Test
