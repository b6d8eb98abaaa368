#pragma once

#include <QJsonValue>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <optional>

namespace Morvane::Qel {

struct GraphDescription;

/// Converts a JSON value to a constant of a port type; null gives an invalid QVariant, which means "not set".
/// Returns nothing if it does not convert, with what was expected in `error`.
std::optional<QVariant> constantFromJson(const QJsonValue& value, const QString& type, QString* error);

/// Converts a JSON value to a constant for a port of a graph. A string port takes the path of an existing
/// file, which becomes absolute (GraphDescription::resolvePath).
std::optional<QVariant> portConstant(const GraphDescription& graph, const QString& port,
                                     const QJsonValue& value, QString* error, const QString& writtenIn = {});

/// The error message for a path in a graph that must name a readable file; empty if it does.
QString fileError(const GraphDescription& graph, const QString& path, const QString& writtenIn = {});

/// A value as one line of JSON.
QString jsonText(const QJsonValue& value);

/// The value of a JSON text; undefined if it is not valid.
QJsonValue valueFromJson(const QString& text);

/// An object in which the member at a path of names has another value.
QJsonValue withMember(const QJsonValue& object, const QStringList& path, const QJsonValue& value);

/// A value as JSON for messages, at most 60 characters of it.
QString shownValue(const QJsonValue& value);

} // namespace Morvane::Qel
