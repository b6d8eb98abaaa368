#pragma once

#include <QRect>

#include <array>
#include <set>
#include <utility>

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

/// Returns all GL objects of the context with names up to a number, as pairs of a kind and a name.
inline std::set<std::pair<int, unsigned int>> liveObjects(unsigned int highestName = 2000)
{
    std::set<std::pair<int, unsigned int>> objects;
    for (unsigned int name = 1; name <= highestName; ++name) {
        const std::array<GLboolean, 7> exists{
            glIsTexture(name),     glIsFramebuffer(name),  glIsProgram(name), glIsBuffer(name),
            glIsVertexArray(name), glIsRenderbuffer(name), glIsQuery(name)};
        for (size_t kind = 0; kind < exists.size(); ++kind) {
            if (exists[kind] == GL_TRUE) {
                objects.insert({static_cast<int>(kind), name});
            }
        }
    }
    return objects;
}

/// Leaves GL state as an application might, different from what passes expect: what is enabled, set and bound
/// and, from GL 4.5 on, the parameters of all textures and the attachments of all framebuffers. The objects
/// that it creates are deleted with the context.
void leaveForeignState();

} // namespace Morvane::Qel::Test
