#include <Qel/gl/ResourceScope.h>

#include <algorithm>
#include <utility>

namespace Morvane::Qel {

namespace {

thread_local ResourceScope* activeScope = nullptr;

} // namespace

ResourceScope::~ResourceScope()
{
    for (const QPointer<QObject>& object : m_objects) {
        if (object && !object->parent()) {
            delete object;
        }
    }
}

void ResourceScope::leave(QObject* object)
{
    if (activeScope) {
        std::erase_if(activeScope->m_objects, [](const QPointer<QObject>& entry) { return entry.isNull(); });
        activeScope->m_objects.emplace_back(object);
    }
}

int ResourceScope::numObjects() const
{
    return static_cast<int>(std::count_if(m_objects.begin(), m_objects.end(),
                                          [](const QPointer<QObject>& object) { return !object.isNull(); }));
}

ResourceScope::Activation::Activation(ResourceScope* scope)
    : m_previous(std::exchange(activeScope, scope))
{
}

ResourceScope::Activation::~Activation()
{
    activeScope = m_previous;
}

} // namespace Morvane::Qel
