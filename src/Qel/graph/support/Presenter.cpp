#include <Qel/graph/support/Presenter.h>

#include <QRect>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/gl/Formats.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

const QString fragmentSource = uR"(#version 150
uniform sampler2D u_Image;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

void main()
{
    out_FragColor = vec4(texture(u_Image, vo_TexCoord).rgb, 1.0);
}
)"_s;

} // namespace

void Presenter::present(OpenGLDeviceContext& context, Texture& image, unsigned int framebuffer,
                        const QRect& rectangle)
{
    context.applyBaseState();
    context.bindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    context.setViewport(rectangle.x(), rectangle.y(), rectangle.width(), rectangle.height());
    provideScreenProgram(m_program, m_batch, {fragmentSource});
    const AutoBinder programBinder(m_program.get());
    const BoundSampler sampler(*m_program, m_image, &image,
                               rectangle.size() == image.size() ? Sampling::Nearest : Sampling::Linear);
    drawBatch(m_batch);
}

QString presentError(const Texture& image)
{
    if (image.target() != GL_TEXTURE_2D) {
        return u"only a 2D texture can be shown, not a cube map or an array"_s;
    }
    switch (formatFromInternalFormat(image.internalFormat())) {
    case GL_RED_INTEGER:
    case GL_RG_INTEGER:
    case GL_RGBA_INTEGER:
        return u"%1 holds integers, which cannot be shown"_s.arg(internalFormatName(image.internalFormat()));
    default:
        return {};
    }
}

} // namespace Morvane::Qel
