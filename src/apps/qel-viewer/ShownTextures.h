#pragma once

#include <QSharedPointer>
#include <QVariant>

#include <map>
#include <memory>

#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>

namespace Morvane::Qel::Viewer {

/// Finds the textures that stand for the values of outputs on the screen. The context must be current.
class ShownTextures
{
public:
    /// Texels of a buffer texture in a row, unless there are more than `rowLength * rowLength`.
    static constexpr int rowLength = 64;

    /// Returns the texture that a value holds, or the shadow maps of a record of lights. For a buffer
    /// texture, returns a 2D texture with its texels in rows, from the lower left on, filled up with 0; it is
    /// made anew at every call and valid until `release`. Null for any other value.
    Texture* of(const QVariant& value);
    void release();

private:
    struct Rows
    {
        std::unique_ptr<Texture> texture;
        std::unique_ptr<FramebufferObject> framebuffer;
    };
    struct Program
    {
        std::unique_ptr<ShaderProgram> program;
        QSharedPointer<DrawBuffers> batch;
        Uniform texels{"u_Texels"};
    };
    Texture* rowsOf(Texture& buffer);

    /// By the serial numbers of the buffer textures.
    std::map<quint64, Rows> m_rows;
    /// By the prefixes of the sampler types.
    std::map<QString, Program> m_programs;
};

/// A value as text, a matrix as a table.
QString tableFromValue(const QVariant& value);

} // namespace Morvane::Qel::Viewer
