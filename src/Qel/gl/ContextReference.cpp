#include <Qel/gl/ContextReference.h>

#include <mutex>
#include <utility>
#include <vector>

#include <Qel/gl/OpenGLDeviceContext.h>

namespace Morvane::Qel {

/// What a context and the references to it share. It outlives the context.
struct ContextReference::Link
{
    std::mutex mutex;
    bool isAlive = true;
    std::vector<std::function<void()>> waiting;
};

ContextReference ContextReference::make()
{
    ContextReference reference;
    reference.m_link = std::make_shared<Link>();
    return reference;
}

ContextReference ContextReference::toCurrent()
{
    const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    return context ? context->reference() : ContextReference();
}

bool ContextReference::isCurrent() const
{
    const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    return context && context->reference().m_link == m_link;
}

void ContextReference::whenCurrent(std::function<void()> work) const
{
    if (isCurrent()) {
        work();
    } else if (m_link) {
        const std::lock_guard lock(m_link->mutex);
        if (m_link->isAlive) {
            m_link->waiting.push_back(std::move(work));
        }
    }
}

void ContextReference::callWaiting() const
{
    std::vector<std::function<void()>> waiting;
    {
        const std::lock_guard lock(m_link->mutex);
        waiting.swap(m_link->waiting);
    }
    for (const std::function<void()>& work : waiting) {
        work();
    }
}

void ContextReference::end() const
{
    const std::lock_guard lock(m_link->mutex);
    m_link->isAlive = false;
    m_link->waiting.clear();
}

} // namespace Morvane::Qel
