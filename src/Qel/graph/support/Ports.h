#pragma once

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

/// Indices of the ports that a name in a graph stands for: the port with this full name, otherwise all with
/// this short name.
QList<int> findPorts(const QStringList& ports, const QString& name);

/// The error message for a name for which findPorts did not find exactly one port: `missing` with the nearest
/// valid names, or the ports that the name may stand for.
QString portError(const QStringList& ports, const QList<int>& found, const QString& name,
                  const QString& missing);

/// The type of a port: the type field of its full name, with "bool" for "Bool" and "QVariant", which accepts
/// anything, for a name without type.
QString typeOf(const QString& port);

/// Short names of ports.
QStringList shortNames(const QStringList& ports);

} // namespace Morvane::Qel
