#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

#include <gtest/gtest.h>

#include <Qel/graph/PassRegistry.h>

#include "support/Program.h"

namespace Morvane::Qel::Test {

TEST(PassesCommand, JsonHasPortsInOrderRangesAndOptions)
{
    const QString output = runProgram({"passes", "--json"}).output;
    const QJsonArray passes = QJsonDocument::fromJson(output.toUtf8()).array();
    EXPECT_EQ(passes.size(), PassRegistry::builtin().types().size());
    const auto find = [&](const QString& type) -> QJsonValue {
        return *std::find_if(passes.begin(), passes.end(),
                             [&](const QJsonValue& pass) { return pass.toObject()["type"] == type; });
    };
    const QJsonValue gradient = find("GradientRenderPass");
    EXPECT_EQ(gradient["inputs"][0]["name"], "Qel_QRect_Viewport");
    EXPECT_EQ(gradient["inputs"][0]["unit"], "pixels");
    EXPECT_EQ(gradient["inputs"][2]["default"], "#999999");
    EXPECT_EQ(gradient["outputs"][0]["alpha"], "straight");
    const QJsonValue lens = find("DepthOfFieldRenderPass");
    EXPECT_EQ(lens["inputs"][3]["minimum"], 0.0);
    EXPECT_EQ(lens["inputs"][3]["isAboveMinimum"], true);
    EXPECT_TRUE(lens["inputs"][3]["maximum"].isNull());
    EXPECT_EQ(find("PrimitiveBuilderRenderPass")["options"][0]["members"][0]["choices"],
              (QJsonArray{"cube", "quad"}));
}

TEST(PassesCommand, TextAndMarkdownDescribeEveryPort)
{
    const QString list = runProgram({"passes"}).output;
    const QString manual = runProgram({"passes", "--markdown"}).output;
    for (const QString& type : PassRegistry::builtin().types()) {
        const QString details = runProgram({"passes", type}).output;
        const QString section = manual.section("\n## " + type + '\n', 1).section("\n## ", 0, 0);
        EXPECT_TRUE(list.contains(type + ": ")) << qPrintable(type);
        for (const InputDescription& input : PassRegistry::builtin().description(type)->inputs) {
            EXPECT_TRUE(details.contains(input.meaning)) << qPrintable(input.name);
            EXPECT_TRUE(section.contains("| `" + input.name + "` |")) << qPrintable(input.name);
            EXPECT_TRUE(section.contains(input.whenMissing)) << qPrintable(input.name);
        }
        for (const OutputDescription& output : PassRegistry::builtin().description(type)->outputs) {
            EXPECT_TRUE(details.contains(output.meaning)) << qPrintable(output.name);
            EXPECT_TRUE(section.contains("| `" + output.name + "` |")) << qPrintable(output.name);
        }
        // Every row of a table has as many cells as its heading.
        qsizetype numCells = 0;
        for (const QString& line : section.split('\n')) {
            const qsizetype bars = line.count('|') - line.count("\\|");
            EXPECT_TRUE(bars == 0 || numCells == 0 || bars == numCells) << qPrintable(line);
            numCells = bars;
        }
    }
}

} // namespace Morvane::Qel::Test
