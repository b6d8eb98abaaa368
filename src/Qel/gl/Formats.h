#pragma once

#include <QString>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// Returns the pixel format that matches an internal format in glTexImage: GL_RED_INTEGER for GL_R32UI,
/// GL_DEPTH_COMPONENT or GL_DEPTH_STENCIL for depth formats, 0 for an unknown format.
QEL_GL_EXPORT unsigned int formatFromInternalFormat(unsigned int internalFormat);

/// Returns the pixel type that matches an internal format in glTexImage: GL_UNSIGNED_INT for GL_R32UI, 0 for
/// an unknown format.
QEL_GL_EXPORT unsigned int typeFromInternalFormat(unsigned int internalFormat);

/// Returns the bytes of a texel of an internal format; 0 for an unknown format.
QEL_GL_EXPORT int bytesPerTexel(unsigned int internalFormat);

/// Whether the texels of an internal format are integers; false for an unknown format.
QEL_GL_EXPORT bool isIntegerFormat(unsigned int internalFormat);

/// Returns the name of an internal format, such as "GL_RGBA16F"; its hexadecimal number if it is unknown.
QEL_GL_EXPORT QString internalFormatName(unsigned int internalFormat);

} // namespace Morvane::Qel
