#pragma once

#include <QString>

#include <Qel/core/Export.h>

namespace Morvane::Qel {

/// The longest line of a message, in characters, with all the foreign text that it quotes.
constexpr qsizetype longestLine = 400;

/// Returns text from outside, such as a name in a file or a driver's message, as it can stand in a one-line
/// message. Control characters, line separators and the invisible characters that reorder text become escapes
/// (`\n`, `\x1b`, `\u202e`), except that a tab becomes a space. Of a text that is then longer than `longest`,
/// the beginning and the end are kept, with the number of characters left out between them.
QEL_CORE_EXPORT QString printable(const QString& text, qsizetype longest = longestLine);

/// Returns a count for messages, with its thousands separated: "2,950".
QEL_CORE_EXPORT QString grouped(qsizetype number);

} // namespace Morvane::Qel
