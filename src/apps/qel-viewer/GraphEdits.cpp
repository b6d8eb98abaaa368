#include "GraphEdits.h"

#include <QJsonArray>

#include <algorithm>

#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/PassRegistry.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

QString typeOf(const QString& port)
{
    return PortName::parse(port).type;
}

/// The pass and the port of a reference "@pass.Port"; empty for any other value.
std::pair<QString, QString> splitReference(const QString& reference)
{
    // Passes of a graph that is used as a pass have dots in their names.
    const qsizetype dot = reference.lastIndexOf(u'.');
    return reference.startsWith(u'@') && dot > 0
               ? std::pair(reference.sliced(1, dot - 1), reference.sliced(dot + 1))
               : std::pair<QString, QString>();
}

bool isSamePort(const QString& a, const QString& b)
{
    return a == b || PortName::parse(a).name == b || a == PortName::parse(b).name;
}

/// Replaces every reference to an output of a pass, the graph's output too, by what goes through the pass.
void rerouteAround(GraphDescription& graph, const PassSetting& leftOut)
{
    const auto reroute = [&](const QString& reference) -> std::optional<QString> {
        const auto [name, port] = splitReference(reference);
        return name == leftOut.name ? std::optional(throughReference(graph, leftOut, port)) : std::nullopt;
    };
    for (PassSetting& pass : graph.passes) {
        for (InputSetting& input : pass.inputs) {
            if (const auto through = reroute(graph.resolved(input.value).toString())) {
                input.value = *through;
            }
        }
        std::erase_if(pass.inputs, [](const InputSetting& input) {
            return input.value.isString() && input.value.toString().isEmpty();
        });
    }
    graph.output = reroute(graph.output).value_or(graph.output);
}

} // namespace

bool isReference(const QJsonValue& value)
{
    return value.isObject() || value.toString().startsWith(u'@') || value.toString().startsWith(u'$');
}

bool isParameterUse(const QJsonValue& value)
{
    return value.toString().startsWith(u'$');
}

bool isKeyed(const QJsonValue& value)
{
    return value.isObject() && !value[u"keys"].isUndefined();
}

const ParameterDescription* findParameter(const GraphDescription& graph, const QString& name)
{
    const auto found = std::find_if(graph.parameters.begin(), graph.parameters.end(),
                                    [&](const ParameterDescription& each) { return each.name == name; });
    return found == graph.parameters.end() ? nullptr : &*found;
}

std::vector<ParameterUse> usesOf(const GraphDescription& graph, const QString& parameter)
{
    // The names that lead to the parameter; a chain is no longer than there are parameters.
    QSet<QString> names{u'$' + parameter};
    for (qsizetype before = 0; before != names.size();) {
        before = names.size();
        for (const ParameterDescription& other : graph.parameters) {
            if (names.contains(other.value.toString())) {
                names.insert(u'$' + other.name);
            }
        }
    }
    std::vector<ParameterUse> uses;
    for (const PassSetting& pass : graph.passes) {
        for (const InputDescription& input : portsOf(pass).inputs) {
            const InputSetting* setting = findInput(pass, input.name);
            if (setting && names.contains(setting->value.toString())) {
                uses.push_back({pass.name + u'.' + PortName::parse(input.name).name, input, {}});
            }
        }
        const PassDescription* description = PassRegistry::builtin().description(pass.type);
        for (const OptionDescription& option :
             description ? description->options : std::vector<OptionDescription>()) {
            if (names.contains(pass.options[option.name].toString())) {
                uses.push_back({pass.name + u'.' + option.name, {}, option});
            }
        }
    }
    return uses;
}

const PassSetting* findPass(const GraphDescription& graph, const QString& name)
{
    const auto found = std::find_if(graph.passes.begin(), graph.passes.end(),
                                    [&](const PassSetting& pass) { return pass.name == name; });
    return found == graph.passes.end() ? nullptr : &*found;
}

PassSetting* findPass(GraphDescription& graph, const QString& name)
{
    return const_cast<PassSetting*>(findPass(std::as_const(graph), name));
}

const InputSetting* findInput(const PassSetting& pass, const QString& port)
{
    const auto find = [&](const auto& matches) {
        const auto found = std::find_if(pass.inputs.begin(), pass.inputs.end(), matches);
        return found == pass.inputs.end() ? nullptr : &*found;
    };
    const InputSetting* exact = find([&](const InputSetting& input) { return input.port == port; });
    return exact ? exact : find([&](const InputSetting& input) { return isSamePort(input.port, port); });
}

PassPorts portsOf(const PassSetting& pass)
{
    PassPorts ports;
    const PassDescription* description = PassRegistry::builtin().description(pass.type);
    if (!description) {
        return ports;
    }
    ports = {description->inputs, description->outputs};
    if (description->hostDeclaresPorts) {
        for (const QJsonValue port : pass.options[u"inputs"_s].toArray()) {
            ports.inputs.push_back({port.toString(), {}, {}});
        }
        for (const QJsonValue port : pass.options[u"outputs"_s].toArray()) {
            ports.outputs.push_back({port.toString(), {}});
        }
    }
    return ports;
}

QString shortestName(const QString& port, const QStringList& ports)
{
    const QString name = PortName::parse(port).name;
    const auto sameName = [&](const QString& other) { return PortName::parse(other).name == name; };
    return std::count_if(ports.begin(), ports.end(), sameName) > 1 ? port : name;
}

