#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

#include <Qel/graph/PassRegistry.h>

#include "support/Program.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

TEST(PassesCommand, JsonHasThePortsInOrderWithTypesAndDefaults)
{
    const auto json = [](const QStringList& arguments) {
        return QJsonDocument::fromJson(runProgram(QStringList(u"passes"_s) + arguments).output.toUtf8());
    };
    const auto expected = QJsonDocument::fromJson(R"([{"type": "GradientRenderPass",
        "inputs": [{"name": "Qel_QRect_Viewport", "type": "QRect", "default": null},
                   {"name": "Qel_QColor_ColorTop", "type": "QColor", "default": "#404040"},
                   {"name": "Qel_QColor_ColorBottom", "type": "QColor", "default": "#999999"}],
        "outputs": [{"name": "Qel_QelTexture*_Frame", "type": "QelTexture*"}]}])");
    EXPECT_EQ(json({u"GradientRenderPass"_s, u"--json"_s}), expected);
    const QJsonArray passes = json({u"--json"_s}).array();
    EXPECT_EQ(passes.size(), PassRegistry::builtin().types().size());
    EXPECT_TRUE(passes.contains(expected[0]));
}

TEST(PassesCommand, TextAndMarkdownDescribeEveryPort)
{
    const QString list = runProgram({u"passes"_s}).output;
    const QString manual = runProgram({u"passes"_s, u"--markdown"_s}).output;
    for (const QString& type : PassRegistry::builtin().types()) {
        const PassDescription& pass = *PassRegistry::builtin().description(type);
        const QString details = runProgram({u"passes"_s, type}).output;
        const QString section = manual.section(u"\n## %1\n"_s.arg(type), 1).section(u"\n## "_s, 0, 0);
        const auto expectPort = [&](const QString& name, const QString& meaning) {
            EXPECT_TRUE(details.contains(meaning)) << qPrintable(name);
            EXPECT_TRUE(section.contains(u"| `%1` |"_s.arg(name))) << qPrintable(name);
        };
        EXPECT_TRUE(list.contains(type + u": "_s)) << qPrintable(type);
        for (const InputDescription& input : pass.inputs) {
            expectPort(input.name, input.meaning);
            EXPECT_TRUE(section.contains(input.whenMissing)) << qPrintable(input.name);
        }
        for (const OutputDescription& output : pass.outputs) {
            expectPort(output.name, output.meaning);
        }
        // Every row of a table has as many cells as its heading.
        qsizetype numCells = 0;
        for (const QString& line : section.split(u'\n')) {
            const qsizetype bars = line.count(u'|') - line.count(u"\\|"_s);
            EXPECT_TRUE(bars == 0 || numCells == 0 || bars == numCells) << qPrintable(line);
            numCells = bars;
        }
    }
}

} // namespace Morvane::Qel::Test
