#include <Qel/RenderPasses/postprocessing/BlurAndCombineRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/InputPointers.h>
#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

const QString thresholdSource = uR"(#version 150
uniform sampler2D u_Input;
uniform float glow_threshold;
in vec2 vo_TexCoord;
out vec4 o_Output;

float luma(vec4 colour)
{
    return dot(colour.rgb, vec3(0.2125, 0.7154, 0.0721));
}

void main()
{
    vec4 c = texture(u_Input, vo_TexCoord);
    o_Output = step(glow_threshold, luma(c)) * c;
}
)"_s;

const QString blurAndAddSource = uR"(#version 150
uniform sampler2D u_Blurred;
uniform sampler2D u_Original;
uniform vec2 stepVec;
uniform float weight[SAMPLES_COUNT];
uniform float offset[SAMPLES_COUNT];
uniform float glow_amount;
in vec2 vo_TexCoord;
out vec4 o_Output;

vec4 fast_gaussian_blur(sampler2D s, vec2 texCoord, vec2 step)
{
    vec4 sum = texture(s, texCoord) * weight[0];
    for (int i = 1; i < SAMPLES_COUNT; ++i) {
        sum += (texture(s, texCoord + offset[i] * step) + texture(s, texCoord - offset[i] * step)) * weight[i];
    }
    return sum;
}

void main()
{
    o_Output = texture(u_Original, vo_TexCoord)
             + glow_amount * fast_gaussian_blur(u_Blurred, vo_TexCoord, stepVec);
}
)"_s;

} // namespace

const PassDescription& BlurAndCombineRenderPass::description()
{
    static const PassDescription description{
        u"BlurAndCombineRenderPass"_s,
        u"Adds glow: blurs the bright texels of one frame and adds them to another."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the picture; the origin is ignored"_s,
          u"a single pixel"_s,
          {},
          u"pixels"_s},
         {u"Qel_QelTexture*_NormalFrame"_s, u"the picture that receives the glow"_s, u"the glow alone"_s},
         {u"Qel_float_BlurRadius"_s,
          u"radius of the glow, about one standard deviation"_s,
          u"the normal frame is passed on"_s,
          {},
          u"texels; 0 or less passes the normal frame on"_s},
         {u"Qel_float_GlowThreshold"_s,
          u"luma (Rec. 709 weights) from which a texel glows; a change takes effect with the "
          "next change of the radius"_s,
          u"everything glows"_s,
          {},
          u"0 or less lets everything glow"_s},
         {u"Qel_float_GlowAmount"_s,
          u"factor of the glow"_s,
          u"the normal frame is passed on"_s,
          {},
          u"0 or less passes the normal frame on"_s},
         {u"Qel_QelTexture*_BlurFrame"_s, u"the picture whose texels glow"_s, u"no glow"_s}},
        {{u"Qel_QelTexture*_Output"_s,
          u"the normal frame and its glow, RGBA16F, pooled; or the normal frame itself"_s}}};
    return description;
}

BlurAndCombineRenderPass::BlurAndCombineRenderPass()
{
    declarePorts(description());
}

BlurAndCombineRenderPass::~BlurAndCombineRenderPass() = default;

