// Renders every graph of examples/graphs, and the one that the manual shows, in a small size.

#include <QDir>
#include <QFile>

#include <algorithm>

#include "support/Folder.h"
#include "support/GLTest.h"
#include "support/Paths.h"
#include "support/Pixels.h"
#include <Qel/gl/TextureManager.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/RenderGraph.h>

namespace Morvane::Qel::Test {
namespace {

const QString graphFolder = sourcePath("examples/graphs/");

std::vector<std::string> graphNames()
{
    std::vector<std::string> names{"manual"};
    for (const QString& file : QDir(graphFolder).entryList({"*.json"})) {
        names.push_back(file.chopped(5).toStdString());
    }
    return names;
}

class ExampleGraph : public GLTest, public testing::WithParamInterface<std::string>
{
};

TEST_P(ExampleGraph, RendersAnImageAndReturnsAllTextures)
{
    Folder folder;
    QString file = graphFolder + QString::fromStdString(GetParam()) + ".json";
    if (GetParam() == "manual") {
        QFile manual(sourcePath("docs/graph-files.md"));
        ASSERT_TRUE(manual.open(QIODevice::ReadOnly));
        const QString text = manual.readAll();
        folder.write("manual.json", text.section("```json\n", 1).section("```", 0, 0));
        file = folder.path("manual.json");
    }
    QStringList errors;
    std::optional<GraphDescription> description = loadGraph(file, &errors);
    ASSERT_TRUE(description) << qPrintable(errors.join('\n'));
    // The files of the manual's graph lie where those of the examples do.
    description->file = graphFolder + "example.json";
    description->viewport = {64, 36};
    auto graph = RenderGraph::create(*description, PassRegistry::builtin(), {}, &errors);
    ASSERT_TRUE(graph) << qPrintable(errors.join('\n'));
    for (int frame = 1; frame <= 3; ++frame) {
        QString error;
        ASSERT_TRUE(graph->renderFrame(&error)) << "frame " << frame << ": " << qPrintable(error);
    }
    const std::vector<QVector4D> pixels = readTexture(graph->image()).values;
    EXPECT_FALSE(std::equal(pixels.begin() + 1, pixels.end(), pixels.begin()))
        << "the whole image has one colour";

    EXPECT_TRUE(messages().information.filter(".json: ").isEmpty()) << "notices about the shaders";

    graph->releaseOutputs();
    // A temporal accumulation texture lives across frames.
    const auto isTemporal = [](const PassSetting& pass) { return pass.type == "TemporalAARenderPass"; };
    EXPECT_EQ(TextureManager::Instance()->numReferences(),
              std::count_if(description->passes.begin(), description->passes.end(), isTemporal));
}

INSTANTIATE_TEST_SUITE_P(Every, ExampleGraph, testing::ValuesIn(graphNames()), [](const auto& instance) {
    return QString::fromStdString(instance.param).replace('-', '_').toStdString();
});

} // namespace
} // namespace Morvane::Qel::Test
