#include <Qel/gl/ObjectName.h>

#include <utility>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

using Kind = ObjectName::Kind;

unsigned int createObject(Kind kind)
{
    unsigned int name = 0;
    switch (kind) {
    case Kind::Buffer:
        glGenBuffers(1, &name);
        break;
    case Kind::Framebuffer:
        glGenFramebuffers(1, &name);
        break;
    case Kind::Query:
        glGenQueries(1, &name);
        break;
    case Kind::Renderbuffer:
        glGenRenderbuffers(1, &name);
        break;
    case Kind::Texture:
        glGenTextures(1, &name);
        break;
    case Kind::VertexArray:
        glGenVertexArrays(1, &name);
        break;
    }
    return name;
}

void deleteObject(Kind kind, unsigned int name)
{
    switch (kind) {
    case Kind::Buffer:
        glDeleteBuffers(1, &name);
        break;
    case Kind::Framebuffer:
        glDeleteFramebuffers(1, &name);
        break;
    case Kind::Query:
        glDeleteQueries(1, &name);
        break;
    case Kind::Renderbuffer:
        glDeleteRenderbuffers(1, &name);
        break;
    case Kind::Texture:
        glDeleteTextures(1, &name);
        break;
    case Kind::VertexArray:
        glDeleteVertexArrays(1, &name);
        break;
    }
}

QString describe(Kind kind)
{
    switch (kind) {
    case Kind::Buffer:
        return u"buffer"_s;
    case Kind::Framebuffer:
        return u"framebuffer"_s;
    case Kind::Query:
        return u"query"_s;
    case Kind::Renderbuffer:
        return u"renderbuffer"_s;
    case Kind::Texture:
        return u"texture"_s;
    case Kind::VertexArray:
        break;
    }
    return u"vertex array"_s;
}

} // namespace

ObjectName::ObjectName(Kind kind)
    : m_kind(kind)
{
}

ObjectName::ObjectName(ObjectName&& other) noexcept
    : m_kind(other.m_kind)
    , m_isMisuseReported(other.m_isMisuseReported)
    , m_name(std::exchange(other.m_name, 0))
    , m_context(std::move(other.m_context))
{
}

ObjectName::~ObjectName()
{
    if (exists()) {
        m_context.whenCurrent([kind = m_kind, name = m_name] { deleteObject(kind, name); });
    }
}

unsigned int ObjectName::get()
{
    if (!exists()) {
        m_context = ContextReference::toCurrent();
        m_name = createObject(m_kind);
    } else if (!m_context.isCurrent()) {
        if (!m_isMisuseReported) {
            m_isMisuseReported = true;
            logCritical(__FILE__, __LINE__,
                        u"a %1 of another OpenGL context is used; it belongs to the context on which it was "
                        "first used"_s.arg(describe(m_kind)));
        }
        return 0;
    }
    return m_name;
}

} // namespace Morvane::Qel
