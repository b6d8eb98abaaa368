#include <Qel/gl/BufferObject.h>

#include <epoxy/gl.h>

#include <Qel/gl/MemoryAccount.h>

namespace Morvane::Qel {

BufferObject::BufferObject()
    : BufferObject(GL_ARRAY_BUFFER)
{
}

BufferObject::BufferObject(unsigned int target)
    : m_target(target)
{
}

BufferObject::~BufferObject()
{
    MemoryAccount::freed(this);
}

void BufferObject::setTarget(unsigned int target)
{
    m_target = target;
    m_indexed = false;
}

void BufferObject::setIndexedTarget(unsigned int target, unsigned int index, qintptr offset, qsizetype size)
{
    m_target = target;
    m_indexed = true;
    m_index = index;
    m_rangeOffset = offset;
    m_rangeSize = size;
}

void BufferObject::bind()
{
    if (m_indexed) {
        glBindBufferRange(m_target, m_index, getBO(), m_rangeOffset, m_rangeSize);
    } else {
        glBindBuffer(m_target, getBO());
    }
}

void BufferObject::release()
{
    if (m_indexed) {
        glBindBufferBase(m_target, m_index, 0);
    } else {
        glBindBuffer(m_target, 0);
    }
}

void BufferObject::upload(const float* values, int count, unsigned int usage)
{
    uploadBytes(values, static_cast<qsizetype>(count) * static_cast<qsizetype>(sizeof(float)), usage);
}

void BufferObject::uploadGLuintData(const unsigned int* values, int count, unsigned int usage)
{
    uploadBytes(values, static_cast<qsizetype>(count) * static_cast<qsizetype>(sizeof(unsigned int)), usage);
}

void BufferObject::uploadBytes(const void* data, qsizetype size, unsigned int usage)
{
    // Binding to GL_ELEMENT_ARRAY_BUFFER would change the vertex array that happens to be bound.
    glBindBuffer(GL_COPY_WRITE_BUFFER, getBO());
    glBufferData(GL_COPY_WRITE_BUFFER, size, data, usage);
    glBindBuffer(GL_COPY_WRITE_BUFFER, 0);
    if (m_size != size) {
        m_size = size;
        MemoryAccount::allocated(this, size);
    }
}

void BufferObject::updateBytes(const void* data, qsizetype size)
{
    glBindBuffer(GL_COPY_WRITE_BUFFER, getBO());
    glBufferSubData(GL_COPY_WRITE_BUFFER, 0, size, data);
    glBindBuffer(GL_COPY_WRITE_BUFFER, 0);
}

void BufferObject::copyBytes(BufferObject* source, qsizetype size)
{
    copyBytes(source, size, 0);
}

void BufferObject::copyBytes(BufferObject* source, qsizetype size, qintptr offset)
{
    glBindBuffer(GL_COPY_READ_BUFFER, source->getBO());
    glBindBuffer(GL_COPY_WRITE_BUFFER, getBO());
    glCopyBufferSubData(GL_COPY_READ_BUFFER, GL_COPY_WRITE_BUFFER, 0, offset, size);
    glBindBuffer(GL_COPY_WRITE_BUFFER, 0);
    glBindBuffer(GL_COPY_READ_BUFFER, 0);
}

void* BufferObject::map(unsigned int access)
{
    glBindBuffer(GL_COPY_WRITE_BUFFER, getBO());
    void* address = glMapBuffer(GL_COPY_WRITE_BUFFER, access);
    glBindBuffer(GL_COPY_WRITE_BUFFER, 0);
    return address;
}

void BufferObject::unmap()
{
    glBindBuffer(GL_COPY_WRITE_BUFFER, getBO());
    glUnmapBuffer(GL_COPY_WRITE_BUFFER);
    glBindBuffer(GL_COPY_WRITE_BUFFER, 0);
}

unsigned int BufferObject::getBO()
{
    return m_name.get();
}

} // namespace Morvane::Qel
