#pragma once

#include <QObject>

#include <vector>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

class OpenGLDeviceContext;

/// Owns the GL objects that passes create and deliberately never delete. Textures, framebuffers, programs and
/// batches that were created while the scope was active, and that still exist when it is destroyed, are
/// deleted with it. Objects with a QObject parent are left to the parent, and pooled textures to the pool.
class QEL_GL_EXPORT ResourceScope
{
public:
    explicit ResourceScope(OpenGLDeviceContext* context);
    ~ResourceScope();
    ResourceScope(const ResourceScope&) = delete;
    ResourceScope& operator=(const ResourceScope&) = delete;

    /// The number of objects of this scope that currently exist.
    int numObjects() const;

    /// Makes a scope active for its own lifetime, so that new objects belong to that scope. With a null
    /// scope, new objects belong to none.
    class QEL_GL_EXPORT Activation
    {
    public:
        Activation(OpenGLDeviceContext* context, ResourceScope* scope);
        ~Activation();
        Activation(const Activation&) = delete;
        Activation& operator=(const Activation&) = delete;

    private:
        OpenGLDeviceContext* m_context;
        ResourceScope* m_previous;
    };

    /// Ties a GL object to the scope that is active when the object is created.
    class QEL_GL_EXPORT Membership
    {
    public:
        explicit Membership(QObject* object);
        ~Membership();
        Membership(const Membership&) = delete;
        Membership& operator=(const Membership&) = delete;

    private:
        friend class ResourceScope;
        QObject* m_object;
        ResourceScope* m_scope;
    };

private:
    OpenGLDeviceContext* m_context;
    std::vector<Membership*> m_members;
};

} // namespace Morvane::Qel
