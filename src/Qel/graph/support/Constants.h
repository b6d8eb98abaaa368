#pragma once

#include <QJsonValue>
#include <QString>
#include <QVariant>

#include <optional>

namespace Morvane::Qel {

struct GraphDescription;

/// A JSON value as the constant that a port of this type field takes; null gives an invalid value, "not set".
/// Nothing when it does not convert, with what would be right in `error`.
std::optional<QVariant> constantFromJson(const QJsonValue& value, const QString& type, QString* error);

/// The same for a port of a graph: paths are made absolute and must name files.
std::optional<QVariant> portConstant(const GraphDescription& graph, const QString& port,
                                     const QJsonValue& value, QString* error);

/// What is wrong with a path of a graph that must name a readable file; empty when nothing is.
QString fileFault(const GraphDescription& graph, const QString& path);

/// A value as one line of JSON.
QString jsonText(const QJsonValue& value);

} // namespace Morvane::Qel
