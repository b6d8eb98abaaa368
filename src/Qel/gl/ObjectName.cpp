#include <Qel/gl/ObjectName.h>

#include <utility>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

using Kind = ObjectName::Kind;

/// What GL has for a kind of object.
struct Functions
{
    void (*create)(GLsizei, GLuint*);
    void (*remove)(GLsizei, const GLuint*);
    QLatin1StringView name;
};

Functions functionsOf(Kind kind)
{
    switch (kind) {
    case Kind::Buffer:
        return {glGenBuffers, glDeleteBuffers, QLatin1StringView("buffer")};
    case Kind::Framebuffer:
        return {glGenFramebuffers, glDeleteFramebuffers, QLatin1StringView("framebuffer")};
    case Kind::Query:
        return {glGenQueries, glDeleteQueries, QLatin1StringView("query")};
    case Kind::Renderbuffer:
        return {glGenRenderbuffers, glDeleteRenderbuffers, QLatin1StringView("renderbuffer")};
    case Kind::Texture:
        return {glGenTextures, glDeleteTextures, QLatin1StringView("texture")};
    case Kind::VertexArray:
        break;
    }
    return {glGenVertexArrays, glDeleteVertexArrays, QLatin1StringView("vertex array")};
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
        m_context.whenCurrent([kind = m_kind, name = m_name] { functionsOf(kind).remove(1, &name); });
    }
}

/// What `get` does unless the object exists and its context is current.
unsigned int ObjectName::createOrReport()
{
    if (!exists()) {
        m_context = ContextReference::toCurrent();
        functionsOf(m_kind).create(1, &m_name);
        return m_name;
    }
    if (!m_isMisuseReported) {
        m_isMisuseReported = true;
        logCritical(__FILE__, __LINE__,
                    u"a %1 of another OpenGL context is used; it belongs to the context on which it was "
                    "first used"_s.arg(functionsOf(m_kind).name));
    }
    return 0;
}

} // namespace Morvane::Qel
