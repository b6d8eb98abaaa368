#include <Qel/core/RenderPassHelper.h>

#include <Qel/core/Diagnostics.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// The port at an index, null if it does not exist.
template<class Ports>
auto* portAt(Ports& ports, int index)
{
    return index >= 0 && static_cast<size_t>(index) < ports.size() ? &ports[static_cast<size_t>(index)]
                                                                   : nullptr;
}

/// The port at an index; one that does not exist is reported.
template<class Ports>
auto* writablePortAt(Ports& ports, int index, const char* kind)
{
    auto* port = portAt(ports, index);
    if (!port) {
        logCritical(__FILE__, __LINE__,
                    u"there is no %1 %2; the pass has %3"_s.arg(QLatin1StringView(kind))
                        .arg(index)
                        .arg(ports.size()));
    }
    return port;
}

template<class Port>
int findPort(const std::vector<Port>& ports, const QString& name)
{
    for (size_t i = 0; i < ports.size(); ++i) {
        if (ports[i].name == name) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

} // namespace

RenderPassHelper::RenderPassHelper() = default;

RenderPassHelper::~RenderPassHelper() = default;

void RenderPassHelper::setup(RenderCallbacks* /*callbacks*/) {}

void RenderPassHelper::beginFrame(RenderCallbacks* /*callbacks*/) {}

void RenderPassHelper::start(RenderCallbacks* /*callbacks*/) {}

void RenderPassHelper::endFrame(RenderCallbacks* /*callbacks*/) {}

bool RenderPassHelper::isFinished() const
{
    return true;
}

void RenderPassHelper::teardown(RenderCallbacks* /*callbacks*/) {}

int RenderPassHelper::numInputs() const
{
    return static_cast<int>(m_inputs.size());
}

int RenderPassHelper::numOutputs() const
{
    return static_cast<int>(m_outputs.size());
}

QString RenderPassHelper::inputName(int index) const
{
    const Input* input = portAt(m_inputs, index);
    return input ? input->name : QString();
}

QString RenderPassHelper::outputName(int index) const
{
    const Output* output = portAt(m_outputs, index);
    return output ? output->name : QString();
}

void RenderPassHelper::setInput(int index, const QVariant& value)
{
    if (Input* input = writablePortAt(m_inputs, index, "input")) {
        input->value = value;
    }
}

QVariant RenderPassHelper::defaultValue(int index) const
{
    const Input* input = portAt(m_inputs, index);
    return input ? input->defaultValue : QVariant();
}

void RenderPassHelper::setDefaultValue(int index, const QVariant& value)
{
    if (Input* input = writablePortAt(m_inputs, index, "input")) {
        input->defaultValue = value;
    }
}

QVariant RenderPassHelper::output(int index) const
{
    const Output* output = portAt(m_outputs, index);
    return output ? output->value : QVariant();
}

void RenderPassHelper::setNumOutputUsers(int index, int users)
{
    if (Output* output = writablePortAt(m_outputs, index, "output")) {
        output->users = users;
    }
}

void RenderPassHelper::resetNumOutputUsers()
{
    for (Output& output : m_outputs) {
        output.users = 0;
    }
}

unsigned int RenderPassHelper::errorCode() const
{
    return m_errorCode;
}

void RenderPassHelper::setErrorCode(unsigned int code)
{
    m_errorCode = code;
}

int RenderPassHelper::findInput(const QString& name) const
{
    return findPort(m_inputs, name);
}

int RenderPassHelper::findOutput(const QString& name) const
{
    return findPort(m_outputs, name);
}

void RenderPassHelper::addInput(const QString& name, const QVariant& defaultValue)
{
    m_inputs.push_back({name, defaultValue, defaultValue});
}

void RenderPassHelper::addOutput(const QString& name)
{
    m_outputs.push_back({name, {}, 0});
}

void RenderPassHelper::declarePorts(const PassDescription& description)
{
    for (const InputDescription& input : description.inputs) {
        addInput(input.name, input.defaultValue);
    }
    for (const OutputDescription& output : description.outputs) {
        addOutput(output.name);
    }
}

} // namespace Morvane::Qel
