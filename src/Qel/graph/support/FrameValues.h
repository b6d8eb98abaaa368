#pragma once

#include <QStringList>

#include <optional>

#include <Qel/graph/GraphPlan.h>

namespace Morvane::Qel {

inline constexpr size_t numFrameValues = 12;

/// The frame value of a name.
std::optional<FrameValue> findFrameValue(const QString& name);

/// The type field of ports that take a frame value.
QString typeOf(FrameValue value);

QStringList allFrameValueNames();

} // namespace Morvane::Qel
