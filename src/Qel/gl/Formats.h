#pragma once

#include <QString>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// The base format of pixels that match a GL internal format, for glTexImage: GL_R32UI gives GL_RED_INTEGER,
/// depth formats GL_DEPTH_COMPONENT or GL_DEPTH_STENCIL. 0 for a format that the library does not know.
QEL_GL_EXPORT unsigned int formatFromInternalFormat(unsigned int internalFormat);

/// The component type of such pixels: GL_R32UI gives GL_UNSIGNED_INT. 0 for an unknown format.
QEL_GL_EXPORT unsigned int typeFromInternalFormat(unsigned int internalFormat);

/// The name of an internal format, "GL_RGBA16F"; its number in hexadecimal when it is unknown.
QEL_GL_EXPORT QString internalFormatName(unsigned int internalFormat);

} // namespace Morvane::Qel
