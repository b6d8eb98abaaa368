#pragma once

#include <QJsonValue>
#include <QString>

#include <functional>

#include <Qel/graph/GraphDescription.h>

namespace Morvane::Qel {

/// Sets a member of a graph outside the passes, named as in messages: "viewport", "camera.eye",
/// "lights[0].intensity". Returns false with what is wrong in `error` if there is no such member or the value
/// does not fit.
bool setMember(GraphDescription* graph, const QString& place, const QJsonValue& value, QString* error);

/// Sets members that are bound to parameters or keys to their values in a frame. On failure the graph stays
/// as it was; returns false with the place and what is wrong in `error`.
bool updateBoundValues(GraphDescription* graph, const std::function<bool(const BoundValue&)>& isWanted,
                       double frame, QString* error);

} // namespace Morvane::Qel
