#pragma once

#include <QStringList>

namespace Morvane::Qel {

/// The keys that a light of a type has in a graph file; all keys for an unknown type.
QStringList lightKeys(const QString& type);

} // namespace Morvane::Qel
