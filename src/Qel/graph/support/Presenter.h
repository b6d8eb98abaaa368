#pragma once

#include <QSharedPointer>

#include <memory>

#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/ShaderProgram.h>

class QRect;

namespace Morvane::Qel {

class OpenGLDeviceContext;
class Texture;

/// Draws a texture into a framebuffer of the host. Unlike a blit, this works for every sample count and
/// colour format of the framebuffer.
class Presenter
{
public:
    /// Covers a rectangle of the framebuffer, which stays bound with the rectangle as the viewport.
    void present(OpenGLDeviceContext& context, Texture& image, unsigned int framebuffer,
                 const QRect& rectangle);

private:
    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_batch;
    Uniform m_image{"u_Image"};
};

/// The error message for a texture that cannot be shown; empty if it can.
QString presentError(const Texture& image);

} // namespace Morvane::Qel
