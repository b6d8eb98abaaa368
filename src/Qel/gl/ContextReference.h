#pragma once

#include <functional>
#include <memory>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// Refers to a context that may be destroyed first. GL objects use it to know their context. Copies refer to
/// the same context; all operations are allowed on every thread.
class QEL_GL_EXPORT ContextReference
{
public:
    /// Refers to no context.
    ContextReference() = default;
    /// Refers to the context that is current on this thread; to none if there is none.
    static ContextReference toCurrent();

    /// Whether the context is current on this thread, so that GL may be called for its objects.
    bool isCurrent() const;
    /// Calls `work` while the context is current: at once if it is current on this thread, otherwise during
    /// its next makeCurrent. If the context is destroyed before that, `work` is never called.
    void whenCurrent(std::function<void()> work) const;

private:
    friend class OpenGLDeviceContext;
    struct Link;

    /// Refers to a new context.
    static ContextReference make();
    /// Calls the work that waits; the context must be current.
    void callWaiting() const;
    /// Declares the context destroyed and drops the work that waits.
    void end() const;

    std::shared_ptr<Link> m_link;
};

} // namespace Morvane::Qel
