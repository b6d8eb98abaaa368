#include <Qel/gl/DebugOutput.h>

#include <QDebug>
#include <QLoggingCategory>

#include <epoxy/gl.h>

#include <Qel/core/Text.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/OpenGLDeviceContext.h>

namespace Morvane::Qel {

namespace {

void GLAPIENTRY reportDebugMessage(GLenum source, GLenum type, GLuint /*id*/, GLenum severity,
                                   GLsizei /*length*/, const GLchar* message, const void* /*user*/)
{
    // ShaderProgram reports compiler messages itself, with files and lines.
    if (severity == GL_DEBUG_SEVERITY_NOTIFICATION || source == GL_DEBUG_SOURCE_SHADER_COMPILER) {
        return;
    }
    const bool isFailure = type == GL_DEBUG_TYPE_ERROR || type == GL_DEBUG_TYPE_UNDEFINED_BEHAVIOR;
    // Drivers send other messages in every frame.
    if (!isFailure && !QLoggingCategory::defaultCategory()->isDebugEnabled()) {
        return;
    }
    const QString text = printable(QString::fromUtf8(message));
    if (isFailure) {
        if (type == GL_DEBUG_TYPE_ERROR) {
            keepGLError(text);
        }
        qCritical("OpenGL: %s", qUtf8Printable(text));
    } else {
        qDebug("OpenGL: %s", qUtf8Printable(text));
    }
}

} // namespace

void enableDebugOutput(const OpenGLDeviceContext& context, bool synchronous)
{
    if (context.version() < 43 && !context.hasExtension("KHR_debug")) {
        return;
    }
    glEnable(GL_DEBUG_OUTPUT);
    if (synchronous) {
        glEnable(GL_DEBUG_OUTPUT_SYNCHRONOUS);
    }
    glDebugMessageCallback(reportDebugMessage, nullptr);
}

} // namespace Morvane::Qel
