#include <Qel/RenderPasses/compositing/GradientRenderPass.h>

#include <QColor>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/gl/GLErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/GradientRenderPass";
constexpr unsigned int drawFailed = 0xFFFFFFFF;

const QString vertexSource = uR"(#version 150
uniform vec4 u_ColorTop;
uniform vec4 u_ColorBottom;
in vec3 va_Vertex;
in vec2 va_TexCoord;
out vec4 vo_Color;

void main()
{
    gl_Position = vec4(va_Vertex, 1.0);
    vo_Color = mix(u_ColorBottom, u_ColorTop, va_TexCoord.y);
}
)"_s;

const QString fragmentSource = uR"(#version 150
in vec4 vo_Color;
out vec4 out_FragColor;

void main()
{
    out_FragColor = vo_Color;
}
)"_s;

} // namespace

const PassDescription& GradientRenderPass::description()
{
    static const PassDescription description{
        .type = u"GradientRenderPass"_s,
        .summary = u"Fills a texture with a vertical gradient between two colours, or with one colour."_s,
        .inputs = {viewportInput(u"size of the texture; the origin is ignored"_s, u"an empty texture"_s),
                   {.name = u"Qel_QColor_ColorTop"_s,
                    .meaning = u"colour at the top edge"_s,
                    .whenMissing = u"nothing is drawn and the texture keeps its contents"_s,
                    .defaultValue = QColor(64, 64, 64, 255)},
                   {.name = u"Qel_QColor_ColorBottom"_s,
                    .meaning = u"colour at the bottom edge"_s,
                    .whenMissing = u"the whole texture is filled with the top colour, opaque"_s,
                    .defaultValue = QColor(153, 153, 153, 255)}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning =
                         u"the gradient, straight alpha, in the encoding of the colours; RGBA32F, owned "
                         "by the pass"_s,
                     .encoding = Encoding::Display,
                     .alpha = AlphaMeaning::Straight}}};
    return description;
}

GradientRenderPass::GradientRenderPass()
{
    declarePorts(description());
}

GradientRenderPass::~GradientRenderPass()
{
    deleteTarget(m_framebuffer.get(), GL_COLOR_ATTACHMENT0);
}

void GradientRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    provideTargets(m_framebuffer, m_width, m_height, m_inputs[Viewport].value.toRect(),
                   {{GL_COLOR_ATTACHMENT0, GL_RGBA32F, GL_BGRA, GL_FLOAT}}, EmptyViewport::EmptyTextures);
    // The quad: its vertices lie on the viewport's edges, where the colours must be exact.
    provideScreenProgram(m_program, m_fullScreenBatch, {.fragment = fragmentSource, .vertex = vertexSource},
                         Screen::Quad);
    const QVariant& top = m_inputs[ColorTop].value;
    const QVariant& bottom = m_inputs[ColorBottom].value;
    if (!top.isNull()) {
        const AutoBinder framebufferBinder(m_framebuffer.get());
        m_framebuffer->setDrawBuffers();
        OpenGLDeviceContext* context = OpenGLDeviceContext::current();
        context->disable(GL_DEPTH_TEST);
        context->disable(GL_STENCIL_TEST);
        context->disable(GL_BLEND);
        context->disable(GL_CULL_FACE);
        glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
        if (bottom.isNull()) {
            fill(top.value<QColor>());
        } else {
            drawGradient(top.value<QColor>(), bottom.value<QColor>());
        }
    }
    m_outputs[Frame].value = attachedTexture(m_framebuffer.get(), GL_COLOR_ATTACHMENT0);
}

void GradientRenderPass::fill(const QColor& color)
{
    OpenGLDeviceContext::current()->disable(GL_SCISSOR_TEST);
    const auto normalised = [](int channel) { return static_cast<float>(channel / 255.0); };
    glClearColor(normalised(color.red()), normalised(color.green()), normalised(color.blue()), 1.0F);
    glClear(GL_COLOR_BUFFER_BIT);
    if (hasGLError(sourceFile, 197)) {
        setErrorCode(drawFailed);
    }
}

void GradientRenderPass::drawGradient(const QColor& top, const QColor& bottom)
{
    const AutoBinder programBinder(m_program.get());
    m_program->setUniform(m_colorTop, top);
    m_program->setUniform(m_colorBottom, bottom);
    checkGLError(sourceFile, 205);
    if (!drawBatch(m_fullScreenBatch)) {
        setErrorCode(drawFailed);
    }
}

} // namespace Morvane::Qel
