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

AutoEnabler::AutoEnabler(unsigned int capability)
    : m_capability(capability)
    , m_wasEnabled(OpenGLDeviceContext::current()->isEnabled(capability))
{
    OpenGLDeviceContext::current()->enable(capability);
}

AutoEnabler::~AutoEnabler()
{
    OpenGLDeviceContext::current()->setEnabled(m_capability, m_wasEnabled);
}

AutoDisabler::AutoDisabler(unsigned int capability)
    : m_capability(capability)
    , m_wasEnabled(OpenGLDeviceContext::current()->isEnabled(capability))
{
    OpenGLDeviceContext::current()->disable(capability);
}

AutoDisabler::~AutoDisabler()
{
    OpenGLDeviceContext::current()->setEnabled(m_capability, m_wasEnabled);
}

} // namespace Morvane::Qel
