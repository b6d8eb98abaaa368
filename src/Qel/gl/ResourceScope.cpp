#include <Qel/gl/ResourceScope.h>

#include <algorithm>

#include <Qel/gl/OpenGLDeviceContext.h>

namespace Morvane::Qel {

ResourceScope::ResourceScope(OpenGLDeviceContext* context)
    : m_context(context)
{
}

ResourceScope::~ResourceScope()
{
    const Activation suspended(m_context, nullptr);
    // Deleting an object may delete others, which then remove themselves from the list.
    while (!m_members.empty()) {
        Membership* member = m_members.back();
        m_members.pop_back();
        member->m_scope = nullptr;
        if (!member->m_object->parent()) {
            delete member->m_object;
        }
    }
}

int ResourceScope::numObjects() const
{
    return static_cast<int>(m_members.size());
}

ResourceScope::Activation::Activation(OpenGLDeviceContext* context, ResourceScope* scope)
    : m_context(context)
    , m_previous(context->resourceScope())
{
    m_context->setResourceScope(scope);
}

ResourceScope::Activation::~Activation()
{
    m_context->setResourceScope(m_previous);
}

ResourceScope::Membership::Membership(QObject* object)
    : m_object(object)
    , m_scope(nullptr)
{
    const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    if (context && context->resourceScope() && !object->parent()) {
        m_scope = context->resourceScope();
        m_scope->m_members.push_back(this);
    }
}

ResourceScope::Membership::~Membership()
{
    if (m_scope) {
        std::erase(m_scope->m_members, this);
    }
}

} // namespace Morvane::Qel
