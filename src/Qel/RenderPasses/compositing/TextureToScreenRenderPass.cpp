#include <Qel/RenderPasses/compositing/TextureToScreenRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/gl/GLErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/TextureToScreenRenderPass";

// Deliberate: the last line is evaluated from left to right, so the sum is divided by step.x and multiplied
// by step.y. A square step of n yields the sum of n * n texels, not their mean.
const QString fragmentSource = uR"(#version 150
#include "QelUtilities.glslh"
uniform sampler2D u_SamplerTexture;
uniform vec2 u_RenderSize;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

void main()
{
    ivec2 step = ivec2(max(vec2(1.0), round(vec2(textureSize(u_SamplerTexture, 0)) / u_RenderSize)));
    ivec2 base = ivec2(gl_FragCoord.xy) * step;
    vec4 sum = vec4(0.0);
    for (int x = 0; x < step.x; ++x) {
        for (int y = 0; y < step.y; ++y) {
            sum += texelFetch(u_SamplerTexture, base + ivec2(x, y), 0);
        }
    }
    out_FragColor = sum / float(step.x) * float(step.y);
}
)"_s;

} // namespace

const PassDescription& TextureToScreenRenderPass::description()
{
    static const PassDescription description{
        .type = u"TextureToScreenRenderPass"_s,
        .summary =
            u"Copies a texture to the screen by a blit or by a shader that sums the texels of each pixel."_s,
        .inputs = {viewportInput(u"the rectangle of the screen to draw to; a blit ignores its origin"_s,
                                 u"nothing is drawn"_s),
                   {.name = u"Qel_QelTexture*_Texture"_s,
                    .meaning = u"the image, in the screen's colour encoding"_s,
                    .whenMissing = u"the screen is cleared; transparent black with super-sampling"_s,
                    .encoding = Encoding::Display},
                   {.name = u"Qel_Bool_EnableSuperSampling"_s,
                    .meaning =
                        u"whether a shader sums the block of texels that each pixel covers, instead of "
                        "a blit"_s,
                    .whenMissing = u"the value of the previous frame, initially off"_s}},
        .outputs = {}};
    return description;
}

TextureToScreenRenderPass::TextureToScreenRenderPass()
{
    declarePorts(description());
}

TextureToScreenRenderPass::~TextureToScreenRenderPass() = default;

void TextureToScreenRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QRect viewport = m_inputs[Viewport].value.toRect();
    // Accepted only as a QObject*, to which a typed texture converts as well.
    auto* texture = qobject_cast<Texture*>(m_inputs[SourceTexture].value.value<QObject*>());
    const InputReferences inputs(texture);
    updateSuperSampling();
    if (m_superSampling) {
        drawSuperSampled(viewport, orTransparent(texture, m_fallbackTexture));
    } else if (texture) {
        blit(viewport.width(), viewport.height(), *texture);
    } else {
        glClear(GL_COLOR_BUFFER_BIT);
    }
    checkGLError(sourceFile, 206);
}

void TextureToScreenRenderPass::updateSuperSampling()
{
    const QVariant& value = m_inputs[EnableSuperSampling].value;
    if (value.isNull() || value.toBool() == m_superSampling) {
        return;
    }
    m_superSampling = !m_superSampling;
    m_program.reset();
}

void TextureToScreenRenderPass::drawSuperSampled(const QRect& viewport, Texture* texture)
{
    provideScreenProgram(m_program, m_fullScreenBatch, {fragmentSource}, Screen::Quad);
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->setViewport(viewport.x(), viewport.y(), viewport.width(), viewport.height());
    context->disable(GL_DEPTH_TEST);
    context->disable(GL_BLEND);
    context->disable(GL_STENCIL_TEST);
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);

    const AutoBinder programBinder(m_program.get());
    const BoundSampler sampler(*m_program, m_samplerTexture, texture, Sampling::Nearest);
    m_program->setUniform(
        m_renderSize, QVector2D(static_cast<float>(viewport.width()), static_cast<float>(viewport.height())));
    drawBatch(m_fullScreenBatch);
}

void TextureToScreenRenderPass::blit(int width, int height, Texture& texture)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->bindFramebuffer(GL_READ_FRAMEBUFFER, provide(m_readFramebuffer).getFBO());
    glFramebufferTexture(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, texture.textureID(), 0);
    glReadBuffer(GL_COLOR_ATTACHMENT0);
    context->bindFramebuffer(GL_DRAW_FRAMEBUFFER, 0);
    glBlitFramebuffer(0, 0, width, height, 0, 0, width, height, GL_COLOR_BUFFER_BIT, GL_NEAREST);
    glFramebufferTexture(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, 0, 0);
    context->bindFramebuffer(GL_READ_FRAMEBUFFER, 0);
    context->bindFramebuffer(GL_DRAW_FRAMEBUFFER, 0);
}

} // namespace Morvane::Qel
