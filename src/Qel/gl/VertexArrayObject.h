#pragma once

#include <QHash>
#include <QSharedPointer>
#include <QString>

#include <Qel/gl/AttributeLocations.h>
#include <Qel/gl/Bindable.h>
#include <Qel/gl/ObjectName.h>

namespace Morvane::Qel {

class BufferObject;
class ShaderProgram;

/// A vertex array with attribute buffers by name. Since names have fixed locations, it works with every
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

    /// Sets the buffer of an attribute: tightly packed vectors of `components` values of a GL type. The
    /// buffer may be filled later.
    void upload(const QString& attribute, const QSharedPointer<BufferObject>& buffer, int components,
                unsigned int type);
    /// Returns the buffer of an attribute, null if there is none.
    QSharedPointer<BufferObject> bo(const QString& attribute) const;
    /// Returns how often the buffer of an attribute was set, to notice changes.
    int numUploads() const { return m_numUploads; }
    /// Enables the arrays that a program reads; the vertex array must be bound. Missing attributes keep GL's
    /// constant (0, 0, 0, 1). A null or invalid program enables nothing.
    void enableShaderProgramArrays(const ShaderProgram* program);
    /// Returns the GL name.
    unsigned int getVAO();

private:
    ObjectName m_name{ObjectName::Kind::VertexArray};
    unsigned int m_available = 0;
    unsigned int m_enabled = 0;
    int m_numUploads = 0;
    QHash<QString, QSharedPointer<BufferObject>> m_buffers;
};

} // namespace Morvane::Qel
