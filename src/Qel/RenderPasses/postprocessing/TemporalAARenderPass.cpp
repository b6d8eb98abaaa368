#include <Qel/RenderPasses/postprocessing/TemporalAARenderPass.h>

#include <QRect>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/RenderPasses/support/ViewWatch.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

// u_prevFrame is never set nor read: the blending reads the previous mean. Deliberate.
const QString fragmentSource = uR"(#version 150
uniform sampler2D u_newFrame;
uniform sampler2D u_prevFrame;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

void main()
{
    out_FragColor = texture(u_newFrame, vo_TexCoord);
}
)"_s;

} // namespace

const PassDescription& TemporalAARenderPass::description()
{
    static const PassDescription description{
        u"TemporalAARenderPass"_s,
        u"Averages the jittered frames of a still view into an anti-aliased one."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the frames; the origin is ignored"_s,
          u"a frame of one pixel"_s,
          {},
          u"pixels"_s},
         {u"Qel_QelTexture*_Frame"_s, u"the new frame, rendered with jitter"_s,
          u"the output becomes opaque black"_s},
         {u"Qel_QMatrix4x4_ProjectionMatrix"_s, u"the projection without jitter, watched for changes"_s,
          u"identity"_s},
         {u"Qel_QMatrix4x4_CameraMatrix"_s, u"world space to eye space, watched for changes"_s,
          u"identity"_s},
         {u"Qel_bool_Dirty"_s, u"whether the mean begins again"_s,
          u"as if it were true in every frame: the output is the latest frame"_s}},
        {{u"Qel_QelTexture*_Frame"_s,
          u"mean of the frames since the one after the latest change, RGBA8, pooled and kept "
          "by the pass from frame to frame"_s}}};
    return description;
}

TemporalAARenderPass::TemporalAARenderPass()
    : m_view(std::make_unique<ViewWatch>())
{
    declarePorts(description());
}

TemporalAARenderPass::~TemporalAARenderPass()
{
    if (m_framebuffer) {
        TextureManager::Instance()->releaseTempTextureRef(m_framebuffer->detach(GL_COLOR_ATTACHMENT0), 1);
    }
}

void TemporalAARenderPass::start(RenderCallbacks* /*callbacks*/)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    const QSize size = m_inputs[Viewport].value.toRect().size();
    auto* frame = getInputPointer<Texture>(Frame);
    const auto projection = m_inputs[ProjectionMatrix].value.value<QMatrix4x4>();
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();
    const ViewWatch::Change change = m_view->update(size, projection, camera, m_inputs[Dirty].value);

    if (!m_framebuffer || change.size) {
        replaceTarget(size);
    }
    if (!m_program) {
        buildProgram();
    }
    Texture* accumulated = m_framebuffer->attachment(GL_COLOR_ATTACHMENT0);
    {
        const AutoBinder framebufferBinder(m_framebuffer.get());
        context->setViewport(0, 0, size.width(), size.height());
        if (frame) {
            accumulate(frame, change.any);
        } else {
            glClearColor(0.0F, 0.0F, 0.0F, 1.0F);
            glClear(GL_COLOR_BUFFER_BIT);
        }
    }
    m_outputs[AccumulatedFrame].value = textureVariant(accumulated);
    TextureManager::Instance()->addTempTextureRef(accumulated, m_outputs[AccumulatedFrame].users);
    TextureManager::Instance()->releaseTempTextureRef(frame, 1);
}

void TemporalAARenderPass::replaceTarget(const QSize& size)
{
    if (!m_framebuffer) {
        m_framebuffer = std::make_unique<FramebufferObject>(nullptr);
    }
    TextureManager::Instance()->releaseTempTextureRef(m_framebuffer->detach(GL_COLOR_ATTACHMENT0), 1);
    const AutoBinder framebufferBinder(m_framebuffer.get());
    attachTempTarget(m_framebuffer.get(), TextureFormat::RGBA8, size.width(), size.height());
    m_framebuffer->setDrawBuffers();
}

void TemporalAARenderPass::buildProgram()
{
    m_program = std::make_unique<ShaderProgram>(nullptr);
    addFullScreenShaders(m_program.get(), fragmentSource);
    Qel::buildProgram(m_program.get());
    m_fullScreenBatch = OpenGLDeviceContext::current()->fullScreenTriangle();
    enableArrays(m_fullScreenBatch, m_program.get());
}

void TemporalAARenderPass::accumulate(Texture* frame, bool restart)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->disable(GL_DEPTH_TEST);
    glDepthMask(GL_FALSE);
    if (restart) {
        glClearColor(0.0F, 0.0F, 0.0F, 1.0F);
        glClear(GL_COLOR_BUFFER_BIT);
        context->disable(GL_BLEND);
        m_accumulatedFrames = 0;
    } else {
        // 0 in the first frame after a restart, which so replaces the restart's frame.
        const float keep =
            static_cast<float>(m_accumulatedFrames) / static_cast<float>(m_accumulatedFrames + 1);
        ++m_accumulatedFrames;
        context->enable(GL_BLEND);
        glBlendEquation(GL_FUNC_ADD);
        glBlendFunc(GL_ONE_MINUS_CONSTANT_ALPHA, GL_CONSTANT_ALPHA);
        glBlendColor(keep, keep, keep, keep);
    }
    {
        const AutoBinder programBinder(m_program.get());
        const AutoBinder frameBinder(frame);
        m_program->setUniform(m_newFrame, frame->unit());
        drawBatch(m_fullScreenBatch.data());
    }
    glDepthMask(GL_TRUE);
    context->disable(GL_BLEND);
}

} // namespace Morvane::Qel
