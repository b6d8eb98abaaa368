#pragma once

#include <QHash>
#include <QSharedPointer>
#include <QString>

#include <Qel/gl/AttributeLocations.h>
#include <Qel/gl/Bindable.h>

namespace Morvane::Qel {

class BufferObject;
class ShaderProgram;

/// Attribute buffers by attribute name. Because locations are fixed by name, one vertex array serves every
/// program.
class QEL_GL_EXPORT VertexArrayObject : public Bindable
{
public:
    VertexArrayObject();
    ~VertexArrayObject() override;
    VertexArrayObject(const VertexArrayObject&) = delete;
    VertexArrayObject& operator=(const VertexArrayObject&) = delete;

    void bind() override;
    void release() override;

    /// Registers a tightly packed buffer of vectors of `components` values of a GL type as an attribute. The
    /// buffer's contents may follow later.
    void upload(const QString& attribute, const QSharedPointer<BufferObject>& buffer, int components,
                unsigned int type);
    /// The buffer of an attribute, null where there is none.
    QSharedPointer<BufferObject> bo(const QString& attribute) const;
    /// Enables the arrays that a program reads, with the vertex array bound. Attributes that the vertex array
    /// lacks keep GL's constant (0, 0, 0, 1). A null or invalid program enables nothing.
    void enableShaderProgramArrays(const ShaderProgram* program);
    /// The GL name.
    unsigned int getVAO();

private:
    unsigned int m_name = 0;
    unsigned int m_available = 0;
    unsigned int m_enabled = 0;
    QHash<QString, QSharedPointer<BufferObject>> m_buffers;
};

} // namespace Morvane::Qel
