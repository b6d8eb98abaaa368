#pragma once

#include <QStringList>

namespace Morvane::Qel::Viewer {

/// Collects the messages of the library and of Qt while it lives, with the pass that they come from in front.
/// Only one can exist. What nobody takes goes to standard error at its end.
class MessageLog
{
public:
    MessageLog();
    ~MessageLog();
    MessageLog(const MessageLog&) = delete;
    MessageLog& operator=(const MessageLog&) = delete;

    /// Returns and forgets the messages so far, each with all its lines.
    static QStringList take();
};

/// Splits a compiler's message, whose first line names the program and whose last lines repeat its source,
/// into the lines that name a file; returns any other message as it is.
QStringList linesOf(const QString& message);

} // namespace Morvane::Qel::Viewer
