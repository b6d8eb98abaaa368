#pragma once

#include <QSize>

#include <memory>
#include <string>
#include <vector>

#include <Qel/gl/Texture.h>

namespace Morvane::Qel::Bench {

/// \name Plain GL
/// Objects for the plain GL side of a benchmark. The caller deletes them.
/// @{

/// Returns a linked program. Attribute i and fragment output i get location i. A build error ends the
/// benchmarks.
unsigned int linkProgram(const std::string& vertexSource, const std::string& fragmentSource,
                         const std::vector<const char*>& attributes = {},
                         const std::vector<const char*>& outputs = {});

/// The source of a vertex shader for one oversized triangle, drawn without attributes; the texture coordinate
/// is the output `uv`.
extern const char* const fullScreenVertexSource;

/// Returns a GL_TEXTURE_2D with one level, clamped to its edge, and leaves it bound to the active unit.
/// `filter` is both its minification and its magnification filter.
unsigned int makeTexture(const QSize& size, unsigned int internalFormat, unsigned int format,
                         unsigned int type, unsigned int filter, const void* texels = nullptr);

/// Returns a framebuffer with these colour textures, all of them draw buffers, and a depth texture if it is
/// not 0. Leaves framebuffer 0 bound.
unsigned int makeFramebuffer(const std::vector<unsigned int>& colours, unsigned int depth = 0);
/// @}

/// Returns a texture of the library with linear filtering, clamped to its edge, 8 bits a channel. Contents
/// are undefined if `texels` is null.
std::unique_ptr<Texture> makeLinearTexture(const QSize& size, const void* texels,
                                           unsigned int internalFormat = 0x8058 /* GL_RGBA8 */,
                                           unsigned int format = 0x1908 /* GL_RGBA */);

/// Makes the library forget what plain GL calls left bound, and sets the state that passes start from.
void applyBaseState();

} // namespace Morvane::Qel::Bench
