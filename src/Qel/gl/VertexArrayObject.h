#pragma once

#include <QHash>
#include <QSharedPointer>
#include <QString>

#include <list>
#include <memory>

#include <Qel/gl/Bindable.h>
#include <Qel/gl/ObjectName.h>

namespace Morvane::Qel {

class BufferObject;
class ShaderProgram;
struct AttributeLayout;
struct VertexAttribute;

/// A vertex array with attribute buffers by name, for every program: before a draw it is matched to the
/// locations that the program's attributes have after linking. It keeps one GL object for all programs with
/// the locations of the library's own, and one for each other program.
class QEL_GL_EXPORT VertexArrayObject : public Bindable
{
public:
    VertexArrayObject();
    ~VertexArrayObject() override;
    VertexArrayObject(const VertexArrayObject&) = delete;
    VertexArrayObject& operator=(const VertexArrayObject&) = delete;

    void bind() override;
    void release() override;

    /// Sets the buffer of an attribute: tightly packed values of `components` numbers of a GL type. A matrix
    /// has all its columns, so 16 components for a mat4. Integers stay integers for attributes that a shader
    /// declares with an integer type, and become floats for others. The buffer may be filled later.
    void upload(const QString& attribute, const QSharedPointer<BufferObject>& buffer, int components,
                unsigned int type);
    /// Returns the buffer of an attribute, null if there is none.
    QSharedPointer<BufferObject> bo(const QString& attribute) const;
    /// Returns how often the buffer of an attribute was set, to notice changes.
    int numUploads() const { return m_numUploads; }
    /// Enables the arrays that a program reads; the vertex array must be bound. Missing attributes keep GL's
    /// constant (0, 0, 0, 1). With a null or invalid program, or on another context than that of the vertex
    /// array, enables nothing and returns false.
    bool enableShaderProgramArrays(const ShaderProgram* program);
    /// Returns the GL name for programs whose attributes are va_Vertex, va_Normal and va_TexCoord at 0, 1 and
    /// 2, as the library's own.
    unsigned int getVAO();

private:
    struct Array
    {
        QSharedPointer<BufferObject> buffer;
        int components = 0;
        unsigned int type = 0;
    };
    /// The GL object for programs of a layout other than the standard one.
    struct Object
    {
        std::weak_ptr<const AttributeLayout> layout;
        ObjectName name;
        /// numUploads() when its arrays were set.
        int numUploads;
    };
    unsigned int matchedObject(const std::shared_ptr<const AttributeLayout>& layout);
    int setArray(const VertexAttribute& attribute) const;

    ObjectName m_name{ObjectName::Kind::VertexArray};
    unsigned int m_available = 0;
    unsigned int m_enabled = 0;
    /// The GL object that the latest program used, m_name or one of m_others; 0 before the first.
    unsigned int m_latest = 0;
    std::list<Object> m_others;
    int m_numUploads = 0;
    QHash<QString, Array> m_arrays;
};

} // namespace Morvane::Qel
