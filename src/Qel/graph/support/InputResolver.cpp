#include <Qel/graph/support/InputResolver.h>

#include <algorithm>

#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/FrameValues.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/ModelMerges.h>
#include <Qel/graph/support/Names.h>
#include <Qel/graph/support/Ports.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

const QLatin1StringView textureType("QelTexture*");
const QLatin1StringView modelType("QelGPUModel*");
const QLatin1StringView batchesType("QelDrawBuffers*");

bool isReference(InputSource source)
{
    return source != InputSource::Default && source != InputSource::Constant;
}

bool accepts(const QString& inputType, const QString& type)
{
    return inputType == QLatin1StringView("QVariant") || inputType == type;
}

} // namespace

InputResolver::InputResolver(GraphPlan& plan, const std::vector<ResolvablePorts>& ports,
                             const Parameters& parameters, GraphErrors& errors)
    : m_plan(plan)
    , m_ports(ports)
    , m_parameters(parameters)
    , m_errors(errors)
    , m_onlyWhole(ModelMerges(plan.graph.models).onlyWhole())
{
    // Of several with the same name, the first counts.
    const std::vector<ModelDescription>& models = plan.graph.models;
    for (size_t i = plan.passes.size(); i-- > 0;) {
        m_passes.insert(plan.passes[i].name, static_cast<int>(i));
    }
    for (size_t i = models.size(); i-- > 0;) {
        m_models.insert(models[i].name, static_cast<int>(i));
    }
}

void InputResolver::resolveInputs()
{
    for (size_t i = 0; i < m_plan.passes.size(); ++i) {
        if (m_ports[i].known) {
            resolvePass(i);
        }
    }
}

void InputResolver::resolvePass(size_t index)
{
    PlannedPass& pass = m_plan.passes[index];
    const SourcePlace& source = m_plan.graph.passes[index].source;
    const GraphErrors::InPlace scope(m_errors, source);
    std::vector<int> timesSet(pass.inputs.size(), 0);
    for (const InputSetting& setting : m_plan.graph.passes[index].inputs) {
        const QString place = pass.name + u'.' + setting.port;
        const int port =
            findPort(*m_ports[index].inputs, setting.port, place, u"%1 has no such input"_s.arg(pass.type));
        if (port < 0) {
            continue;
        }
        const int times = ++timesSet[static_cast<size_t>(port)];
        if (times == 1) {
            PlannedInput& input = pass.inputs[static_cast<size_t>(port)];
            const ResolvedValue value = m_parameters.resolve(setting.value, 0.0);
            resolveInput(place, value, source, port < m_ports[index].numDescribedInputs, &input);
            if (value.parameter || !value.keyed.isUndefined()) {
                m_plan.valueUses.push_back({place, setting.value, source, static_cast<int>(index), port,
                                            !value.keyed.isUndefined(), isReference(input.source)});
            }
        } else if (times == 2) {
            m_errors.add(place, u"set more than once"_s);
        }
    }
    for (size_t port = 0; port < timesSet.size(); ++port) {
        if (timesSet[port] == 0) {
            setFrameValue(pass.name, &pass.inputs[port]);
        }
    }
}

void InputResolver::resolveInput(const QString& place, const ResolvedValue& value, const SourcePlace& source,
                                 bool isDescribed, PlannedInput* input)
{
    if (!value.error.isEmpty()) {
        m_errors.add(place, value.error);
        return;
    }
    const GraphErrors::InPlace scope(m_errors, source, value.holder);
    if (value.value.toString().startsWith(u'@')) {
        const QString reference = value.value.toString().sliced(1);
        if (reference.contains(u'.')) {
            resolveConnection(place, reference, input);
        } else {
            resolveNamedValue(place, reference, isDescribed, input);
        }
        return;
    }
    QString error;
    const std::optional<QVariant> constant =
        portConstant(m_plan.graph, input->port, value.value, &error, value.file(source));
    if (!constant) {
        m_errors.add(place, error);
        return;
    }
    input->source = InputSource::Constant;
    input->constant = *constant;
}

void InputResolver::resolveConnection(const QString& place, const QString& reference, PlannedInput* input)
{
    const std::optional<OutputReference> source = findOutput(place, reference);
    if (!source) {
        return;
    }
    const QString type = typeOf(input->port);
    const QString from = typeOf(m_plan.passes[static_cast<size_t>(source->pass)].outputs[source->output]);
    if (!accepts(type, from)) {
        m_errors.add(place, u"expects %1, but \"@%2\" is %3"_s.arg(type, reference, from));
        return;
    }
    input->source = InputSource::Connection;
    input->pass = source->pass;
    input->output = source->output;
}

