// Two threads at once, each with a context and graphs of its own. In the preset `tsan`, the thread sanitizer
// watches them.

#include <QDir>

#include <array>
#include <thread>

#include <gtest/gtest.h>

#include "support/Paths.h"
#include <Qel/gl/HeadlessContext.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/RenderGraph.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

/// Renders a graph file in two sizes, on a context of its own, and returns the image of the first frame. Of
/// the context and the graph, one or the other is destroyed first.
Image render(const QString& file, bool isGraphFirst)
{
    QString error;
    auto context = HeadlessContext::create({.device = HeadlessContext::Device::Software}, &error);
    QStringList errors;
    std::optional<GraphDescription> description = loadGraph(file, &errors);
    EXPECT_TRUE(context && description) << qPrintable(error + errors.join(u", "));
    description->viewport = {32, 24};
    auto graph = RenderGraph::create(*description, PassRegistry::builtin(), {.profile = true}, &errors);
    EXPECT_TRUE(graph) << qPrintable(errors.join(u", "));
    Image image;
    for (int frame = 0; frame < 8; ++frame) {
        EXPECT_TRUE(graph->renderFrame(&error)) << qPrintable(error);
        if (frame == 0) {
            image = readTexture(graph->image()).at(0);
        } else if (frame == 4) {
            EXPECT_TRUE(graph->setViewport({20, 40}, &error)) << qPrintable(error);
        }
    }
    if (isGraphFirst) {
        graph.reset();
    }
    context.reset();
    return image;
}

TEST(Threads, RenderTheSameImagesAtTheSameTime)
{
    const QDir folder(sourcePath(u"examples/graphs"_s), u"*.json"_s);
    const QStringList names = folder.entryList();
    ASSERT_FALSE(names.isEmpty());
    std::array<std::vector<Image>, 2> images;
    const auto renderAll = [&](size_t thread) {
        for (const QString& name : names) {
            images[thread].push_back(render(folder.filePath(name), thread == 0));
        }
    };
    std::thread first(renderAll, 0);
    std::thread second(renderAll, 1);
    first.join();
    second.join();
    for (size_t i = 0; i < images[0].size(); ++i) {
        EXPECT_TRUE(images[0][i].samples == images[1][i].samples) << qPrintable(names[static_cast<qsizetype>(i)]);
    }
}

} // namespace
} // namespace Morvane::Qel::Test
