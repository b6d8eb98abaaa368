#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <Qel/graph/PassRegistry.h>

#include "support/Program.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

TEST(PassesCommand, JsonListsThePortsInOrderWithTypesAndDefaults)
{
    const ProgramResult result = runProgram({u"passes"_s, u"--json"_s});
    EXPECT_EQ(result.exitCode, 0);
    const QJsonArray passes = QJsonDocument::fromJson(result.output.toUtf8()).array();
    ASSERT_EQ(passes.size(), PassRegistry::builtin().types().size());

    const ProgramResult single = runProgram({u"passes"_s, u"GradientRenderPass"_s, u"--json"_s});
    const QByteArray expected = R"([{"type": "GradientRenderPass",
        "inputs": [{"name": "Qel_QRect_Viewport", "type": "QRect", "default": null},
                   {"name": "Qel_QColor_ColorTop", "type": "QColor", "default": "#404040"},
                   {"name": "Qel_QColor_ColorBottom", "type": "QColor", "default": "#999999"}],
        "outputs": [{"name": "Qel_QelTexture*_Frame", "type": "QelTexture*"}]}])";
    EXPECT_EQ(QJsonDocument::fromJson(single.output.toUtf8()), QJsonDocument::fromJson(expected))
        << qPrintable(single.output);
    EXPECT_TRUE(passes.contains(QJsonDocument::fromJson(expected)[0]));
}

TEST(PassesCommand, TextAndManualTellOfEveryPortOfEveryPass)
{
    const QString list = runProgram({u"passes"_s}).output;
    const QString manual = runProgram({u"passes"_s, u"--markdown"_s}).output;
    for (const QString& type : PassRegistry::builtin().types()) {
        const PassDescription& pass = *PassRegistry::builtin().description(type);
        const QString details = runProgram({u"passes"_s, type}).output;
        EXPECT_TRUE(list.contains(type + u": "_s)) << qPrintable(type);
        EXPECT_EQ(manual.count(u"\n## %1\n"_s.arg(type)), 1);
        // Every row of a table has as many cells as its heading.
        const QString section = manual.section(u"\n## %1\n"_s.arg(type), 1).section(u"\n## "_s, 0, 0);
        qsizetype numCells = 0;
        for (const QString& line : section.split(u'\n')) {
            const qsizetype bars = line.count(u'|') - line.count(u"\\|"_s);
            EXPECT_TRUE(bars == 0 || numCells == 0 || bars == numCells) << qPrintable(line);
            numCells = bars;
        }
        for (const InputDescription& input : pass.inputs) {
            EXPECT_TRUE(details.contains(input.meaning)) << qPrintable(input.name);
            EXPECT_TRUE(section.contains(u"| `%1` |"_s.arg(input.name))) << qPrintable(input.name);
            EXPECT_TRUE(section.contains(input.whenMissing)) << qPrintable(input.name);
        }
        for (const OutputDescription& output : pass.outputs) {
            EXPECT_TRUE(details.contains(output.meaning)) << qPrintable(output.name);
            EXPECT_TRUE(section.contains(u"| `%1` |"_s.arg(output.name))) << qPrintable(output.name);
        }
    }
}

} // namespace Morvane::Qel::Test
