#pragma once

#include <QtGlobal>

#include <Qel/gl/Bindable.h>

namespace Morvane::Qel {

/// A GL buffer. The GL name is made on first need and deleted with the object.
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
    /// Makes bind attach `size` bytes from `offset` at an indexed binding point (GL_UNIFORM_BUFFER,
    /// GL_ATOMIC_COUNTER_BUFFER, ...).
    void setIndexedTarget(unsigned int target, unsigned int index, qintptr offset, qsizetype size);

    /// Binds to the target, or the range to the indexed binding point; release leaves nothing bound there.
    void bind() override;
    void release() override;

    /// Replaces the contents by `count` values; `usage` as for glBufferData.
    void upload(const float* values, int count, unsigned int usage);
    void uploadGLuintData(const unsigned int* values, int count, unsigned int usage);
    /// Replaces the contents by `size` bytes, undefined ones where `data` is null.
    void uploadBytes(const void* data, qsizetype size, unsigned int usage);
    /// Replaces the first `size` bytes, which must have been uploaded before.
    void updateBytes(const void* data, qsizetype size);
    /// Replaces the first `size` bytes by those of another buffer, without the CPU seeing them. Both must
    /// have that many.
    void copyBytes(BufferObject* source, qsizetype size);
    /// Maps the whole buffer, bound for the call; null on failure.
    void* map(unsigned int access);
    void unmap();
    /// The GL name.
    unsigned int getBO();
    /// Size in bytes of what was uploaded.
    qsizetype size() const { return m_size; }

private:
    unsigned int m_target;
    unsigned int m_name = 0;
    qsizetype m_size = 0;
    bool m_indexed = false;
    unsigned int m_index = 0;
    qintptr m_rangeOffset = 0;
    qsizetype m_rangeSize = 0;
};

} // namespace Morvane::Qel
