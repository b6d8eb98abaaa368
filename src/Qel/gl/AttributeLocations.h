#pragma once

#include <QString>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// The location of an attribute, the same in every program and vertex array of the process: va_Vertex 0,
/// va_Normal 1, va_TexCoord 2, any other name the next free location when it is first used. -1 if all 16 are
/// taken.
QEL_GL_EXPORT int attributeLocation(const QString& name);

} // namespace Morvane::Qel