/// The value of "@name": a model or a frame value.
void InputResolver::resolveNamedValue(const QString& place, const QString& name, bool isDescribed,
                                      PlannedInput* input)
{
    const QString type = typeOf(input->port);
    if (const int model = m_models.value(name, -1); model >= 0) {
        // Only described ports take a list of batches; a port declared in the graph takes a single batch.
        const bool takesBatches = isDescribed && type == batchesType;
        if (!takesBatches && !accepts(type, modelType)) {
            m_errors.add(place,
                         u"expects %1, but \"@%2\" is a model%3"_s.arg(
                             type, name,
                             type == batchesType ? u"; give the port the type QelGPUModel*"_s : QString()));
            return;
        }
        input->source = InputSource::Model;
        input->model = model;
        input->takesBatches = takesBatches;
    } else if (const std::optional<FrameValue> value = findFrameValue(name)) {
        const QString from = typeOf(*value);
        if (!accepts(type, from)) {
            m_errors.add(place, u"expects %1, but \"@%2\" is %3"_s.arg(type, name, from));
            return;
        }
        input->source = InputSource::FrameValue;
        input->frameValue = *value;
    } else if (const int pass = findPass(name); pass >= 0) {
        if (m_ports[static_cast<size_t>(pass)].known) {
            const QStringList outputs = shortNames(m_plan.passes[static_cast<size_t>(pass)].outputs);
            m_errors.add(place, outputs.isEmpty()
                                    ? u"pass \"%1\" has no outputs"_s.arg(name)
                                    : u"\"@%1\" is a pass; write \"@%1.%2\""_s.arg(name, outputs[0]));
        }
    } else {
        m_errors.add(place, [&] {
            return unknownName(u"model or frame value"_s, name, modelNames() + allFrameValueNames());
        });
    }
}

/// Sets an input that the graph does not mention to the frame value of its name and type, if there is one.
void InputResolver::setFrameValue(const QString& passName, PlannedInput* input)
{
    const PortName port = PortName::parse(input->port);
    if (port.name == QLatin1StringView("Geometry") && port.type == modelType) {
        const std::vector<ModelDescription>& models = m_plan.graph.models;
        if (m_onlyWhole >= 0) {
            input->source = InputSource::Model;
            input->model = m_onlyWhole;
        } else if (models.size() > 1) {
            m_errors.add(passName + u'.' + port.name,
                         u"the graph has %1 models; choose one, such as \"@%2\""_s.arg(models.size())
                             .arg(models[0].name));
        }
    } else if (const std::optional<FrameValue> value = findFrameValue(port.name);
               value && typeOf(*value) == port.type) {
        input->source = InputSource::FrameValue;
        input->frameValue = *value;
    }
}

/// The output that "pass.Port" names. Nothing on an error, which is not reported if it follows from another.
std::optional<InputResolver::OutputReference> InputResolver::findOutput(const QString& place,
                                                                        const QString& reference)
{
    const QString passName = reference.section(u'.', 0, 0);
    const QString portName = reference.section(u'.', 1);
    const int pass = findPass(passName);
    if (pass < 0) {
        m_errors.add(place, [&] { return unknownName(u"pass"_s, passName, passNames()); });
        return {};
    }
    if (!m_ports[static_cast<size_t>(pass)].known) {
        return {};
    }
    const int output = findPort(*m_ports[static_cast<size_t>(pass)].outputs, portName, place,
                                u"pass \"%1\" has no output \"%2\""_s.arg(passName, portName));
    return output < 0 ? std::nullopt : std::optional(OutputReference{pass, output});
}

/// Index of the port that a name stands for; -1 with an error unless there is exactly one.
int InputResolver::findPort(const PortIndex& ports, const QString& name, const QString& place,
                            const QString& missing)
{
    const QList<int> found = ports.find(name);
    if (found.size() == 1) {
        return found[0];
    }
    m_errors.add(place, [&] { return ports.error(found, name, missing); });
    return -1;
}

QStringList InputResolver::passNames() const
{
    QStringList names;
    for (const PlannedPass& pass : m_plan.passes) {
        names.append(pass.name);
    }
    return names;
}

QStringList InputResolver::modelNames() const
{
    QStringList names;
    for (const ModelDescription& model : m_plan.graph.models) {
        names.append(model.name);
    }
    return names;
}

void InputResolver::resolveOutput()
{
    const QString place = u"output"_s;
    const QString& output = m_plan.graph.output;
    if (output.isEmpty()) {
        const bool drawsToScreen =
            std::any_of(m_plan.passes.begin(), m_plan.passes.end(),
                        [](const PlannedPass& pass) { return pass.outputs.isEmpty(); });
        if (!drawsToScreen) {
            m_errors.add(place, u"the graph has no output and no pass that draws to the screen; write "
                                "\"output\": \"@pass.Port\""_s);
        }
        return;
    }
    if (!output.startsWith(u'@') || !output.contains(u'.')) {
        m_errors.add(place, u"must be \"@pass.Port\", not \"%1\""_s.arg(output));
        return;
    }
    const std::optional<OutputReference> source = findOutput(place, output.sliced(1));
    if (!source) {
        return;
    }
    const QString type = typeOf(m_plan.passes[static_cast<size_t>(source->pass)].outputs[source->output]);
    if (type != textureType) {
        m_errors.add(place, u"must be a texture, but \"%1\" is %2"_s.arg(output, type));
        return;
    }
    m_plan.outputPass = source->pass;
    m_plan.outputPort = source->output;
}

} // namespace Morvane::Qel
