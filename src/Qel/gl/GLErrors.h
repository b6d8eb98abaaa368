#pragma once

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// Reports every pending GL error on the critical channel, "[file:line] OpenGL error GL_INVALID_ENUM".
QEL_GL_EXPORT void checkGLError(const char* file, int line);

/// The same, and returns whether one was pending.
QEL_GL_EXPORT bool hasGLError(const char* file, int line);

} // namespace Morvane::Qel
