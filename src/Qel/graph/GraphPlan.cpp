#include <Qel/graph/GraphPlan.h>

#include <set>

#include <Qel/graph/support/ExecutionOrder.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/InputResolver.h>
#include <Qel/graph/support/Names.h>
#include <Qel/graph/support/OptionReader.h>
#include <Qel/graph/support/Ports.h>
#include <Qel/graph/support/SceneCheck.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

void checkPassNames(const GraphDescription& graph, GraphErrors& errors)
{
    std::set<QString> names;
    std::set<QString> repeated;
    for (size_t i = 0; i < graph.passes.size(); ++i) {
        const QString& name = graph.passes[i].name;
        if (const QString error = nameError(name); !error.isEmpty()) {
            errors.add(u"passes[%1]"_s.arg(i), error);
        } else if (!names.insert(name).second && repeated.insert(name).second) {
            errors.add(name, u"more than one pass has this name"_s);
        }
    }
}

/// Of the types that a graph uses.
struct TypeCache
{
    QHash<QString, std::shared_ptr<const PassDescription>> descriptions;
    /// For types whose ports are always the same.
    QHash<QString, ResolvablePorts> ports;
};

/// Type, options and ports of a pass; its inputs are not resolved yet. `ports` gets what InputResolver needs
/// to know about them.
PlannedPass planPass(const GraphDescription& graph, const PassSetting& setting, const PassRegistry& registry,
                     GraphErrors& errors, TypeCache& cache, ResolvablePorts* ports)
{
    PlannedPass pass;
    pass.name = setting.name;
    pass.type = setting.type;
    const PassRegistry::Type* type = registry.find(setting.type);
    if (!type) {
        errors.add(setting.name, [&] { return unknownName(u"pass type"_s, setting.type, registry.types()); });
        return pass;
    }
    std::shared_ptr<const PassDescription>& shared = cache.descriptions[setting.type];
    if (!shared) {
        shared = std::make_shared<const PassDescription>(type->description);
    }
    pass.description = shared;
    const PassDescription& description = *shared;
    pass.factory = type->factory;
    const qsizetype errorsBefore = errors.count();
    pass.options = OptionReader(graph, errors).read(setting, description);
    const auto cached = cache.ports.constFind(pass.type);
    if (cached != cache.ports.constEnd()) {
        *ports = *cached;
    } else {
        const Ports names = portsOf(description, pass.options.value(u"inputs"_s).toStringList(),
                                    pass.options.value(u"outputs"_s).toStringList());
        ports->known = !description.hostDeclaresPorts || errors.count() == errorsBefore;
        ports->numDescribedInputs = static_cast<int>(description.inputs.size());
        ports->inputs = std::make_shared<PortIndex>(names.inputs);
        ports->outputs = std::make_shared<PortIndex>(names.outputs);
        if (!description.hostDeclaresPorts) {
            cache.ports.insert(pass.type, *ports);
        }
    }
    pass.inputs.resize(static_cast<size_t>(ports->inputs->ports().size()));
    for (size_t i = 0; i < pass.inputs.size(); ++i) {
        pass.inputs[i].port = ports->inputs->ports()[static_cast<qsizetype>(i)];
        if (i < description.inputs.size()) {
            pass.inputs[i].isModified = description.inputs[i].isModified;
            pass.inputs[i].isDepth = description.inputs[i].isDepth;
        }
    }
    pass.outputs = ports->outputs->ports();
    return pass;
}

} // namespace

std::optional<GraphPlan> planGraph(const GraphDescription& graph, const PassRegistry& registry,
                                   QStringList* messages)
{
    GraphErrors errors(graph, messages);
    GraphPlan plan;
    plan.graph = graph;
    checkScene(graph, errors);
    checkPassNames(graph, errors);
    std::vector<ResolvablePorts> ports(graph.passes.size());
    TypeCache cache;
    for (size_t i = 0; i < graph.passes.size(); ++i) {
        plan.passes.push_back(planPass(graph, graph.passes[i], registry, errors, cache, &ports[i]));
    }
    InputResolver resolver(plan, ports, errors);
    resolver.resolveInputs();
    resolver.resolveOutput();
    cullUnusedPasses(plan);
    reportCycles(plan, errors);
    if (errors.count() > 0) {
        return {};
    }
    orderPasses(plan);
    return plan;
}

} // namespace Morvane::Qel
