#include <Qel/graph/support/Ports.h>

#include <utility>

#include <Qel/graph/support/Names.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

Ports portsOf(const PassDescription& description, const QStringList& hostInputs,
              const QStringList& hostOutputs)
{
    Ports ports;
    for (const InputDescription& input : description.inputs) {
        ports.inputs.append(input.name);
    }
    for (const OutputDescription& output : description.outputs) {
        ports.outputs.append(output.name);
    }
    if (description.hostDeclaresPorts) {
        ports.inputs += hostInputs;
        ports.outputs += hostOutputs;
    }
    return ports;
}

PortIndex::PortIndex(QStringList ports)
    : m_ports(std::move(ports))
{
    // Of two ports with the same full name, the first counts.
    for (auto i = static_cast<int>(m_ports.size()) - 1; i >= 0; --i) {
        m_fullNames.insert(m_ports[i], i);
        m_shortNames[PortName::parse(m_ports[i]).name].prepend(i);
    }
}

QList<int> PortIndex::find(const QString& name) const
{
    const auto exact = m_fullNames.constFind(name);
    return exact == m_fullNames.constEnd() ? m_shortNames.value(name) : QList<int>{*exact};
}

QString PortIndex::error(const QList<int>& found, const QString& name, const QString& missing) const
{
    if (found.isEmpty()) {
        // Suggest full names for a full name.
        return missing +
               suggestion(name, name.startsWith(QLatin1StringView("Qel_")) ? m_ports : shortNames(m_ports));
    }
    QStringList names;
    for (const int index : found) {
        names.append(m_ports[index]);
    }
    return u"\"%1\" is ambiguous; write one of %2"_s.arg(name, quoted(names));
}

QString typeOf(const QString& port)
{
    const QString type = PortName::parse(port).type;
    if (type.isEmpty()) {
        return u"QVariant"_s;
    }
    return type == QLatin1StringView("Bool") ? u"bool"_s : type;
}

QStringList shortNames(const QStringList& ports)
{
    QStringList names;
    for (const QString& port : ports) {
        names.append(PortName::parse(port).name);
    }
    return names;
}

} // namespace Morvane::Qel
