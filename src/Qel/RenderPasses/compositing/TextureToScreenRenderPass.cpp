#include <Qel/RenderPasses/compositing/TextureToScreenRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/TextureToScreenRenderPass";

// The sum is divided by step.x and then multiplied by step.y, from left to right. Deliberate: a square step
// of n yields the plain sum of n * n texels, not their mean.
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
        u"TextureToScreenRenderPass"_s,
        u"Puts a texture on the screen, by a blit or adding up the texels that fall on each pixel."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"the part of the screen to draw"_s,
          u"nothing is drawn"_s,
          {},
          u"pixels, origin at the lower left"_s},
         {u"Qel_QelTexture*_Texture"_s, u"the picture"_s,
          u"the screen is cleared; transparent black with super-sampling"_s},
         {u"Qel_Bool_EnableSuperSampling"_s,
          u"whether the shader adds up the block of texels that falls on each pixel"_s,
          u"as before; at first off"_s}},
        {}};
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
    // Only as a QObject*, which a typed texture converts to as well.
    auto* texture = qobject_cast<Texture*>(m_inputs[SourceTexture].value.value<QObject*>());
    updateSuperSampling();
    if (m_superSampling) {
        if (!texture) {
            if (!m_fallbackTexture) {
                m_fallbackTexture.reset(makeTransparentTexture());
            }
            texture = m_fallbackTexture.get();
        }
        drawSuperSampled(viewport, texture);
    } else if (texture) {
        blit(viewport, texture);
    } else {
        glClear(GL_COLOR_BUFFER_BIT);
    }
    checkGLError(sourceFile, 206);
    TextureManager::Instance()->releaseTempTextureRef(texture, 1);
}

void TextureToScreenRenderPass::updateSuperSampling()
{
    const QVariant& value = m_inputs[EnableSuperSampling].value;
    if (value.isNull()) {
        return;
    }
    const bool superSampling = value.toBool();
    if (superSampling != m_superSampling) {
        m_superSampling = superSampling;
        m_program.reset();
    }
}

void TextureToScreenRenderPass::drawSuperSampled(const QRect& viewport, Texture* texture)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    if (!m_program) {
        buildProgram();
    }
    context->setViewport(viewport.x(), viewport.y(), viewport.width(), viewport.height());
    context->disable(GL_DEPTH_TEST);
    context->disable(GL_BLEND);
    context->disable(GL_STENCIL_TEST);
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);

    const AutoBinder programBinder(m_program.get());
    const AutoBinder textureBinder(texture);
    m_program->setUniform(m_samplerTexture, texture->unit());
    m_program->setUniform(
        m_renderSize, QVector2D(static_cast<float>(viewport.width()), static_cast<float>(viewport.height())));
    drawBatch(m_fullScreenBatch.data());
}

void TextureToScreenRenderPass::buildProgram()
{
    m_program = std::make_unique<ShaderProgram>(nullptr);
    addFullScreenShaders(m_program.get(), fragmentSource);
    Qel::buildProgram(m_program.get());
    m_fullScreenBatch = OpenGLDeviceContext::current()->fullScreenQuad();
    enableArrays(m_fullScreenBatch, m_program.get());
}

void TextureToScreenRenderPass::blit(const QRect& viewport, Texture* texture)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    if (!m_readFramebuffer) {
        m_readFramebuffer = std::make_unique<FramebufferObject>(nullptr);
    }
    context->bindFramebuffer(GL_READ_FRAMEBUFFER, m_readFramebuffer->getFBO());
    glFramebufferTexture(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, texture->textureID(), 0);
    context->bindFramebuffer(GL_DRAW_FRAMEBUFFER, 0);
    glBlitFramebuffer(0, 0, viewport.width(), viewport.height(), 0, 0, viewport.width(), viewport.height(),
                      GL_COLOR_BUFFER_BIT, GL_NEAREST);
    glFramebufferTexture(GL_READ_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, 0, 0);
    context->bindFramebuffer(GL_READ_FRAMEBUFFER, 0);
    context->bindFramebuffer(GL_DRAW_FRAMEBUFFER, 0);
}

} // namespace Morvane::Qel
