#include <Qel/gl/VertexArrayObject.h>

#include <bit>

#include <epoxy/gl.h>

#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

VertexArrayObject::VertexArrayObject() = default;

VertexArrayObject::~VertexArrayObject()
{
    if (m_name.isCurrent()) {
        OpenGLDeviceContext::current()->bindings().forget(this);
    }
}

void VertexArrayObject::bind()
{
    OpenGLDeviceContext::current()->bindings().bindVertexArray(this, getVAO());
}

void VertexArrayObject::release()
{
    OpenGLDeviceContext::current()->bindings().releaseVertexArray(this);
}

void VertexArrayObject::upload(const QString& attribute, const QSharedPointer<BufferObject>& buffer,
                               int components, unsigned int type)
{
    m_buffers.insert(attribute, buffer);
    ++m_numUploads;
    const int location = attributeLocation(attribute);
    if (location < 0) {
        return;
    }
    m_available |= 1U << location;
    const AutoBinder binder(this);
    glBindBuffer(GL_ARRAY_BUFFER, buffer->getBO());
    glVertexAttribPointer(static_cast<unsigned int>(location), components, type, GL_FALSE, 0, nullptr);
    glBindBuffer(GL_ARRAY_BUFFER, 0);
}

QSharedPointer<BufferObject> VertexArrayObject::bo(const QString& attribute) const
{
    return m_buffers.value(attribute);
}

void VertexArrayObject::enableShaderProgramArrays(const ShaderProgram* program)
{
    if (!program) {
        return;
    }
    unsigned int missing = program->attributeMask() & m_available & ~m_enabled;
    m_enabled |= missing;
    while (missing != 0) {
        glEnableVertexAttribArray(static_cast<unsigned int>(std::countr_zero(missing)));
        missing &= missing - 1;
    }
}

unsigned int VertexArrayObject::getVAO()
{
    return m_name.get();
}

} // namespace Morvane::Qel
