#pragma once

#include <QObject>
#include <QPointer>

#include <vector>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// Owns the GL objects that passes create and deliberately never delete. It owns only what was left to it:
/// whatever else is created while a graph runs, such as a texture that the application caches, belongs to its
/// creator.
class QEL_GL_EXPORT ResourceScope
{
public:
    ResourceScope() = default;
    /// Deletes the objects that still exist. Objects with a QObject parent are left to the parent.
    ~ResourceScope();
    ResourceScope(const ResourceScope&) = delete;
    ResourceScope& operator=(const ResourceScope&) = delete;

    /// Leaves an object, which its creator never deletes, to the scope that is active on this thread. Without
    /// one nobody deletes it.
    static void leave(QObject* object);

    /// Returns the number of objects of this scope that currently exist.
    int numObjects() const;

    /// Makes a scope the active one of this thread for its own lifetime.
    class QEL_GL_EXPORT Activation
    {
    public:
        explicit Activation(ResourceScope* scope);
        ~Activation();
        Activation(const Activation&) = delete;
        Activation& operator=(const Activation&) = delete;

    private:
        ResourceScope* m_previous;
    };

private:
    /// Null where an object was deleted.
    std::vector<QPointer<QObject>> m_objects;
};

} // namespace Morvane::Qel
