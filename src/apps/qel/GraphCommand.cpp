#include "Commands.h"

#include <epoxy/gl.h>

#include <Qel/core/MetaTypes.h>
#include <Qel/core/PassDescription.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>
#include <Qel/graph/RenderGraph.h>

#include "Arguments.h"
#include "Console.h"
#include "Setup.h"
#include "Values.h"

namespace Morvane::Qel::App {

namespace {

/// "1280x720 GL_RGBA16F", asked of GL because passes may give a texture its image behind the record's back.
QString textureSummary(Texture* texture)
{
    const AutoBinder binder(texture);
    const bool cube = texture->target() == GL_TEXTURE_CUBE_MAP;
    const auto levelParameter = [&](unsigned int name) {
        int value = 0;
        glGetTexLevelParameteriv(cube ? GLenum{GL_TEXTURE_CUBE_MAP_POSITIVE_X} : texture->target(), 0, name,
                                 &value);
        return value;
    };
    const int layers = levelParameter(GL_TEXTURE_DEPTH);
    return QStringLiteral("%1x%2 %3%4")
        .arg(levelParameter(GL_TEXTURE_WIDTH))
        .arg(levelParameter(GL_TEXTURE_HEIGHT))
        .arg(internalFormatName(static_cast<unsigned int>(levelParameter(GL_TEXTURE_INTERNAL_FORMAT))),
             cube         ? QStringLiteral(", 6 faces")
             : layers > 1 ? QStringLiteral(", %1 layers").arg(layers)
                          : QString());
}

/// Prints the passes in running order, each with what it put out in a frame where one was drawn.
void printOrder(const GraphPlan& plan, const std::vector<RenderGraph::Output>& outputs)
{
    int position = 0;
    for (const int index : plan.order) {
        const PlannedPass& pass = plan.passes[static_cast<size_t>(index)];
        print(QStringLiteral("%1  %2  %3\n").arg(++position, 3).arg(pass.name, pass.type));
        for (const RenderGraph::Output& output : outputs) {
            if (output.pass == pass.name) {
                Texture* texture = pointerFromVariant<Texture>(output.value);
                print(QStringLiteral("       %1  %2\n")
                          .arg(PortName::parse(output.port).name,
                               texture ? textureSummary(texture) : textFromValue(output.value)));
            }
        }
    }
    for (const PlannedPass& pass : plan.passes) {
        if (!pass.leftOut.isEmpty()) {
            print(QStringLiteral("left out: %1  %2: %3\n").arg(pass.name, pass.type, pass.leftOut));
        }
    }
    if (plan.outputPass >= 0) {
        const PlannedPass& pass = plan.passes[static_cast<size_t>(plan.outputPass)];
        print(QStringLiteral("picture: %1.%2\n")
                  .arg(pass.name, PortName::parse(pass.outputs[plan.outputPort]).name));
    }
}

void printWithFormats(const GraphDescription& description, HeadlessContext& context)
{
    RenderGraph::Options options;
    options.keepOutputs = true;
    const std::unique_ptr<RenderGraph> graph = makeGraph(description, options);
    resizeScreen(context, graph->viewport());
    renderFrame(*graph);
    printOrder(graph->plan(), graph->outputs());
}

/// What a drawing of a graph consists of; nodes have short names of their own that need no quoting.
struct Drawing
{
    struct Node
    {
        QString id;
        QStringList lines;
        bool leftOut;
    };
    struct Edge
    {
        QString from;
        QString to;
        QString label;
    };
    std::vector<Node> nodes;
    std::vector<Edge> edges;
};

QString passId(int index)
{
    return QStringLiteral("pass%1").arg(index);
}

Drawing drawingOf(const GraphDescription& graph, const GraphPlan& plan)
{
    Drawing drawing;
    for (size_t i = 0; i < graph.models.size(); ++i) {
        drawing.nodes.push_back(
            {QStringLiteral("model%1").arg(i), {QStringLiteral("model ") + graph.models[i].name}, false});
    }
    for (int i = 0; i < static_cast<int>(plan.passes.size()); ++i) {
        const PlannedPass& pass = plan.passes[static_cast<size_t>(i)];
        drawing.nodes.push_back({passId(i), {pass.name, pass.type}, !pass.leftOut.isEmpty()});
        for (const PlannedInput& input : pass.inputs) {
            const QString port = PortName::parse(input.port).name;
            if (input.source == InputSource::Connection) {
                const QString from =
                    PortName::parse(plan.passes[static_cast<size_t>(input.pass)].outputs[input.output]).name;
                drawing.edges.push_back({passId(input.pass), passId(i),
                                         from == port ? port : QStringLiteral("%1 to %2").arg(from, port)});
            } else if (input.source == InputSource::Model) {
                drawing.edges.push_back({QStringLiteral("model%1").arg(input.model), passId(i), port});
            }
        }
    }
    if (plan.outputPass >= 0) {
        const PlannedPass& pass = plan.passes[static_cast<size_t>(plan.outputPass)];
        drawing.nodes.push_back({QStringLiteral("picture"), {QStringLiteral("picture")}, false});
        drawing.edges.push_back({passId(plan.outputPass), QStringLiteral("picture"),
                                 PortName::parse(pass.outputs[plan.outputPort]).name});
    }
    return drawing;
}

QString dotText(QString text)
{
    text.replace(u'\\', QStringLiteral("\\\\")).replace(u'"', QStringLiteral("\\\""));
    return text;
}

void printDot(const Drawing& drawing)
{
    QString text = QStringLiteral("digraph {\n    rankdir=LR;\n    node [shape=box];\n");
    for (const Drawing::Node& node : drawing.nodes) {
        QStringList lines;
        for (const QString& line : node.lines) {
            lines << dotText(line);
        }
        text += QStringLiteral("    %1 [label=\"%2\"%3];\n")
                    .arg(node.id, lines.join(QStringLiteral("\\n")),
                         node.leftOut ? QStringLiteral(", style=dashed") : QString());
    }
    for (const Drawing::Edge& edge : drawing.edges) {
        text += QStringLiteral("    %1 -> %2 [label=\"%3\"];\n").arg(edge.from, edge.to, dotText(edge.label));
    }
    print(text + QStringLiteral("}\n"));
}

QString mermaidText(QString text)
{
    text.replace(u'#', QStringLiteral("#35;")).replace(u'"', QStringLiteral("#quot;"));
    return text;
}

void printMermaid(const Drawing& drawing)
{
    QString text = QStringLiteral("flowchart LR\n");
    for (const Drawing::Node& node : drawing.nodes) {
        QStringList lines;
        for (const QString& line : node.lines) {
            lines << mermaidText(line);
        }
        text += QStringLiteral("    %1[\"%2\"]%3\n")
                    .arg(node.id, lines.join(QStringLiteral("<br/>")),
                         node.leftOut ? QStringLiteral(":::leftOut") : QString());
    }
    for (const Drawing::Edge& edge : drawing.edges) {
        text += QStringLiteral("    %1 -->|\"%2\"| %3\n").arg(edge.from, mermaidText(edge.label), edge.to);
    }
    print(text + QStringLiteral("    classDef leftOut stroke-dasharray: 4\n"));
}

} // namespace

ExitCode graph(const QStringList& arguments)
{
    Arguments options(
        QStringLiteral("graph"),
        QStringLiteral(
            "Checks a graph and prints its passes in running order, with the sizes and formats of what\n"
            "they put out, or draws it as text."));
    options.addPositional(QStringLiteral("GRAPH"), QStringLiteral("a graph file"));
    options.addOption(QStringLiteral("dot"), {},
                      QStringLiteral("draws the graph in the language of Graphviz"));
    options.addOption(QStringLiteral("mermaid"), {},
                      QStringLiteral("draws the graph as a Mermaid flow chart"));
    addDeviceOption(options);
    if (!options.parse(arguments)) {
        return ExitCode::Done;
    }
    const bool dot = options.isSet(QStringLiteral("dot"));
    const bool mermaid = options.isSet(QStringLiteral("mermaid"));
    if (dot && mermaid) {
        options.fail(QStringLiteral("--dot and --mermaid exclude each other"));
    }
    const HeadlessContext::Device wanted = device(options);

    const GraphDescription description = loadGraphFile(options.positional(0));
    const GraphPlan plan = checkGraph(description);
    if (dot) {
        printDot(drawingOf(description, plan));
        return ExitCode::Done;
    }
    if (mermaid) {
        printMermaid(drawingOf(description, plan));
        return ExitCode::Done;
    }
    std::unique_ptr<HeadlessContext> context;
    try {
        context = makeContext(wanted);
    } catch (const Failure& failure) {
        printNote(failure.lines.join(u' '));
        printNote(QStringLiteral("sizes and formats are left out, they need GL"));
        printOrder(plan, {});
        return ExitCode::Done;
    }
    printWithFormats(description, *context);
    return ExitCode::Done;
}

} // namespace Morvane::Qel::App
