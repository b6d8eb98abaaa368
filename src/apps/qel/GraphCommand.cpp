#include "Commands.h"

#include <epoxy/gl.h>

#include <Qel/core/MetaTypes.h>
#include <Qel/core/PassDescription.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>
#include <Qel/graph/RenderGraph.h>
#include <Qel/graph/ValueJson.h>

#include "Arguments.h"
#include "Console.h"
#include "Setup.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

/// Returns a text such as "1280x720 GL_RGBA16F". Queries GL, because passes may allocate a texture by GL
/// calls that bypass the Texture object.
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
    return u"%1x%2 %3%4"_s.arg(levelParameter(GL_TEXTURE_WIDTH))
        .arg(levelParameter(GL_TEXTURE_HEIGHT))
        .arg(internalFormatName(static_cast<unsigned int>(levelParameter(GL_TEXTURE_INTERNAL_FORMAT))),
             cube         ? u", 6 faces"_s
             : layers > 1 ? u", %1 layers"_s.arg(layers)
                          : QString());
}

/// Prints the passes in execution order, each with its outputs if a frame was rendered.
void printOrder(const GraphPlan& plan, const std::vector<RenderGraph::Output>& outputs)
{
    int position = 0;
    for (const int index : plan.order) {
        const PlannedPass& pass = plan.passes[static_cast<size_t>(index)];
        print(u"%1  %2  %3\n"_s.arg(++position, 3).arg(pass.name, pass.type));
        for (const RenderGraph::Output& output : outputs) {
            if (output.pass == pass.name) {
                Texture* texture = pointerFromVariant<Texture>(output.value);
                print(u"       %1  %2\n"_s.arg(PortName::parse(output.port).name,
                                               texture ? textureSummary(texture)
                                                       : textFromValue(output.value)));
            }
        }
    }
    for (const PlannedPass& pass : plan.passes) {
        if (!pass.cullReason.isEmpty()) {
            print(u"culled: %1  %2: %3\n"_s.arg(pass.name, pass.type, pass.cullReason));
        }
    }
    if (plan.outputPass >= 0) {
        const PlannedPass& pass = plan.passes[static_cast<size_t>(plan.outputPass)];
        print(u"image: %1.%2\n"_s.arg(pass.name, PortName::parse(pass.outputs[plan.outputPort]).name));
    }
}

void printWithFormats(const GraphPlan& plan, HeadlessContext& context)
{
    RenderGraph::Options options;
    options.keepOutputs = true;
    const std::unique_ptr<RenderGraph> graph = makeGraph(plan, options);
    resizeScreen(context, graph->viewport());
    renderFrame(*graph);
    printOrder(graph->plan(), graph->outputs());
}

/// The nodes and edges of a graph drawing. Node ids need no quoting.
struct Drawing
{
    struct Node
    {
        QString id;
        QStringList lines;
        bool isCulled;
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
    return u"pass%1"_s.arg(index);
}

Drawing drawingOf(const GraphDescription& graph, const GraphPlan& plan)
{
    Drawing drawing;
    for (size_t i = 0; i < graph.models.size(); ++i) {
        drawing.nodes.push_back({u"model%1"_s.arg(i), {u"model "_s + graph.models[i].name}, false});
    }
    for (int i = 0; i < static_cast<int>(plan.passes.size()); ++i) {
        const PlannedPass& pass = plan.passes[static_cast<size_t>(i)];
        drawing.nodes.push_back({passId(i), {pass.name, pass.type}, !pass.cullReason.isEmpty()});
        for (const PlannedInput& input : pass.inputs) {
            const QString port = PortName::parse(input.port).name;
            if (input.source == InputSource::Connection) {
                const QString from =
                    PortName::parse(plan.passes[static_cast<size_t>(input.pass)].outputs[input.output]).name;
                drawing.edges.push_back(
                    {passId(input.pass), passId(i), from == port ? port : u"%1 to %2"_s.arg(from, port)});
            } else if (input.source == InputSource::Model) {
                drawing.edges.push_back({u"model%1"_s.arg(input.model), passId(i), port});
            }
        }
    }
    if (plan.outputPass >= 0) {
        const PlannedPass& pass = plan.passes[static_cast<size_t>(plan.outputPass)];
        drawing.nodes.push_back({u"image"_s, {u"image"_s}, false});
        drawing.edges.push_back(
            {passId(plan.outputPass), u"image"_s, PortName::parse(pass.outputs[plan.outputPort]).name});
    }
    return drawing;
}

QString dotText(QString text)
{
    text.replace(u'\\', u"\\\\"_s).replace(u'"', u"\\\""_s);
    return text;
}

void printDot(const Drawing& drawing)
{
    QString text = u"digraph {\n    rankdir=LR;\n    node [shape=box];\n"_s;
    for (const Drawing::Node& node : drawing.nodes) {
        QStringList lines;
        for (const QString& line : node.lines) {
            lines << dotText(line);
        }
        text += u"    %1 [label=\"%2\"%3];\n"_s.arg(node.id, lines.join(u"\\n"_s),
                                                    node.isCulled ? u", style=dashed"_s : QString());
    }
    for (const Drawing::Edge& edge : drawing.edges) {
        text += u"    %1 -> %2 [label=\"%3\"];\n"_s.arg(edge.from, edge.to, dotText(edge.label));
    }
    print(text + u"}\n"_s);
}

QString mermaidText(QString text)
{
    text.replace(u'#', u"#35;"_s).replace(u'"', u"#quot;"_s);
    return text;
}

void printMermaid(const Drawing& drawing)
{
    QString text = u"flowchart LR\n"_s;
    for (const Drawing::Node& node : drawing.nodes) {
        QStringList lines;
        for (const QString& line : node.lines) {
            lines << mermaidText(line);
        }
        text += u"    %1[\"%2\"]%3\n"_s.arg(node.id, lines.join(u"<br/>"_s),
                                            node.isCulled ? u":::culled"_s : QString());
    }
    for (const Drawing::Edge& edge : drawing.edges) {
        text += u"    %1 -->|\"%2\"| %3\n"_s.arg(edge.from, mermaidText(edge.label), edge.to);
    }
    print(text + u"    classDef culled stroke-dasharray: 4\n"_s);
}

} // namespace

ExitCode graph(const QStringList& arguments)
{
    Arguments options(
        u"graph"_s,
        u"Checks a graph and prints its passes in execution order with the sizes and formats of their\n"
        "outputs, or prints a drawing of it."_s);
    options.addPositional(u"GRAPH"_s, u"a graph file"_s);
    options.addOption(u"dot"_s, {}, u"prints the graph in the DOT language of Graphviz"_s);
    options.addOption(u"mermaid"_s, {}, u"prints the graph as a Mermaid flowchart"_s);
    addDeviceOption(options);
    if (!options.parse(arguments)) {
        return ExitCode::Done;
    }
    const bool dot = options.isSet(u"dot"_s);
    const bool mermaid = options.isSet(u"mermaid"_s);
    if (dot && mermaid) {
        options.fail(u"--dot and --mermaid cannot be combined"_s);
    }
    const HeadlessContext::Device wanted = device(options);

    const GraphDescription description = loadGraphFile(options.positional(0));
    const GraphPlan plan = planOf(description);
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
        printNote(u"sizes and formats need GL and are not shown"_s);
        printOrder(plan, {});
        return ExitCode::Done;
    }
    printWithFormats(plan, *context);
    return ExitCode::Done;
}

} // namespace Morvane::Qel::App
