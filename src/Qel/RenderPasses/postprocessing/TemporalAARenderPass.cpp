#include <Qel/RenderPasses/postprocessing/TemporalAARenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/support/ViewWatch.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

// Deliberate: u_prevFrame is neither set nor read. Blending reads the previous mean.
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
        .type = u"TemporalAARenderPass"_s,
        .summary = u"Averages the jittered frames of a still view into an anti-aliased one."_s,
        .inputs = {viewportInput(u"size of the frames; the origin is ignored"_s, u"1 x 1, cleared"_s),
                   {.name = u"Qel_QelTexture*_Frame"_s,
                    .meaning = u"the new frame, rendered with jitter; any encoding, averaged as it is"_s,
                    .whenMissing = u"the output becomes opaque black, which then counts as all frames "
                                   "so far; set Dirty with the next frame"_s,
                    .wantsJitter = true},
                   {.name = u"Qel_QMatrix4x4_ProjectionMatrix"_s,
                    .meaning = u"the projection without jitter; only watched for changes"_s,
                    .whenMissing = u"identity"_s},
                   {.name = u"Qel_QMatrix4x4_CameraMatrix"_s,
                    .meaning = u"world space to eye space; only watched for changes"_s,
                    .whenMissing = u"identity"_s},
                   {.name = u"Qel_bool_Dirty"_s,
                    .meaning = u"whether the mean restarts"_s,
                    .whenMissing = u"the mean restarts every frame: the output is the latest frame"_s}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"mean of the frames after the frame of the last restart, alpha included; "
                                "best at frame 31 of a still view, where the jitter ends; RGBA8, "
                                "rounded every frame; pooled, and kept by the pass from frame to frame"_s,
                     .encoding = Encoding::AsInput,
                     .alpha = AlphaMeaning::AsInput,
                     .like = {u"Qel_QelTexture*_Frame"_s}}},
        .historyFrames = PassDescription::unlimitedHistory,
        .restartInput = u"Qel_bool_Dirty"_s};
    return description;
}

TemporalAARenderPass::TemporalAARenderPass()
    : m_view(std::make_unique<ViewWatch>())
{
    declarePorts(description());
}

TemporalAARenderPass::~TemporalAARenderPass() = default;

void TemporalAARenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QSize size = m_inputs[Viewport].value.toRect().size();
    auto* frame = getInputPointer<Texture>(Frame);
    const InputReferences inputs(frame);
    const auto projection = m_inputs[ProjectionMatrix].value.value<QMatrix4x4>();
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();
    const ViewWatch::Change change = m_view->update(size, projection, camera, m_inputs[Dirty].value);
    if (!m_framebuffer || change.size) {
        replaceTarget(size);
    }
    provideScreenProgram(m_program, m_fullScreenBatch, {fragmentSource});
    const AutoBinder framebufferBinder(m_framebuffer.get());
    OpenGLDeviceContext::current()->setViewport(0, 0, size.width(), size.height());
    if (frame) {
        accumulate(frame, change.any);
    } else {
        // Deliberate: the count goes on, and a restart in this frame is forgotten, so that the next frames
        // fade in from black.
        clear();
    }
    m_outputs[AccumulatedFrame].value = m_accumulated.publish(m_outputs[AccumulatedFrame].users);
}

void TemporalAARenderPass::replaceTarget(const QSize& size)
{
    const AutoBinder framebufferBinder(&provide(m_framebuffer));
    m_accumulated = PooledTexture(TextureFormat::RGBA8, size);
    m_framebuffer->attach(m_accumulated.get(), GL_COLOR_ATTACHMENT0, 0);
    m_framebuffer->setDrawBuffers();
}

void TemporalAARenderPass::clear()
{
    glClearColor(0.0F, 0.0F, 0.0F, 1.0F);
    glClear(GL_COLOR_BUFFER_BIT);
}

void TemporalAARenderPass::accumulate(Texture* frame, bool restart)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->disable(GL_DEPTH_TEST);
    glDepthMask(GL_FALSE);
    if (restart) {
        clear();
        context->disable(GL_BLEND);
        m_accumulatedFrames = 0;
    } else {
        // 0 on the first frame after a restart, which therefore replaces the restart's frame.
        const float weight =
            static_cast<float>(m_accumulatedFrames) / static_cast<float>(m_accumulatedFrames + 1);
        ++m_accumulatedFrames;
        context->enable(GL_BLEND);
        glBlendEquation(GL_FUNC_ADD);
        glBlendFunc(GL_ONE_MINUS_CONSTANT_ALPHA, GL_CONSTANT_ALPHA);
        glBlendColor(weight, weight, weight, weight);
    }
    {
        const AutoBinder programBinder(m_program.get());
        const BoundSampler sampler(*m_program, m_newFrame, frame, Sampling::Own);
        drawBatch(m_fullScreenBatch);
    }
    glDepthMask(GL_TRUE);
    context->disable(GL_BLEND);
}

} // namespace Morvane::Qel
