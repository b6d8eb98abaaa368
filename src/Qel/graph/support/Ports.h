#pragma once

#include <QStringList>

#include <Qel/core/PassDescription.h>

namespace Morvane::Qel {

/// The full names of a pass's ports in its order: those of its description, then those that its options name
/// when the host declares ports.
struct Ports
{
    QStringList inputs;
    QStringList outputs;
};
Ports portsOf(const PassDescription& description, const QStringList& hostInputs,
              const QStringList& hostOutputs);

/// The ports of a list that a graph means by a name: the one of this full name, else all of this own name.
/// Indices into the list.
QList<int> findPorts(const QStringList& ports, const QString& name);

/// What is wrong with a name that does not mean exactly one port of a list: `missing` with the nearest names,
/// or the ports among which `found` leaves the choice.
QString portFault(const QStringList& ports, const QList<int>& found, const QString& name,
                  const QString& missing);

/// The type field of a port, one spelling for each type: "bool" for "Bool", "QVariant", which takes anything,
/// for a name that tells no type.
QString typeOf(const QString& port);

/// How messages name ports: by their own names.
QStringList ownNames(const QStringList& ports);

} // namespace Morvane::Qel
