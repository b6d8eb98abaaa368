// Renders every graph of examples/graphs in a small size.

#include <QDir>

#include <algorithm>

#include "support/GLTest.h"
#include "support/Pixels.h"
#include <Qel/gl/TextureManager.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/RenderGraph.h>

#include "support/Paths.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

const QDir graphFolder(sourcePath(u"examples/graphs"_s));

std::vector<std::string> graphNames()
{
    std::vector<std::string> names;
    for (const QString& file : graphFolder.entryList({u"*.json"_s})) {
        names.push_back(file.chopped(5).toStdString());
    }
    return names;
}

class ExampleGraph : public GLTest, public testing::WithParamInterface<std::string>
{
};

TEST_P(ExampleGraph, RendersAnImageAndReturnsAllTextures)
{
    QStringList errors;
    std::optional<GraphDescription> description =
        loadGraph(graphFolder.filePath(QString::fromStdString(GetParam()) + u".json"_s), &errors);
    ASSERT_TRUE(description) << qPrintable(errors.join(u'\n'));
    description->viewport = {64, 36};
    std::unique_ptr<RenderGraph> graph =
        RenderGraph::create(*description, PassRegistry::builtin(), {}, &errors);
    ASSERT_TRUE(graph) << qPrintable(errors.join(u'\n'));
    for (int frame = 1; frame <= 3; ++frame) {
        QString error;
        ASSERT_TRUE(graph->renderFrame(&error)) << "frame " << frame << ": " << qPrintable(error);
    }
    const Pixels picture = readTexture(graph->picture());
    EXPECT_TRUE(std::any_of(picture.values.begin(), picture.values.end(), [&](const QVector4D& value) {
        return value != picture.values.front();
    })) << "the whole image has one colour";

    graph->releaseOutputs();
    // A temporal accumulation texture lives across frames.
    const auto numAccumulations =
        std::count_if(description->passes.begin(), description->passes.end(),
                      [](const PassSetting& pass) { return pass.type == u"TemporalAARenderPass"; });
    EXPECT_EQ(TextureManager::Instance()->numReferences(), numAccumulations);
    graph.reset();
    EXPECT_EQ(TextureManager::Instance()->numReferences(), 0);
}

INSTANTIATE_TEST_SUITE_P(Every, ExampleGraph, testing::ValuesIn(graphNames()), [](const auto& instance) {
    std::string name = instance.param;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

} // namespace
} // namespace Morvane::Qel::Test
