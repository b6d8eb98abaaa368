#pragma once

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// Reports every pending GL error as critical, in the form "[file:line] OpenGL error GL_INVALID_ENUM".
QEL_GL_EXPORT void checkGLError(const char* file, int line);

/// Reports every pending GL error like checkGLError and returns whether there was one.
QEL_GL_EXPORT bool hasGLError(const char* file, int line);

} // namespace Morvane::Qel
