#pragma once

#include <QJsonValue>
#include <QString>

namespace Morvane::Qel::App {

/// Returns a text as JSON; null for an empty one.
inline QJsonValue textOrNull(const QString& text)
{
    return text.isEmpty() ? QJsonValue() : QJsonValue(text);
}

} // namespace Morvane::Qel::App
