#include <Qel/RenderPasses/postprocessing/GaussianBlurRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/InputPointers.h>
#include <Qel/RenderPasses/support/Numbers.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

const PassDescription& GaussianBlurRenderPass::description()
{
    static const PassDescription description{
        u"GaussianBlurRenderPass"_s,
        u"Blurs a texture with a separable Gaussian kernel, at full or reduced resolution."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"full-resolution size of the picture; the origin is ignored"_s,
          u"a single pixel"_s,
          {},
          u"pixels"_s},
         {u"Qel_QelTexture*_Input"_s,
          u"the picture to blur; its filters become linear, its wrap modes clamp to edge"_s,
          u"transparent black is blurred, or nothing passed on"_s},
         {u"Qel_float_BlurRadius"_s,
          u"radius of the blur, about one standard deviation"_s,
          u"the input is passed on"_s,
          {},
          u"texels of the reduced picture; 1 or less passes the input on"_s},
         {u"Qel_float_ResolutionDivider"_s,
          u"what the size is divided by; the result is rounded down"_s,
          u"full resolution"_s,
          {},
          u"1 or more; 0 acts as 1"_s}},
        {{u"Qel_QelTexture*_Output"_s, u"the blurred picture, RGBA16F, pooled; or the input itself"_s}}};
    return description;
}

GaussianBlurRenderPass::GaussianBlurRenderPass()
{
    declarePorts(description());
}

GaussianBlurRenderPass::~GaussianBlurRenderPass() = default;

void GaussianBlurRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    float divider = m_inputs[ResolutionDivider].value.toFloat();
    if (divider == 0.0F) {
        divider = 1.0F;
    }
    TextureManager* pool = TextureManager::Instance();
    updateKernel(m_inputs[BlurRadius].value.toFloat());
    auto* source = getInputPointer<Texture>(Input);
    if (m_blurRadius <= 1.0F) {
        m_outputs[Output].value = publishPooled(source, m_outputs[Output].users);
        return;
    }

    const QRect viewport = m_inputs[Viewport].value.toRect();
    const int width = truncated(static_cast<float>(viewport.width()) / divider);
    const int height = truncated(static_cast<float>(viewport.height()) / divider);
    if (!source) {
        source = takeTransparentTexture();
    }
    provideDrawObjects();
    Texture* first = pool->tempTexture(TextureFormat::RGBA16F, width, height, -1);
    draw(source, first, QVector2D(1.0F / static_cast<float>(width), 0.0F), divider);
    Texture* second = pool->tempTexture(TextureFormat::RGBA16F, width, height, -1);
    // Opaque red, and left in force: deliberate.
    glClearColor(1.0F, 0.0F, 0.0F, 1.0F);
    draw(first, second, QVector2D(0.0F, 1.0F / static_cast<float>(height)), divider);

    m_outputs[Output].value = publishPooled(second, m_outputs[Output].users);
    pool->releaseTempTextureRef(source, 1);
    pool->releaseTempTextureRef(first, 1);
}

void GaussianBlurRenderPass::updateKernel(float radius)
{
    if (radius != m_blurRadius || !m_shaderProgram) {
        m_blurRadius = radius;
        calculateBlurWeights();
        m_shaderProgram.reset(makeShaderProgram(getBaseFragmentShaderSource()));
    }
}

void GaussianBlurRenderPass::draw(Texture* source, Texture* target, const QVector2D& step, float divider)
{
    const AutoBinder framebufferBinder(m_framebuffer.get());
    beginDraw(target);
    const AutoBinder programBinder(m_shaderProgram.get());
    m_shaderProgram->setUniform(m_resolutionDivider, divider);
    drawBlurred(source, step);
    m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
}

} // namespace Morvane::Qel
