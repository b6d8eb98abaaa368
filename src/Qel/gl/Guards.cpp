#include <Qel/gl/Guards.h>

#include <Qel/gl/OpenGLDeviceContext.h>

namespace Morvane::Qel {

Bindable::~Bindable() = default;

AutoBinder::AutoBinder(Bindable* bindable)
    : m_bindable(bindable)
{
    if (m_bindable) {
        m_bindable->bind();
    }
}

AutoBinder::AutoBinder(const QSharedPointer<Bindable>& bindable)
    : AutoBinder(bindable.data())
{
    m_owner = bindable;
}

AutoBinder::~AutoBinder()
{
    if (m_bindable) {
        m_bindable->release();
    }
}

CapabilityGuard::CapabilityGuard(unsigned int capability, bool enabled)
    : m_capability(capability)
    , m_wasEnabled(OpenGLDeviceContext::current()->isEnabled(capability))
{
    OpenGLDeviceContext::current()->setEnabled(capability, enabled);
}

CapabilityGuard::~CapabilityGuard()
{
    OpenGLDeviceContext::current()->setEnabled(m_capability, m_wasEnabled);
}

} // namespace Morvane::Qel
