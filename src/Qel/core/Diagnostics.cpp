#include <Qel/core/Diagnostics.h>

#include <QDebug>
#include <QLoggingCategory>
#include <QStringList>

#include <utility>

#include <Qel/core/Text.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// A message as UTF-8; the reports of compilers have several lines.
QByteArray messageText(const QString& text)
{
    QStringList lines = text.split(u'\n');
    for (QString& line : lines) {
        line = printable(line);
    }
    return lines.join(u'\n').toUtf8();
}

// A pointer, because it changes twice for every pass of a frame.
thread_local constinit const QString* currentPlace = nullptr;

} // namespace

void logInformation(const char* file, int line, const QString& text)
{
    // Passes log in every frame, which must not allocate while debug output is off.
    if (QLoggingCategory::defaultCategory()->isDebugEnabled()) {
        qDebug("[%s:%d] %s", file, line, messageText(text).constData());
    }
}

void logNotice(const char* file, int line, const QString& text)
{
    qInfo("[%s:%d] %s", file, line, messageText(text).constData());
}

void logCritical(const char* file, int line, const QString& text)
{
    qCritical("[%s:%d] %s", file, line, messageText(text).constData());
}

void logFailedCheck(const char* file, int line, const char* condition, const QString& explanation)
{
    logCritical(file, line,
                u"[ !! ] Assertion '%1' failed: %2"_s.arg(QString::fromUtf8(condition), explanation));
}

MessagePlace::MessagePlace(const QString* place)
    : m_former(std::exchange(currentPlace, place))
{
}

MessagePlace::~MessagePlace()
{
    currentPlace = m_former;
}

QString messagePlace()
{
    return currentPlace ? *currentPlace : QString();
}

} // namespace Morvane::Qel
