#include <Qel/RenderPasses/postprocessing/FastApproximateAntiAliasingRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/GLSLMacroProcessor.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/FastApproximateAntiAliasingRenderPass";

// Deliberate: u_RcpFrameQuality scales only the horizontal texel size, which lengthens the steps of the
// search along horizontal edges and the shifts across vertical ones. `colour` is never read.
const QString fragmentSource = uR"(#version 150
#include "FXAA.glslh"
uniform sampler2D u_FrameSampler;
uniform int u_Width;
uniform int u_Height;
uniform float u_SubPixelQuality;
uniform float u_RcpFrameQuality;
uniform float u_EdgeThresholdQuality;
uniform float u_EdgeThresholdMinQuality;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

void main()
{
    vec4 colour = texture(u_FrameSampler, vo_TexCoord);
    float width = float(u_Width);
    float height = float(u_Height);
    vec4 unread = vec4(0.0);
    out_FragColor = FxaaPixelShader(vo_TexCoord.xy,
                                    unread,
                                    u_FrameSampler, u_FrameSampler, u_FrameSampler,
                                    vec2(u_RcpFrameQuality / width, 1.0 / height),
                                    unread, unread, unread,
                                    u_SubPixelQuality,
                                    u_EdgeThresholdQuality,
                                    u_EdgeThresholdMinQuality,
                                    8.0, 0.125, 0.05,
                                    unread);
}
)"_s;

} // namespace

const PassDescription& FastApproximateAntiAliasingRenderPass::description()
{
    static const PassDescription description{
        .type = u"FastApproximateAntiAliasingRenderPass"_s,
        .summary = u"Anti-aliases a finished frame in one draw (FXAA)."_s,
        .inputs = {viewportInput(u"size of the frame; the origin is ignored"_s, u"1 x 1, cleared"_s),
                   {.name = u"Qel_QelTexture*_Frame"_s,
                    .meaning = u"the frame, display-encoded; edges are found in its green channel"_s,
                    .whenMissing = u"nothing is drawn and the output is empty"_s,
                    .encoding = Encoding::Display},
                   {.name = u"Qel_float_SubPixelQuality"_s,
                    .meaning = u"amount of sub-pixel aliasing that is removed"_s,
                    .whenMissing = u"0.75"_s,
                    .range = u"0 (off) to 1 (softest)"_s,
                    .limits = {0.0, 1.0}},
                   {.name = u"Qel_float_RcpFrameQuality"_s,
                    .meaning = u"scale of the horizontal steps of the edge search and of horizontal shifts"_s,
                    .whenMissing = u"1"_s,
                    .range = u"above 0"_s,
                    .unit = u"texels"_s,
                    .limits = {.minimum = 0.0, .isAboveMinimum = true}},
                   {.name = u"Qel_float_EdgeThresholdQuality"_s,
                    .meaning = u"minimum local contrast that is filtered, relative to the local maximum"_s,
                    .whenMissing = u"0.166"_s,
                    .range = u"0 to 1"_s,
                    .limits = {0.0, 1.0}},
                   {.name = u"Qel_float_EdgeThresholdMinQuality"_s,
                    .meaning =
                        u"minimum local contrast that is filtered, absolute; leaves dark areas unchanged"_s,
                    .whenMissing = u"0"_s,
                    .range = u"0 to 1"_s,
                    .limits = {0.0, 1.0}}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"the anti-aliased frame, encoded as the input; RGBA8, pooled; alpha is the "
                                "input's green where the filter acted and the input's alpha elsewhere"_s,
                     .encoding = Encoding::AsInput,
                     .alpha = AlphaMeaning::Data,
                     .like = {u"Qel_QelTexture*_Frame"_s}}}};
    return description;
}

FastApproximateAntiAliasingRenderPass::FastApproximateAntiAliasingRenderPass()
{
    declarePorts(description());
}

FastApproximateAntiAliasingRenderPass::~FastApproximateAntiAliasingRenderPass() = default;

void FastApproximateAntiAliasingRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QSize size = m_inputs[Viewport].value.toRect().size();
    auto* frame = getInputPointer<Texture>(Frame);
    const InputReferences inputs(frame);
    if (!frame) {
        m_outputs[AntiAliasedFrame].value = QVariant();
        return;
    }
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    // Set before the framebuffer is bound too, so that the viewport remains after its release.
    context->setViewport(0, 0, size.width(), size.height());
    const PooledTarget target(provide(m_framebuffer), TextureFormat::RGBA8, size);
    context->setViewport(0, 0, size.width(), size.height());
    provideProgram(frame->size() != size);
    context->disable(GL_DEPTH_TEST);
    glClear(GL_COLOR_BUFFER_BIT);

    const AutoBinder programBinder(m_program.get());
    checkGLError(sourceFile, 212);
    const BoundSampler sampler(*m_program, m_frameSampler, frame, Sampling::Linear);
    m_program->setUniform(m_width, size.width());
    m_program->setUniform(m_height, size.height());
    m_program->setUniform(m_subPixelQuality, quality(SubPixelQuality, 0.75F));
    m_program->setUniform(m_rcpFrameQuality, quality(RcpFrameQuality, 1.0F));
    m_program->setUniform(m_edgeThresholdQuality, quality(EdgeThresholdQuality, 0.166F));
    m_program->setUniform(m_edgeThresholdMinQuality, quality(EdgeThresholdMinQuality, 0.0F));
    drawBatch(m_fullScreenBatch);
    m_outputs[AntiAliasedFrame].value = target.publish(m_outputs[AntiAliasedFrame].users);
}

void FastApproximateAntiAliasingRenderPass::provideProgram(bool isScaled)
{
    if (m_program && isScaled == m_isScaled) {
        return;
    }
    m_isScaled = isScaled;
    m_program.reset();
    GLSLMacroProcessor processor;
    if (isScaled) {
        processor.addDefine(u"FXAA_FRAME_IS_SCALED"_s, u"1"_s);
    }
    provideScreenProgram(
        m_program, m_fullScreenBatch,
        {.fragment = fragmentSource, .fragmentFile = u"FXAA.glslc"_s, .macroProcessor = &processor});
}

float FastApproximateAntiAliasingRenderPass::quality(InputPort port, float whenUnset) const
{
    const QVariant& value = m_inputs[port].value;
    // Deliberate: a value that is set but is not a number is 0, not the default.
    return value.isValid() ? value.toFloat() : whenUnset;
}

} // namespace Morvane::Qel
