#pragma once

#include <QObject>

#include <vector>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

class OpenGLDeviceContext;

/// Owns what passes made and, on purpose, do not delete: textures, framebuffers, programs and batches that
/// were created while the scope was active and still live when it is destroyed are deleted with it. Objects
/// with a QObject parent are left to their parent, pooled textures to the pool.
class QEL_GL_EXPORT ResourceScope
{
public:
    explicit ResourceScope(OpenGLDeviceContext* context);
    ~ResourceScope();
    ResourceScope(const ResourceScope&) = delete;
    ResourceScope& operator=(const ResourceScope&) = delete;

    /// How many objects of this scope are alive.
    int numObjects() const;

    /// Makes a scope the one that new objects belong to, for its lifetime. A null scope suspends: objects
    /// made meanwhile belong to none.
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

    /// A GL object's membership in the scope that was active when it was made.
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
