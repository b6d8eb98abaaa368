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

/// Type, options and ports of a pass; its inputs are not resolved yet. `ports` gets what InputResolver needs
/// to know about them.
PlannedPass planPass(const GraphDescription& graph, const PassSetting& setting, const PassRegistry& registry,
                     GraphErrors& errors, ResolvablePorts* ports)
{
    PlannedPass pass;
    pass.name = setting.name;
    pass.type = setting.type;
    const PassRegistry::Type* type = registry.find(setting.type);
    if (!type) {
        errors.add(setting.name, unknownName(u"pass type"_s, setting.type, registry.types()));
        return pass;
    }
    const PassDescription& description = type->description;
    pass.factory = type->factory;
    const qsizetype errorsBefore = errors.count();
    pass.options = OptionReader(graph, errors).read(setting, description);
    const Ports names = portsOf(description, pass.options.value(u"inputs"_s).toStringList(),
                                pass.options.value(u"outputs"_s).toStringList());
    for (const QString& port : names.inputs) {
        pass.inputs.emplace_back().port = port;
    }
    pass.outputs = names.outputs;
    ports->known = !description.hostDeclaresPorts || errors.count() == errorsBefore;
    ports->numDescribedInputs = static_cast<int>(description.inputs.size());
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
    for (size_t i = 0; i < graph.passes.size(); ++i) {
        plan.passes.push_back(planPass(graph, graph.passes[i], registry, errors, &ports[i]));
    }
    InputResolver resolver(plan, ports, errors);
    resolver.resolveInputs();
    resolver.resolveOutput();
    reportCycles(plan, errors);
    if (errors.count() > 0) {
        return {};
    }
    cullUnusedPasses(plan);
    orderPasses(plan);
    return plan;
}

} // namespace Morvane::Qel
