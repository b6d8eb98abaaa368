#pragma once

#include <QObject>
#include <QSharedPointer>

#include <vector>

#include <Qel/gl/Bindable.h>

namespace Morvane::Qel {

class BufferObject;
class VertexArrayObject;

/// The parameters of an indexed indirect draw, in GL's order.
struct DrawElementsIndirectCommand
{
    unsigned int count = 0;
    unsigned int instanceCount = 0;
    unsigned int firstIndex = 0;
    unsigned int baseVertex = 0;
    unsigned int baseInstance = 0;

    constexpr DrawElementsIndirectCommand() = default;
    constexpr DrawElementsIndirectCommand(unsigned int indices, unsigned int instances, unsigned int first,
                                          unsigned int vertex, unsigned int instance)
        : count(indices)
        , instanceCount(instances)
        , firstIndex(first)
        , baseVertex(vertex)
        , baseInstance(instance)
    {
    }
};

/// A batch of primitives: a vertex array, a primitive type and either a vertex count or an index buffer.
class QEL_GL_EXPORT DrawBuffers : public QObject, public Bindable
{
    Q_OBJECT
public:
    explicit DrawBuffers(QObject* parent = nullptr);
    ~DrawBuffers() override;

    void setVAO(const QSharedPointer<VertexArrayObject>& vertexArray);
    const QSharedPointer<VertexArrayObject>& VAO() const { return m_vertexArray; }
    /// Sets GL_TRIANGLES (the default), GL_LINES, GL_POINTS, ...
    void setPrimitiveType(unsigned int type);
    unsigned int primitiveType() const { return m_primitiveType; }
    void setVertexCount(int count);
    /// Makes draw use the first `count` indices of a buffer, of a GL type such as GL_UNSIGNED_INT.
    void setIndexedDraw(const QSharedPointer<BufferObject>& buffer, int count, unsigned int type);
    const QSharedPointer<BufferObject>& indexBO() const { return m_indexBuffer; }
    /// The number of indices, or of vertices if there is no index buffer.
    int count() const { return m_indexBuffer ? m_indexCount : m_vertexCount; }

    /// Sets commands in which shaders look up a draw's first index and base vertex; draw ignores them.
    void setDrawElementsIndirectCommands(const DrawElementsIndirectCommand* commands, int count);
    const std::vector<DrawElementsIndirectCommand>& drawElementsIndirectCommands() const
    {
        return m_commands;
    }
    /// Returns the commands as the std140 block "DrawElementsIndirectCommands", whose elements are 32 bytes
    /// apart and hold the five values in GL's order; binding the buffer binds the block. A batch without
    /// commands has one that describes its draw call. Created on first use and kept until the contents
    /// change.
    QSharedPointer<BufferObject> getDrawElementsIndirectCommandsUniformBufferObject();

    /// Binds the vertex array.
    void bind() override;
    void release() override;
    /// Draws with the current program; the batch must be bound. With tessellation stages, each point, line
    /// or triangle is a patch of one, two or three vertices, with adjacency of four or six; GL_PATCHES are
    /// drawn as they are; strips, loops and fans are refused and reported. Returns false and draws nothing if
    /// no valid program is current or the batch has no vertex array.
    bool draw();

private:
    void forgetImpliedCommand();

    QSharedPointer<VertexArrayObject> m_vertexArray;
    QSharedPointer<BufferObject> m_indexBuffer;
    unsigned int m_primitiveType;
    bool m_isRefusalReported = false;
    unsigned int m_indexType = 0;
    int m_indexCount = 0;
    int m_vertexCount = 0;
    std::vector<DrawElementsIndirectCommand> m_commands;
    QSharedPointer<BufferObject> m_commandBlock;
};

} // namespace Morvane::Qel
