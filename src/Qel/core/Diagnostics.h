#pragma once

#include <QString>

#include <Qel/core/Export.h>

/// Messages in fixed formats, sent through Qt's message handler. Every line of their text is made printable
/// (Text.h).
namespace Morvane::Qel {

/// Logs "[file:line] text" at debug level, for details such as a program's log. Formats nothing while debug
/// output is off.
QEL_CORE_EXPORT void logInformation(const char* file, int line, const QString& text);

/// Logs "[file:line] text" at info level, for what a user should know although nothing failed, such as why an
/// image was replaced.
QEL_CORE_EXPORT void logNotice(const char* file, int line, const QString& text);

/// Logs "[file:line] text" at critical level.
QEL_CORE_EXPORT void logCritical(const char* file, int line, const QString& text);

/// Logs "[file:line] [ !! ] Assertion 'condition' failed: explanation" at critical level. Execution
/// continues; the caller takes its error path.
QEL_CORE_EXPORT void logFailedCheck(const char* file, int line, const char* condition,
                                    const QString& explanation);

/// Says, for its lifetime, what the calling thread works on, such as "glow.json: blur" while that pass runs.
class QEL_CORE_EXPORT MessagePlace
{
public:
    /// Null stands for nothing. `place` must outlive this object.
    explicit MessagePlace(const QString* place);
    /// Restores the former place.
    ~MessagePlace();
    MessagePlace(const MessagePlace&) = delete;
    MessagePlace& operator=(const MessagePlace&) = delete;

private:
    const QString* m_former;
};
/// What the calling thread works on, empty if nothing was said. A message handler can put it before a
/// message, whose text has no place.
QEL_CORE_EXPORT QString messagePlace();

} // namespace Morvane::Qel

/// Evaluates to whether the condition holds and reports a failed check if it does not. `file` is the source
/// path in the message.
#define QEL_CHECK(file, condition, explanation)                                                              \
    ((condition) ? true : (::Morvane::Qel::logFailedCheck(file, __LINE__, #condition, explanation), false))
