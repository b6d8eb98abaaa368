#pragma once

#include <QRect>

#include <array>

#include <epoxy/gl.h>

namespace Morvane::Qel::Test {

/// Queries an integer state from GL.
inline unsigned int stateInGL(GLenum name)
{
    int value = -1;
    glGetIntegerv(name, &value);
    return static_cast<unsigned int>(value);
}

/// Queries the viewport from GL.
inline QRect viewportInGL()
{
    std::array<int, 4> viewport{};
    glGetIntegerv(GL_VIEWPORT, viewport.data());
    return {viewport[0], viewport[1], viewport[2], viewport[3]};
}

/// Queries the name of the 2D texture on a unit, which becomes the active one.
inline unsigned int textureAt(int unit)
{
    glActiveTexture(GL_TEXTURE0 + static_cast<unsigned int>(unit));
    return stateInGL(GL_TEXTURE_BINDING_2D);
}

} // namespace Morvane::Qel::Test
