#include <Qel/RenderPasses/postprocessing/BlurAndCombineRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>

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
        .type = u"BlurAndCombineRenderPass"_s,
        .summary = u"Adds glow: blurs the bright texels of one frame and adds them to another."_s,
        .inputs = {viewportInput(u"size of the image; the origin is ignored"_s, u"1 x 1"_s),
                   {.name = u"Qel_QelTexture*_NormalFrame"_s,
                    .meaning = u"the frame that the glow is added to; premultiplied alpha"_s,
                    .whenMissing = u"the output is the glow alone"_s},
                   {.name = u"Qel_float_BlurRadius"_s,
                    .meaning = u"radius of the glow, about one standard deviation"_s,
                    .whenMissing = u"the normal frame is published unchanged"_s,
                    .range = u"0 or less publishes the normal frame unchanged; at most "
                             "GL_MAX_FRAGMENT_UNIFORM_COMPONENTS / 8 - 10, which is 118 or more; for more, "
                             "an error is logged and this limit is used"_s,
                    .unit = u"texels"_s},
                   {.name = u"Qel_float_GlowThreshold"_s,
                    .meaning =
                        u"lowest luma (Rec. 709 weights) that glows; a change takes effect with the next "
                        "change of the radius"_s,
                    .whenMissing = u"everything glows"_s,
                    .range = u"0 or less lets everything glow"_s},
                   {.name = u"Qel_float_GlowAmount"_s,
                    .meaning = u"factor that scales the glow before it is added"_s,
                    .whenMissing = u"the normal frame is published unchanged"_s,
                    .range = u"0 or less publishes the normal frame unchanged"_s},
                   {.name = u"Qel_QelTexture*_BlurFrame"_s,
                    .meaning =
                        u"the frame whose texels glow; premultiplied alpha, encoded as the normal frame"_s,
                    .whenMissing = u"no glow"_s,
                    .wantsAntiAliased = true}},
        .outputs = {{.name = u"Qel_QelTexture*_Output"_s,
                     .meaning = u"the sum of normal frame and glow in all four channels, not clamped, in the "
                                "encoding of the inputs; RGBA16F, pooled; or the normal frame itself"_s,
                     .encoding = Encoding::AsInput,
                     .alpha = AlphaMeaning::AsInput,
                     .like = {u"Qel_QelTexture*_NormalFrame"_s, u"Qel_QelTexture*_BlurFrame"_s}}}};
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
    auto* blurFrame = getInputPointer<Texture>(BlurFrame);
    const InputReferences inputs(normalFrame, blurFrame);
    if (radius <= 0.0F || m_glowAmount <= 0.0F) {
        m_outputs[Output].value = publishTexture(normalFrame, m_outputs[Output].users);
        return;
    }

    const QSize size = m_inputs[Viewport].value.toRect().size();
    const bool selectsBright = m_glowThreshold > 0.0F;
    const bool isResized = !selectsBright && blurFrame && blurFrame->size() != size;
    const BlurredInput input = isResized ? BlurredInput::Resized : BlurredInput::SameSize;
    const bool kernelChanged = providePrograms(radius, input);
    m_viewportWidth = static_cast<float>(size.width());
    m_viewportHeight = static_cast<float>(size.height());
    const PooledTexture fallback = normalFrame && blurFrame ? PooledTexture() : PooledTexture::transparent();
    Texture* source = blurFrame ? blurFrame : fallback.get();
    PooledTexture bright;
    if (selectsBright) {
        bright = PooledTexture(TextureFormat::RGBA16F, size);
        drawWithThresholdShader(kernelChanged, source, bright.get());
        source = bright.get();
    }
    const PooledTexture blurred(TextureFormat::RGBA16F, size);
    drawWithBlurOnlyShader(kernelChanged, source, blurred.get());
    // Returned early, so that the pool can reuse it as the result.
    bright = PooledTexture();
    const PooledTexture result(TextureFormat::RGBA16F, size);
    drawWithBlurAndAddShader(kernelChanged, normalFrame ? normalFrame : fallback.get(), blurred.get(),
                             result.get());
    m_outputs[Output].value = result.publish(m_outputs[Output].users);
}

bool BlurAndCombineRenderPass::providePrograms(float radius, BlurredInput input)
{
    const bool kernelChanged = provideKernel(radius, input);
    if (kernelChanged) {
        m_blurAndAddProgram.reset(makeShaderProgram(blurAndAddSource));
    }
    if (!m_thresholdProgram) {
        m_thresholdProgram.reset(makeShaderProgram(thresholdSource));
    }
    return kernelChanged;
}

void BlurAndCombineRenderPass::drawWithThresholdShader(const bool& kernelChanged, Texture* source,
                                                       Texture* target)
{
    const BoundTarget boundTarget(provide(m_framebuffer), target);
    clearTarget();
    const AutoBinder programBinder(m_thresholdProgram.get());
    const BoundSampler input(*m_thresholdProgram, m_thresholdInput, source,
                             texelSampling(*source, target->size(), Sampling::Linear));
    // Deliberate: set only with a new kernel, so a change of the threshold alone has no effect until then.
    if (kernelChanged) {
        m_thresholdProgram->setUniform(m_thresholdUniform, m_glowThreshold);
    }
    drawBatch(m_screenQuad);
}

void BlurAndCombineRenderPass::drawWithBlurOnlyShader(const bool& /*kernelChanged*/, Texture* source,
                                                      Texture* target)
{
    drawBlurred(source, target, QVector2D(1.0F / m_viewportWidth, 0.0F));
}

void BlurAndCombineRenderPass::drawWithBlurAndAddShader(const bool& /*kernelChanged*/, Texture* base,
                                                        Texture* blurred, Texture* target)
{
    const BoundTarget boundTarget(provide(m_framebuffer), target);
    clearTarget();
    const AutoBinder programBinder(m_blurAndAddProgram.get());
    const BoundSampler original(*m_blurAndAddProgram, m_original, base,
                                texelSampling(*base, target->size(), Sampling::Linear));
    const BoundSampler glow(*m_blurAndAddProgram, m_blurred, blurred, Sampling::Linear);
    m_blurAndAddProgram->setUniform(m_addStepVec, QVector2D(0.0F, 1.0F / m_viewportHeight));
    m_blurAndAddProgram->setUniform(m_amountUniform, m_glowAmount);
    m_blurAndAddProgram->setUniform(m_addWeight, m_weights);
    m_blurAndAddProgram->setUniform(m_addOffset, m_offsets);
    drawBatch(m_screenQuad);
}

} // namespace Morvane::Qel
