#pragma once

#include <QtGlobal>

#include <Qel/gl/Bindable.h>
#include <Qel/gl/ObjectName.h>

namespace Morvane::Qel {

/// A GL buffer, created on first use and deleted with the object.
class QEL_GL_EXPORT BufferObject : public Bindable
{
public:
    BufferObject();
    explicit BufferObject(unsigned int target);
    ~BufferObject() override;
    BufferObject(const BufferObject&) = delete;
    BufferObject& operator=(const BufferObject&) = delete;

    void setTarget(unsigned int target);
    unsigned int target() const { return m_target; }
    /// Makes bind attach `size` bytes from `offset` to an indexed binding point of a target such as
    /// GL_UNIFORM_BUFFER or GL_ATOMIC_COUNTER_BUFFER.
    void setIndexedTarget(unsigned int target, unsigned int index, qintptr offset, qsizetype size);

    /// Binds to the target, or the range to the indexed binding point.
    void bind() override;
    /// Unbinds; unlike for other objects, the previous binding is not restored.
    void release() override;

    /// Replaces the contents with `count` values; `usage` as in glBufferData.
    void upload(const float* values, int count, unsigned int usage);
    void uploadGLuintData(const unsigned int* values, int count, unsigned int usage);
    /// Replaces the contents with `size` bytes, which are undefined if `data` is null.
    void uploadBytes(const void* data, qsizetype size, unsigned int usage);
    /// Overwrites the first `size` bytes. The buffer must be at least that large.
    void updateBytes(const void* data, qsizetype size);
    /// Overwrites the first `size` bytes with those of another buffer, on the GPU. Both must be at least that
    /// large.
    void copyBytes(BufferObject* source, qsizetype size);
    /// Overwrites `size` bytes from `offset` on with the first of another buffer, on the GPU.
    void copyBytes(BufferObject* source, qsizetype size, qintptr offset);
    /// Maps the whole buffer; null on failure.
    void* map(unsigned int access);
    void unmap();
    /// Returns the GL name.
    unsigned int getBO();
    /// The size in bytes.
    qsizetype size() const { return m_size; }

private:
    unsigned int m_target;
    ObjectName m_name{ObjectName::Kind::Buffer};
    qsizetype m_size = 0;
    bool m_indexed = false;
    unsigned int m_index = 0;
    qintptr m_rangeOffset = 0;
    qsizetype m_rangeSize = 0;
};

} // namespace Morvane::Qel
