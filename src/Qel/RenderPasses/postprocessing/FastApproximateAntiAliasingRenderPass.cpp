#include <Qel/RenderPasses/postprocessing/FastApproximateAntiAliasingRenderPass.h>

#include <QRect>

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

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/FastApproximateAntiAliasingRenderPass";

// RcpFrameQuality scales only the horizontal size of a texel. Deliberate: it lengthens the steps of the
// search along horizontal edges and the shifts across vertical ones. The colour read at first is never used.
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
        u"FastApproximateAntiAliasingRenderPass"_s,
        u"Smooths the staircases of a finished frame in one draw (FXAA)."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the frame; the origin is ignored"_s,
          u"a frame of one pixel"_s,
          {},
          u"pixels"_s},
         {u"Qel_QelTexture*_Frame"_s, u"the frame; edges are found in its green channel"_s,
          u"nothing is drawn and the output is empty"_s},
         {u"Qel_float_SubPixelQuality"_s,
          u"how much of detail smaller than a pixel is smoothed away"_s,
          u"0.75"_s,
          {},
          u"0 (off) to 1 (softest)"_s},
         {u"Qel_float_RcpFrameQuality"_s,
          u"scale of the horizontal steps of the search along edges and of horizontal shifts"_s,
          u"1"_s,
          {},
          u"texels, above 0"_s},
         {u"Qel_float_EdgeThresholdQuality"_s,
          u"least local contrast that is filtered, relative to the local maximum"_s,
          u"0.166"_s,
          {},
          u"0 to 1"_s},
         {u"Qel_float_EdgeThresholdMinQuality"_s,
          u"least local contrast that is filtered, absolute; keeps dark areas as they are"_s,
          u"0"_s,
          {},
          u"0 to 1"_s}},
        {{u"Qel_QelTexture*_Frame"_s,
          u"the smoothed frame, RGBA8, pooled; alpha is the green of the input where the filter "
          "acted and the input's elsewhere"_s}}};
    return description;
}

FastApproximateAntiAliasingRenderPass::FastApproximateAntiAliasingRenderPass()
{
    declarePorts(description());
}

FastApproximateAntiAliasingRenderPass::~FastApproximateAntiAliasingRenderPass() = default;

void FastApproximateAntiAliasingRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    const QRect viewport = m_inputs[Viewport].value.toRect();
    const float subPixelQuality = quality(SubPixelQuality, 0.75F);
    const float rcpFrameQuality = quality(RcpFrameQuality, 1.0F);
    const float edgeThresholdQuality = quality(EdgeThresholdQuality, 0.166F);
    const float edgeThresholdMinQuality = quality(EdgeThresholdMinQuality, 0.0F);
    auto* frame = getInputPointer<Texture>(Frame);
    if (!frame) {
        m_outputs[AntiAliasedFrame].value = QVariant();
        return;
    }

    if (!m_framebuffer) {
        m_framebuffer = std::make_unique<FramebufferObject>(nullptr);
    }
    const int width = viewport.width();
    const int height = viewport.height();
    attachTempTarget(m_framebuffer.get(), TextureFormat::RGBA8, width, height);
    if (!m_program) {
        buildProgram();
    }
    {
        const AutoBinder framebufferBinder(m_framebuffer.get());
        m_framebuffer->setDrawBuffers();
        context->disable(GL_DEPTH_TEST);
        context->setViewport(0, 0, width, height);
        glClear(GL_COLOR_BUFFER_BIT);

        const AutoBinder programBinder(m_program.get());
        checkGLError(sourceFile, 212);
        const AutoBinder frameBinder(frame);
        const int magFilter = frame->parameter(GL_TEXTURE_MAG_FILTER);
        const int minFilter = frame->parameter(GL_TEXTURE_MIN_FILTER);
        frame->setFilter(GL_LINEAR, GL_LINEAR);
        m_program->setUniform(m_frameSampler, frame->unit());
        m_program->setUniform(m_width, width);
        m_program->setUniform(m_height, height);
        m_program->setUniform(m_subPixelQuality, subPixelQuality);
        m_program->setUniform(m_rcpFrameQuality, rcpFrameQuality);
        m_program->setUniform(m_edgeThresholdQuality, edgeThresholdQuality);
        m_program->setUniform(m_edgeThresholdMinQuality, edgeThresholdMinQuality);
        drawBatch(m_fullScreenBatch.data());
        frame->setFilter(minFilter, magFilter);
    }
    context->setViewport(0, 0, width, height);
    m_outputs[AntiAliasedFrame].value =
        publishPooled(m_framebuffer->detach(GL_COLOR_ATTACHMENT0), m_outputs[AntiAliasedFrame].users);
    TextureManager::Instance()->releaseTempTextureRef(frame, 1);
}

/// A value that is set but is not a number counts as 0 rather than as unset. Deliberate.
float FastApproximateAntiAliasingRenderPass::quality(InputPort port, float whenUnset) const
{
    const QVariant& value = m_inputs[port].value;
    return value.isValid() ? value.toFloat() : whenUnset;
}

void FastApproximateAntiAliasingRenderPass::buildProgram()
{
    m_program = std::make_unique<ShaderProgram>(nullptr);
    addFullScreenShaders(m_program.get(), fragmentSource);
    m_program->addShaderFromFile(GL_FRAGMENT_SHADER, u"FXAA.glslc"_s);
    Qel::buildProgram(m_program.get());
    m_fullScreenBatch = OpenGLDeviceContext::current()->fullScreenTriangle();
    enableArrays(m_fullScreenBatch, m_program.get());
}

} // namespace Morvane::Qel
