#include <Qel/RenderPasses/geometry/WireframeRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/gl/GLErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/WireframeRenderPass";

const QString viewportPort = u"Qel_QRect_Viewport"_s;
const QString idPort = u"Qel_QelTexture*_Id"_s;
const QString framePort = u"Qel_QelTexture*_Frame"_s;

// Deliberate: parts are whole numbers by the time they are compared, so the threshold only tells whether they
// differ.
const QString fragmentSource = uR"(#version 150
uniform sampler2D u_IdSampler;
uniform int u_IdSamplerWidth;
uniform int u_IdSamplerHeight;
uniform vec4 u_WireframeColour;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

// Restores Ids that lost a little precision, such as 4.9999, to whole numbers.
ivec4 clampi(vec4 v)
{
    return ivec4(floor(v + 0.1));
}

float edge(ivec4 centre, vec2 offset)
{
    ivec4 neighbour = clampi(texture(u_IdSampler, vo_TexCoord + offset));
    if (neighbour.r != centre.r) {
        return 1.0;
    }
    return 1.0 / 256.0 < abs(float(centre.b - neighbour.b)) ? 0.33 : 0.0;
}

void main()
{
    ivec4 centre = clampi(texture(u_IdSampler, vo_TexCoord));
    float dx = 1.0 / float(u_IdSamplerWidth);
    float dy = 1.0 / float(u_IdSamplerHeight);
    float alpha = 0.0;
    alpha += edge(centre, vec2(-dx, -dy));
    alpha += edge(centre, vec2(-dx, dy));
    alpha += edge(centre, vec2(dx, -dy));
    alpha += edge(centre, vec2(dx, dy));
    alpha += edge(centre, vec2(-dx, 0.0));
    alpha += edge(centre, vec2(0.0, -dy));
    alpha += edge(centre, vec2(0.0, dy));
    alpha += edge(centre, vec2(dx, 0.0));
    out_FragColor = u_WireframeColour * (alpha / 8.0);
}
)"_s;

} // namespace

const PassDescription& WireframeRenderPass::description()
{
    static const PassDescription description{
        .type = u"WireframeRenderPass"_s,
        .summary = u"Draws the edges of primitives as an overlay, from an image of primitive numbers."_s,
        .inputs = {viewportInput(u"the output's size and drawn rectangle, origin lower left"_s,
                                 u"the output is 1 x 1 and not drawn"_s),
                   {.name = idPort,
                    .meaning = u"primitive numbers plus one, as floats (8 bits clamp them); a third "
                               "component numbers the parts of a tessellated primitive"_s,
                    .whenMissing = u"no output"_s,
                    .encoding = Encoding::Data}},
        .outputs = {{.name = framePort,
                     .meaning = u"the edges in faint white, up to 26 / 255, premultiplied; RGBA8, from the "
                                "pool"_s,
                     .encoding = Encoding::Display,
                     .alpha = AlphaMeaning::Premultiplied}}};
    return description;
}

WireframeRenderPass::WireframeRenderPass()
{
    declarePorts(description());
}

WireframeRenderPass::~WireframeRenderPass() = default;

void WireframeRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    findPorts();
    if (m_ports.frame < 0) {
        return;
    }
    const QRect viewport =
        m_ports.viewport < 0 ? QRect() : m_inputs[static_cast<size_t>(m_ports.viewport)].value.toRect();
    auto* ids = m_ports.id < 0 ? nullptr : getInputPointer<Texture>(m_ports.id);
    Output& output = m_outputs[static_cast<size_t>(m_ports.frame)];
    if (!ids) {
        output.value = QVariant();
        return;
    }

    const InputReferences inputs(ids);
    const PooledTarget target(provide(m_framebuffer), TextureFormat::RGBA8, viewport.size());
    provideScreenProgram(m_program, m_fullScreenBatch, {fragmentSource});
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->disable(GL_DEPTH_TEST);
    context->setViewport(viewport.left(), viewport.top(), viewport.width(), viewport.height());
    glClear(GL_COLOR_BUFFER_BIT);

    const AutoBinder programBinder(m_program.get());
    // Deliberate: the viewport's size, even if the Id texture has another.
    m_program->setUniform(m_idSamplerWidth, viewport.width());
    m_program->setUniform(m_idSamplerHeight, viewport.height());
    m_program->setUniform(m_wireframeColour, QColor(26, 26, 26, 26));
    checkGLError(sourceFile, 176);
    // Deliberate: beyond the border the Id texture's own wrap mode decides.
    const BoundSampler sampler(*m_program, m_idSampler, ids, Sampling::Own);
    drawBatch(m_fullScreenBatch);
    output.value = target.publish(output.users);
}

/// Looks the ports up by name, because a derived class may have moved them; only when the number of ports has
/// changed.
void WireframeRenderPass::findPorts()
{
    if (m_inputs.size() == m_numInputsSeen && m_outputs.size() == m_numOutputsSeen) {
        return;
    }
    m_numInputsSeen = m_inputs.size();
    m_numOutputsSeen = m_outputs.size();
    m_ports = {findInput(viewportPort), findInput(idPort), findOutput(framePort)};
}

} // namespace Morvane::Qel
