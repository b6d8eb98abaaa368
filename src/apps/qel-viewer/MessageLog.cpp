#include "MessageLog.h"

#include <QRegularExpression>

#include <cstdio>
#include <mutex>
#include <utility>

#include <Qel/core/Diagnostics.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

/// Messages come from all threads.
std::mutex collectedMutex;
QStringList collected;
QtMessageHandler previousHandler = nullptr;

void collect(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (type == QtDebugMsg || type == QtFatalMsg) {
        previousHandler(type, context, text);
        return;
    }
    static const QRegularExpression location(u"^\\[[^\\]\\n]+:\\d+\\] "_s);
    const QString place = messagePlace().isEmpty() ? QString() : messagePlace() + u": "_s;
    const std::lock_guard lock(collectedMutex);
    collected.append(place + QString(text).remove(location));
}

} // namespace

MessageLog::MessageLog()
{
    previousHandler = qInstallMessageHandler(collect);
}

MessageLog::~MessageLog()
{
    qInstallMessageHandler(previousHandler);
    for (const QString& message : take()) {
        std::fprintf(stderr, "qel-viewer: %s\n", qUtf8Printable(message));
    }
}

QStringList MessageLog::take()
{
    const std::lock_guard lock(collectedMutex);
    return std::exchange(collected, {});
}

QStringList linesOf(const QString& message)
{
    static const QRegularExpression place(u"^.+:\\d+(:\\d+)?: "_s);
    QStringList lines;
    const QStringList all = message.split(u'\n');
    for (const QString& line : all) {
        if (place.match(line).hasMatch()) {
            lines.append(line);
        } else if (!lines.isEmpty()) {
            break; // The source follows.
        }
    }
    return lines.isEmpty() ? QStringList{all.first()} : lines;
}

} // namespace Morvane::Qel::Viewer
