#include <Qel/RenderPasses/geometry/WireframeRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/WireframeRenderPass";

const QString viewportPort = u"Qel_QRect_Viewport"_s;
const QString idPort = u"Qel_QelTexture*_Id"_s;
const QString framePort = u"Qel_QelTexture*_Frame"_s;

// The threshold on parts, which are whole numbers by then, amounts to whether they differ. Deliberate.
const QString fragmentSource = uR"(#version 150
uniform sampler2D u_IdSampler;
uniform int u_IdSamplerWidth;
uniform int u_IdSamplerHeight;
uniform vec4 u_WireframeColour;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

// Ids that lost a little on the way to a float and back become whole again.
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
        u"WireframeRenderPass"_s,
        u"Draws the edges of primitives as an overlay, from an image of their numbers."_s,
        {{viewportPort,
          u"size of the result, and the part of it that is drawn"_s,
          u"1 x 1"_s,
          {},
          u"pixels, origin at the lower left"_s},
         {idPort,
          u"numbers of primitives plus one, in floats (8 bits clamp them); a third component "
          "numbers the parts of a tessellated primitive"_s,
          u"no output"_s}},
        {{framePort, u"the edges in faint white, up to 26 / 255, premultiplied; RGBA8, pooled"_s}}};
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

    if (!m_framebuffer) {
        m_framebuffer = std::make_unique<FramebufferObject>(nullptr);
    }
    const AutoBinder framebufferBinder(m_framebuffer.get());
    attachTempTarget(m_framebuffer.get(), TextureFormat::RGBA8, viewport.width(), viewport.height());
    if (!m_program) {
        buildProgram();
    }
    draw(ids, viewport);
    output.value = publishPooled(m_framebuffer->detach(GL_COLOR_ATTACHMENT0), output.users);
    TextureManager::Instance()->releaseTempTextureRef(ids, 1);
}

/// The pass knows its ports by name, wherever a derived class may have put them. Names are compared again
/// only when ports have come or gone.
void WireframeRenderPass::findPorts()
{
    if (m_inputs.size() == m_numInputsSeen && m_outputs.size() == m_numOutputsSeen) {
        return;
    }
    m_numInputsSeen = m_inputs.size();
    m_numOutputsSeen = m_outputs.size();
    m_ports = {findInput(viewportPort), findInput(idPort), findOutput(framePort)};
}

void WireframeRenderPass::buildProgram()
{
    m_program = std::make_unique<ShaderProgram>(nullptr);
    addFullScreenShaders(m_program.get(), fragmentSource);
    Qel::buildProgram(m_program.get());
    m_fullScreenBatch = OpenGLDeviceContext::current()->fullScreenTriangle();
    enableArrays(m_fullScreenBatch, m_program.get());
}

void WireframeRenderPass::draw(Texture* ids, const QRect& viewport)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    m_framebuffer->setDrawBuffers();
    context->disable(GL_DEPTH_TEST);
    context->setViewport(viewport.left(), viewport.top(), viewport.width(), viewport.height());
    glClear(GL_COLOR_BUFFER_BIT);

    const AutoBinder programBinder(m_program.get());
    // The viewport's size, whatever that of the Ids is. Deliberate.
    m_program->setUniform(m_idSamplerWidth, viewport.width());
    m_program->setUniform(m_idSamplerHeight, viewport.height());
    m_program->setUniform(m_wireframeColour, QColor(26, 26, 26, 26));
    checkGLError(sourceFile, 176);
    const AutoBinder idBinder(ids);
    m_program->setUniform(m_idSampler, ids->unit());
    drawBatch(m_fullScreenBatch.data());
}

} // namespace Morvane::Qel
