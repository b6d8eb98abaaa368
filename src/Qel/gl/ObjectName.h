#pragma once

#include <functional>
#include <utility>

#include <Qel/gl/ContextReference.h>
#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// Owns a GL object, known by its name. The object is created on first use and belongs to the context that is
/// current then.
///
/// The destructor may run on any thread and after the context; only that of a texture whose image came from
/// GL calls of the application may not run while another thread uses a framebuffer that it is attached to. It
/// deletes the object at once if its context is current on the thread, otherwise during that context's next
/// makeCurrent. GL deletes the objects of a destroyed context itself.
class QEL_GL_EXPORT ObjectName
{
public:
    enum class Kind
    {
        Buffer,
        Framebuffer,
        Query,
        Renderbuffer,
        Texture,
        VertexArray
    };

    explicit ObjectName(Kind kind);
    ~ObjectName();
    ObjectName(ObjectName&& other) noexcept;
    ObjectName& operator=(ObjectName&&) = delete;

    /// Returns the name; the first call creates the object. If another context is current, this is reported
    /// once and the result is 0, which means no object to GL.
    unsigned int get() { return isCurrent() ? m_name : createOrReport(); }
    /// Whether the object was created.
    bool exists() const { return m_name != 0; }
    /// Whether the object was created and its context is current on this thread.
    bool isCurrent() const { return exists() && m_context.isCurrent(); }

    /// Calls `work` if the object exists, as ContextReference::whenCurrent does for its context.
    void whenCurrent(std::function<void()> work) const { m_context.whenCurrent(std::move(work)); }

private:
    unsigned int createOrReport();

    Kind m_kind;
    bool m_isMisuseReported = false;
    unsigned int m_name = 0;
    ContextReference m_context;
};

} // namespace Morvane::Qel