void setInput(PassSetting& pass, const QString& port, const QJsonValue& value)
{
    if (const InputSetting* existing = findInput(pass, port)) {
        const_cast<InputSetting*>(existing)->value = value;
        return;
    }
    QStringList inputs;
    for (const InputDescription& input : portsOf(pass).inputs) {
        inputs.append(input.name);
    }
    pass.inputs.push_back({shortestName(port, inputs), value});
}

void resetInput(PassSetting& pass, const QString& port)
{
    std::erase_if(pass.inputs, [&](const InputSetting& input) { return isSamePort(input.port, port); });
}

QString addPass(GraphDescription& graph, const QString& type)
{
    // "GaussianBlurRenderPass" becomes "gaussianBlur".
    QString base = type;
    for (const QString& ending : {u"Pass"_s, u"Render"_s}) {
        if (base.endsWith(ending)) {
            base.chop(ending.size());
        }
    }
    base = base.isEmpty() ? u"pass"_s : base.first(1).toLower() + base.sliced(1);
    QString name = base;
    for (int i = 2; findPass(graph, name); ++i) {
        name = base + QString::number(i);
    }
    graph.passes.push_back({name, type, {}, {}});
    return name;
}

void removePass(GraphDescription& graph, const QString& name)
{
    if (const PassSetting* pass = findPass(graph, name)) {
        rerouteAround(graph, PassSetting(*pass));
        std::erase_if(graph.passes, [&](const PassSetting& other) { return other.name == name; });
    }
}

void movePass(GraphDescription& graph, const QString& name, int places)
{
    const PassSetting* pass = findPass(graph, name);
    if (!pass) {
        return;
    }
    const auto from = static_cast<int>(pass - graph.passes.data());
    const int to = std::clamp(from + places, 0, static_cast<int>(graph.passes.size()) - 1);
    const auto begin = graph.passes.begin();
    if (to < from) {
        std::rotate(begin + to, begin + from, begin + from + 1);
    } else {
        std::rotate(begin + from, begin + from + 1, begin + to + 1);
    }
}

void connectPorts(GraphDescription& graph, const QString& fromPass, const QString& output,
                  const QString& toPass, const QString& input)
{
    const PassSetting* from = findPass(graph, fromPass);
    PassSetting* to = findPass(graph, toPass);
    if (from && to) {
        QStringList outputs;
        for (const OutputDescription& port : portsOf(*from).outputs) {
            outputs.append(port.name);
        }
        setInput(*to, input, u"@%1.%2"_s.arg(fromPass, shortestName(output, outputs)));
    }
}

std::vector<OutputPort> sourcesFor(const GraphDescription& graph, const QString& pass, const QString& input)
{
    std::vector<OutputPort> sources;
    const QString type = typeOf(input);
    for (const PassSetting& from : graph.passes) {
        for (const OutputDescription& output : portsOf(from).outputs) {
            if (type != typeOf(output.name) && type != QLatin1StringView("QVariant")) {
                continue;
            }
            GraphDescription connected = graph;
            connectPorts(connected, from.name, output.name, pass, input);
            QStringList errors;
            if (planGraph(connected, PassRegistry::builtin(), &errors)) {
                sources.push_back({from.name, output.name});
            }
        }
    }
    return sources;
}

QString throughReference(const GraphDescription& graph, const PassSetting& pass, const QString& outputPort)
{
    const PassPorts ports = portsOf(pass);
    const auto output = std::find_if(ports.outputs.begin(), ports.outputs.end(), [&](const auto& candidate) {
        return isSamePort(candidate.name, outputPort);
    });
    if (output == ports.outputs.end()) {
        return {};
    }
    for (const InputDescription& input : ports.inputs) {
        const InputSetting* setting = findInput(pass, input.name);
        QString reference = setting ? graph.resolved(setting->value).toString() : QString();
        if (typeOf(input.name) == typeOf(output->name) && !splitReference(reference).first.isEmpty()) {
            return reference;
        }
    }
    return {};
}

bool canLeaveOut(const GraphDescription& graph, const QString& name)
{
    const PassSetting* pass = findPass(graph, name);
    if (!pass) {
        return false;
    }
    const auto isLost = [&](const QString& reference) {
        const auto [source, port] = splitReference(reference);
        return source == name && throughReference(graph, *pass, port).isEmpty();
    };
    return !isLost(graph.output) &&
           std::none_of(graph.passes.begin(), graph.passes.end(), [&](const PassSetting& other) {
               return std::any_of(other.inputs.begin(), other.inputs.end(), [&](const auto& input) {
                   return isLost(graph.resolved(input.value).toString());
               });
           });
}

QSet<QString> shaderPasses(const GraphDescription& graph)
{
    QSet<QString> passes;
    for (const PassSetting& pass : graph.passes) {
        if (pass.type == QLatin1StringView("ShaderRenderPass") &&
            canLeaveOut(withoutPasses(graph, passes), pass.name)) {
            passes.insert(pass.name);
        }
    }
    return passes;
}

GraphDescription withoutPasses(const GraphDescription& graph, const QSet<QString>& passes)
{
    GraphDescription rest = graph;
    for (const PassSetting& pass : graph.passes) {
        if (passes.contains(pass.name)) {
            removePass(rest, pass.name);
        }
    }
    return rest;
}

} // namespace Morvane::Qel::Viewer
