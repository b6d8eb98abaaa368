// Renders a model through a graph made in code, without a window, and writes the image:
//   qel-embedding MODEL OUTPUT.png

#include <QJsonArray>

#include <cstdio>

#include <Qel/gl/HeadlessContext.h>
#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/RenderGraph.h>

using namespace Morvane::Qel;

namespace {

int fail(const QString& message)
{
    std::fprintf(stderr, "qel-embedding: %s\n", qPrintable(message));
    return 1;
}

/// A graph that draws the model with the forward pass and copies the frame with a shader pass.
GraphDescription makeGraph(const QString& modelFile)
{
    GraphDescription graph;
    graph.viewport = {640, 360};
    graph.models = {{"scene", modelFile}};

    PassSetting forward{"forward", "ForwardRenderPass", {{"Geometry", "@scene"}}, {}};
    PassSetting copy{"copy", "ShaderRenderPass", {{"Input", "@forward.Frame"}}, {}};
    copy.options["inputs"] = QJsonArray{"Qel_QRect_Viewport", "Qel_QelTexture*_Input"};
    copy.options["outputs"] = QJsonArray{"Qel_QelTexture*_Output"};
    graph.passes = {forward, copy};
    graph.output = "@copy.Output";
    return graph;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        return fail("usage: qel-embedding MODEL OUTPUT.png");
    }

    // An application with a window makes its own GL context current instead, creates an OpenGLDeviceContext
    // and calls makeCurrent on it.
    QString error;
    const auto context = HeadlessContext::create({}, &error);
    if (!context) {
        return fail(error);
    }

    QStringList errors;
    const auto graph =
        RenderGraph::create(makeGraph(QString::fromLocal8Bit(argv[1])), PassRegistry::builtin(), {}, &errors);
    if (!graph) {
        return fail(errors.join('\n'));
    }
    if (!graph->renderFrame(&error)) {
        return fail(error);
    }
    if (!writeImage(readTexture(graph->image()).front(), QString::fromLocal8Bit(argv[2]), &error)) {
        return fail(error);
    }
    return 0;
}
