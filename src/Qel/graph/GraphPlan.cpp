#include <Qel/graph/GraphPlan.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include <Qel/graph/support/ExecutionOrder.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/InputResolver.h>
#include <Qel/graph/support/Names.h>
#include <Qel/graph/support/OptionReader.h>
#include <Qel/graph/support/Parameters.h>
#include <Qel/graph/support/Ports.h>
#include <Qel/graph/support/ProjectionCheck.h>
#include <Qel/graph/support/SceneCheck.h>
#include <Qel/graph/support/ValueUses.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

void checkPassNames(const GraphDescription& graph, GraphErrors& errors)
{
    std::set<QString> names;
    std::set<QString> repeated;
    for (size_t i = 0; i < graph.passes.size(); ++i) {
        const QString& name = graph.passes[i].name;
        const GraphErrors::InPlace scope(errors, graph.passes[i].source);
        if (const QString error = nameError(name); !error.isEmpty()) {
            errors.add(u"passes[%1]"_s.arg(i), error);
        } else if (!names.insert(name).second && repeated.insert(name).second) {
            errors.add(name, u"more than one pass has this name"_s);
        }
    }
}

void checkParameters(const GraphDescription& graph, GraphErrors& errors)
{
    std::set<QString> names;
    for (const ParameterDescription& parameter : graph.parameters) {
        const QString place = u"parameters."_s + parameter.name;
        errors.add(place, nameError(parameter.name));
        if (!names.insert(parameter.name).second) {
            errors.add(place, u"more than one parameter has this name"_s);
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
PlannedPass planPass(OptionReader& options, const PassSetting& setting, const PassRegistry& registry,
                     GraphErrors& errors, TypeCache& cache, ResolvablePorts* ports)
{
    const GraphErrors::InPlace scope(errors, setting.source);
    PlannedPass pass;
    pass.name = setting.name;
    pass.type = setting.type;
    const PassRegistry::Type* type = registry.find(setting.type);
    if (!type) {
        errors.add(setting.name, [&] { return registry.unknownTypeError(setting.type); });
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
    pass.options = options.read(setting, description);
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

/// Whether a pass forgets all earlier frames at the start of each frame.
bool restartsEveryFrame(const PlannedPass& pass, const PassDescription& description)
{
    for (size_t i = 0; i < description.inputs.size(); ++i) {
        if (description.inputs[i].name != description.restartInput) {
            continue;
        }
        const PlannedInput& input = pass.inputs[i];
        if (input.source == InputSource::FrameValue) {
            return input.frameValue == FrameValue::NewFrame;
        }
        const QVariant& value =
            input.source == InputSource::Default ? description.inputs[i].defaultValue : input.constant;
        return input.source != InputSource::Connection && (!value.isValid() || value.toBool());
    }
    return false;
}

/// The number of frames that GraphPlan::runUpFrames documents.
int runUpFrames(const GraphPlan& plan, const PassRegistry& registry)
{
    int frames = 0;
    for (const int index : plan.order) {
        const PlannedPass& pass = plan.passes[static_cast<size_t>(index)];
        const PassDescription& description = *registry.description(pass.type);
        if (description.historyFrames == 0 || restartsEveryFrame(pass, description)) {
            continue;
        }
        if (description.historyFrames == PassDescription::unlimitedHistory) {
            return PassDescription::unlimitedHistory;
        }
        // What a pass remembers may itself depend on what an earlier pass remembers.
        frames += description.historyFrames;
    }
    return frames;
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
    checkParameters(graph, errors);
    const Parameters parameters(plan.graph);
    OptionReader options(graph, parameters, &plan.valueUses, errors);
    std::vector<ResolvablePorts> ports(graph.passes.size());
    TypeCache cache;
    for (size_t i = 0; i < graph.passes.size(); ++i) {
        plan.passes.push_back(planPass(options, graph.passes[i], registry, errors, cache, &ports[i]));
    }
    InputResolver resolver(plan, ports, parameters, errors);
    resolver.resolveInputs();
    resolver.resolveOutput();
    checkValueUses(plan, parameters, errors);
    cullUnusedPasses(plan);
    reportCycles(plan, errors);
    if (errors.count() > 0) {
        return {};
    }
    orderPasses(plan);
    plan.perspectiveNeeds = findPerspectiveNeeds(plan, registry);
    if (graph.camera && graph.camera->height) {
        for (const QString& need : std::as_const(plan.perspectiveNeeds)) {
            errors.addLine(graph.displayName() + u": "_s + need);
        }
    }
    plan.runUpFrames = runUpFrames(plan, registry);
    return errors.count() == 0 ? std::optional(std::move(plan)) : std::nullopt;
}

std::vector<ValueUse> GraphPlan::usesOf(const QString& parameter) const
{
    const Parameters parameters(graph);
    std::vector<ValueUse> uses;
    std::copy_if(valueUses.begin(), valueUses.end(), std::back_inserter(uses),
                 [&](const ValueUse& use) { return parameters.leadsTo(use.value, parameter); });
    return uses;
}

} // namespace Morvane::Qel
