#pragma once

#include <QString>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// Reports every pending GL error as critical, in the form "[file:line] OpenGL error GL_INVALID_ENUM".
QEL_GL_EXPORT void checkGLError(const char* file, int line);

/// Reports every pending GL error like checkGLError and returns whether there was one.
QEL_GL_EXPORT bool hasGLError(const char* file, int line);

/// Returns the first GL error that was reported on the calling thread since the last call, such as
/// "GL_INVALID_VALUE in glViewport(0, 0, -1, 1)"; empty if there was none. Errors are reported by the two
/// functions above and, with a debug context, by the driver, which also names the call.
QEL_GL_EXPORT QString takeGLError();

/// Keeps an error for takeGLError. Private to this library.
void keepGLError(const QString& error);

} // namespace Morvane::Qel
