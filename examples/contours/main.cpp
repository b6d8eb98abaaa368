// Renders a graph that uses this program's own pass beside those of the library, and writes the image:
//   qel-contours GRAPH OUTPUT.png

#include <cstdio>

#include "ContourRenderPass.h"
#include <Qel/gl/HeadlessContext.h>
#include <Qel/graph/GraphFile.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/PassRegistry.h>
#include <Qel/graph/RenderGraph.h>

using namespace Qt::StringLiterals;

using namespace Morvane::Qel;

namespace {

int fail(const QString& message)
{
    std::fprintf(stderr, "qel-contours: %s\n", qPrintable(message));
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        return fail("usage: qel-contours GRAPH OUTPUT.png");
    }
    QStringList errors;
    const auto description = loadGraph(QString::fromLocal8Bit(argv[1]), &errors);
    if (!description) {
        return fail(errors.join('\n'));
    }

    QString error;
    const auto context = HeadlessContext::create({}, &error);
    if (!context) {
        return fail(error);
    }
    PassRegistry registry = PassRegistry::builtin();
    registry.add<ContourRenderPass>();
    const auto graph = RenderGraph::create(*description, registry, {}, &errors);
    if (!graph) {
        return fail(errors.join('\n'));
    }
    if (!graph->renderFrame(&error)) {
        return fail(error);
    }
    if (!graph->image()) {
        return fail(u"%1: the graph needs an \"output\""_s.arg(QString::fromLocal8Bit(argv[1])));
    }
    if (!writeImage(readTexture(graph->image()).front(), QString::fromLocal8Bit(argv[2]), &error)) {
        return fail(error);
    }
    return 0;
}