void BlurAndCombineRenderPass::start(RenderCallbacks* callbacks)
{
    const float radius = m_inputs[BlurRadius].value.toFloat();
    m_glowThreshold = m_inputs[GlowThreshold].value.toFloat();
    m_glowAmount = m_inputs[GlowAmount].value.toFloat();
    RenderPassHelper::start(callbacks);
    auto* normalFrame = getInputPointer<Texture>(NormalFrame);
    auto* source = getInputPointer<Texture>(BlurFrame);
    TextureManager* pool = TextureManager::Instance();
    if (radius <= 0.0F || m_glowAmount <= 0.0F) {
        m_outputs[Output].value = publishPooled(normalFrame, m_outputs[Output].users);
        pool->releaseTempTextureRef(source, 1);
        return;
    }

    const bool kernelChanged = updateKernel(radius);
    const QRect viewport = m_inputs[Viewport].value.toRect();
    m_viewportWidth = static_cast<float>(viewport.width());
    m_viewportHeight = static_cast<float>(viewport.height());
    for (Texture** frame : {&normalFrame, &source}) {
        if (!*frame) {
            *frame = takeTransparentTexture();
        }
        sampleLinearly(*frame);
    }
    provideDrawObjects();
    if (!m_thresholdProgram) {
        m_thresholdProgram.reset(makeShaderProgram(thresholdSource));
    }

    const auto takeTarget = [&] {
        return pool->tempTexture(TextureFormat::RGBA16F, viewport.width(), viewport.height(), -1);
    };
    const AutoBinder framebufferBinder(m_framebuffer.get());
    Texture* target = takeTarget();
    if (m_glowThreshold > 0.0F) {
        drawWithThresholdShader(kernelChanged, source, target);
        pool->releaseTempTextureRef(source, 1);
        source = target;
        target = takeTarget();
    }
    drawWithBlurOnlyShader(kernelChanged, source, target);
    pool->releaseTempTextureRef(source, 1);
    source = target;
    target = takeTarget();
    drawWithBlurAndAddShader(kernelChanged, normalFrame, source, target);

    m_outputs[Output].value = publishPooled(target, m_outputs[Output].users);
    pool->releaseTempTextureRef(normalFrame, 1);
    pool->releaseTempTextureRef(source, 1);
}

/// Returns whether kernel and programs were rebuilt.
bool BlurAndCombineRenderPass::updateKernel(float radius)
{
    if (m_shaderProgram && m_blurAndAddProgram && radius == m_blurRadius) {
        return false;
    }
    m_blurRadius = radius;
    calculateBlurWeights();
    m_shaderProgram.reset(makeShaderProgram(getBaseFragmentShaderSource()));
    m_blurAndAddProgram.reset(makeShaderProgram(blurAndAddSource));
    return true;
}

void BlurAndCombineRenderPass::drawWithThresholdShader(const bool& kernelChanged, Texture* source,
                                                       Texture* target)
{
    beginDraw(target);
    const AutoBinder programBinder(m_thresholdProgram.get());
    const AutoBinder sourceBinder(source);
    enableArrays(m_screenQuad, m_thresholdProgram.get());
    m_thresholdProgram->setUniform(m_thresholdInput, source->unit());
    // Only with a new kernel, so that a change of the threshold alone has no effect until then: deliberate.
    if (kernelChanged) {
        m_thresholdProgram->setUniform(m_thresholdUniform, m_glowThreshold);
    }
    drawBatch(m_screenQuad.data());
    m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
}

void BlurAndCombineRenderPass::drawWithBlurOnlyShader(const bool& /*kernelChanged*/, Texture* source,
                                                      Texture* target)
{
    beginDraw(target);
    const AutoBinder programBinder(m_shaderProgram.get());
    drawBlurred(source, QVector2D(1.0F / m_viewportWidth, 0.0F));
    m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
}

void BlurAndCombineRenderPass::drawWithBlurAndAddShader(const bool& /*kernelChanged*/, Texture* base,
                                                        Texture* blurred, Texture* target)
{
    beginDraw(target);
    sampleLinearly(blurred);
    const AutoBinder programBinder(m_blurAndAddProgram.get());
    const AutoBinder baseBinder(base);
    const AutoBinder blurredBinder(blurred);
    enableArrays(m_screenQuad, m_blurAndAddProgram.get());
    m_blurAndAddProgram->setUniform(m_addStepVec, QVector2D(0.0F, 1.0F / m_viewportHeight));
    m_blurAndAddProgram->setUniform(m_blurred, blurred->unit());
    m_blurAndAddProgram->setUniform(m_original, base->unit());
    m_blurAndAddProgram->setUniform(m_amountUniform, m_glowAmount);
    m_blurAndAddProgram->setUniform(m_addWeight, m_weights);
    m_blurAndAddProgram->setUniform(m_addOffset, m_offsets);
    drawBatch(m_screenQuad.data());
    m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
}

} // namespace Morvane::Qel
