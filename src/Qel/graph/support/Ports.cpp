#include <Qel/graph/support/Ports.h>

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

QList<int> findPorts(const QStringList& ports, const QString& name)
{
    if (const qsizetype exact = ports.indexOf(name); exact >= 0) {
        return {static_cast<int>(exact)};
    }
    QList<int> found;
    for (qsizetype i = 0; i < ports.size(); ++i) {
        if (PortName::parse(ports[i]).name == name) {
            found.append(static_cast<int>(i));
        }
    }
    return found;
}

QString portError(const QStringList& ports, const QList<int>& found, const QString& name,
                  const QString& missing)
{
    if (found.isEmpty()) {
        // Suggest full names for a full name.
        return missing +
               suggestion(name, name.startsWith(QLatin1StringView("Qel_")) ? ports : shortNames(ports));
    }
    QStringList names;
    for (const int index : found) {
        names.append(ports[index]);
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
