#include "Commands.h"

#include <Qel/core/PassDescription.h>
#include <Qel/graph/GraphReview.h>
#include <Qel/graph/RenderGraph.h>
#include <Qel/graph/ValueJson.h>

#include "Arguments.h"
#include "Console.h"
#include "GraphListing.h"
#include "Setup.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

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
        for (size_t part = 0; part < graph.models.size(); ++part) {
            if (graph.models[i].merge.contains(graph.models[part].name)) {
                drawing.edges.push_back({u"model%1"_s.arg(part), u"model%1"_s.arg(i), u"merged"_s});
            }
        }
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

void declareGraph(Arguments& options)
{
    options.describe(
        u"Checks a graph and prints its passes in execution order with the sources of their inputs "
        "and the sizes and formats of their outputs, or prints a drawing of it. Warns of what is "
        "valid but certainly not meant."_s);
    options.addPositional(u"GRAPH"_s, u"a graph file; - for standard input"_s, false, ValueKind::GraphFile);
    options.addOption(u"dot"_s, {}, u"prints the graph in the DOT language of Graphviz"_s);
    options.addOption(u"mermaid"_s, {}, u"prints the graph as a Mermaid flowchart"_s);
    options.addOption(u"json"_s, {}, u"prints passes, inputs, outputs and warnings as JSON"_s);
    addDeviceOption(options);
    options.addExample(u"qel graph glow.json --dot | dot -Tsvg -o glow.svg"_s,
                       u"Draw a graph with Graphviz"_s);
}

ExitCode graph(const Arguments& options)
{
    const bool dot = options.isSet(u"dot"_s);
    const bool mermaid = options.isSet(u"mermaid"_s);
    const bool json = options.isSet(u"json"_s);
    if (int{dot} + int{mermaid} + int{json} > 1) {
        options.fail(u"--dot, --mermaid and --json cannot be combined"_s);
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
    const QStringList warnings = reviewGraph(plan);
    std::unique_ptr<HeadlessContext> context;
    std::unique_ptr<RenderGraph> rendered;
    try {
        context = makeContext(wanted);
        RenderGraph::Options graphOptions;
        graphOptions.keepOutputs = true;
        rendered = makeGraph(plan, graphOptions);
        resizeScreen(*context, rendered->viewport());
        renderFrame(*rendered);
    } catch (const Failure& failure) {
        if (failure.exitCode != ExitCode::NoGL) {
            throw;
        }
        printNote(failure.lines.join(u' '));
        printNote(u"sizes and formats need GL and are not shown"_s);
    }
    const std::vector<RenderGraph::Output> outputs =
        rendered ? rendered->outputs() : std::vector<RenderGraph::Output>();
    if (json) {
        printGraphJson(plan, outputs, warnings);
        return ExitCode::Done;
    }
    printGraph(plan, outputs);
    for (const QString& line : warnings) {
        printNote(u"warning: %1: %2"_s.arg(description.displayName(), line));
    }
    return ExitCode::Done;
}

} // namespace Morvane::Qel::App
