#pragma once

#include <QHash>
#include <QStringList>

#include <Qel/core/PassDescription.h>

namespace Morvane::Qel {

/// Full names of a pass's ports, in its order.
struct Ports
{
    QStringList inputs;
    QStringList outputs;
};
/// The ports of a description, followed by the host's if the host declares ports.
Ports portsOf(const PassDescription& description, const QStringList& hostInputs,
              const QStringList& hostOutputs);

/// Finds ports by the names that a graph gives them.
class PortIndex
{
public:
    explicit PortIndex(QStringList ports);

    const QStringList& ports() const { return m_ports; }
    /// Indices of the ports that a name stands for: the port with this full name, otherwise all with this
    /// short name.
    QList<int> find(const QString& name) const;
    /// The error message for a name for which `find` did not find exactly one port: `missing` with the
    /// nearest valid names, or the ports that the name may stand for.
    QString error(const QList<int>& found, const QString& name, const QString& missing) const;

private:
    QStringList m_ports;
    QHash<QString, int> m_fullNames;
    QHash<QString, QList<int>> m_shortNames;
};

/// The type of a port: the type field of its full name, with "bool" for "Bool" and "QVariant", which accepts
/// anything, for a name without type.
QString typeOf(const QString& port);

/// Short names of ports.
QStringList shortNames(const QStringList& ports);

} // namespace Morvane::Qel
