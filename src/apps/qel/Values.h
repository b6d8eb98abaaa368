#pragma once

#include <QJsonValue>
#include <QString>
#include <QVariant>

namespace Morvane::Qel::App {

/// A port's value as graph files write it: numbers, texts, "#rrggbb" or "#rrggbbaa" colours, arrays for
/// vectors, rectangles (x, y, width, height) and matrices (16 numbers, row by row). Null for an invalid value
/// or a null pointer; the name of the type, such as "Morvane::Qel::GPUModel*", for what has no such form.
QJsonValue jsonFromValue(const QVariant& value);

/// The same as text.
QString textFromValue(const QVariant& value);

} // namespace Morvane::Qel::App
