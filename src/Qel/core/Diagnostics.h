#pragma once

#include <QString>

#include <Qel/core/Export.h>

/// The fixed message formats of the passes, sent through Qt's message handler.
namespace Morvane::Qel {

/// "[file:line] text" on the debug channel, for information such as a program's log. Nothing is formatted
/// while the channel is off.
QEL_CORE_EXPORT void logInformation(const char* file, int line, const QString& text);

/// "[file:line] text" on the information channel, for what a user should see though nothing failed, such as
/// why a picture was replaced.
QEL_CORE_EXPORT void logNotice(const char* file, int line, const QString& text);

/// "[file:line] text" on the critical channel.
QEL_CORE_EXPORT void logCritical(const char* file, int line, const QString& text);

/// "[file:line] [ !! ] Assertion 'condition' failed: explanation" on the critical channel. Execution goes on;
/// the caller takes its failure path.
QEL_CORE_EXPORT void logFailedCheck(const char* file, int line, const char* condition,
                                    const QString& explanation);

} // namespace Morvane::Qel

/// Evaluates to whether condition holds; reports a failed check when it does not. `file` is the source path
/// that the message names.
#define QEL_CHECK(file, condition, explanation)                                                              \
    ((condition) ? true : (::Morvane::Qel::logFailedCheck(file, __LINE__, #condition, explanation), false))
