#include <Qel/gl/GLErrors.h>

#include <utility>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

thread_local QString firstError;

const char* errorName(GLenum error)
{
    switch (error) {
    case GL_INVALID_ENUM:
        return "GL_INVALID_ENUM";
    case GL_INVALID_VALUE:
        return "GL_INVALID_VALUE";
    case GL_INVALID_OPERATION:
        return "GL_INVALID_OPERATION";
    case GL_INVALID_FRAMEBUFFER_OPERATION:
        return "GL_INVALID_FRAMEBUFFER_OPERATION";
    case GL_OUT_OF_MEMORY:
        return "GL_OUT_OF_MEMORY";
    default:
        return "of unknown kind";
    }
}

} // namespace

void checkGLError(const char* file, int line)
{
    hasGLError(file, line);
}

bool hasGLError(const char* file, int line)
{
    bool pending = false;
    // A lost context reports errors forever; a healthy one has fewer error flags.
    constexpr int maxErrors = 16;
    for (int i = 0; i < maxErrors; ++i) {
        const GLenum error = glGetError();
        if (error == GL_NO_ERROR) {
            break;
        }
        const QLatin1StringView name(errorName(error));
        logCritical(file, line, u"OpenGL error %1"_s.arg(name));
        keepGLError(name);
        pending = true;
    }
    return pending;
}

QString takeGLError()
{
    return firstError.isEmpty() ? QString() : std::exchange(firstError, {});
}

void keepGLError(const QString& error)
{
    if (firstError.isEmpty()) {
        firstError = error;
    }
}

} // namespace Morvane::Qel
