#include <Qel/core/Diagnostics.h>

#include <QDebug>
#include <QLoggingCategory>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

void logInformation(const char* file, int line, const QString& text)
{
    // Passes log in every frame, which must not allocate while debug output is off.
    if (QLoggingCategory::defaultCategory()->isDebugEnabled()) {
        qDebug("[%s:%d] %s", file, line, qUtf8Printable(text));
    }
}

void logNotice(const char* file, int line, const QString& text)
{
    qInfo("[%s:%d] %s", file, line, qUtf8Printable(text));
}

void logCritical(const char* file, int line, const QString& text)
{
    qCritical("[%s:%d] %s", file, line, qUtf8Printable(text));
}

void logFailedCheck(const char* file, int line, const char* condition, const QString& explanation)
{
    logCritical(file, line,
                u"[ !! ] Assertion '%1' failed: %2"_s.arg(QString::fromUtf8(condition), explanation));
}

} // namespace Morvane::Qel
