#include <Qel/RenderPasses/compositing/GradientRenderPass.h>

#include <QColor>

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
        u"GradientRenderPass"_s,
        u"Fills a texture with a vertical gradient of two colours, or with one colour."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the texture; the origin is ignored"_s,
          u"an empty texture"_s,
          {},
          u"pixels"_s},
         {u"Qel_QColor_ColorTop"_s, u"colour at the upper edge"_s,
          u"nothing is drawn and the texture keeps its contents"_s, QColor(64, 64, 64, 255)},
         {u"Qel_QColor_ColorBottom"_s, u"colour at the lower edge"_s,
          u"the whole texture gets the top colour, opaque"_s, QColor(153, 153, 153, 255)}},
        {{u"Qel_QelTexture*_Frame"_s, u"the gradient, RGBA32F, owned by the pass"_s}}};
    return description;
}

GradientRenderPass::GradientRenderPass()
{
    declarePorts(description());
}

GradientRenderPass::~GradientRenderPass()
{
    if (m_framebuffer) {
        delete m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
    }
}

void GradientRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    const QRect viewport = m_inputs[Viewport].value.toRect();
    if (!m_framebuffer) {
        m_framebuffer = std::make_unique<FramebufferObject>(nullptr);
    }
    // An empty viewport has the size that the pass starts with, and still gets its empty texture.
    if (viewport.width() != m_width || viewport.height() != m_height ||
        !m_framebuffer->hasAttachment(GL_COLOR_ATTACHMENT0)) {
        resize(viewport.width(), viewport.height());
    }
    if (!m_program) {
        buildProgram();
    }

    const QVariant& top = m_inputs[ColorTop].value;
    const QVariant& bottom = m_inputs[ColorBottom].value;
    if (!top.isNull()) {
        const AutoBinder framebufferBinder(m_framebuffer.get());
        m_framebuffer->setDrawBuffers();
        context->setViewport(0, 0, m_width, m_height);
        context->disable(GL_DEPTH_TEST);
        context->disable(GL_STENCIL_TEST);
        context->disable(GL_BLEND);
        context->disable(GL_CULL_FACE);
        glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
        if (bottom.isNull()) {
            fill(top.value<QColor>());
        } else {
            drawGradient();
        }
    }
    m_outputs[Frame].value = textureVariant(m_framebuffer->attachment(GL_COLOR_ATTACHMENT0));
}

void GradientRenderPass::resize(int width, int height)
{
    m_width = width;
    m_height = height;
    const AutoBinder framebufferBinder(m_framebuffer.get());
    replaceAttachment(m_framebuffer.get(), GL_COLOR_ATTACHMENT0,
                      makeTarget(width, height, GL_RGBA32F, GL_BGRA, GL_FLOAT));
}

void GradientRenderPass::buildProgram()
{
    m_program = std::make_unique<ShaderProgram>(nullptr);
    m_program->setFragDataLocations({u"out_FragColor"_s});
    m_program->addShader(GL_VERTEX_SHADER, vertexSource, {});
    m_program->addShader(GL_FRAGMENT_SHADER, fragmentSource, {});
    Qel::buildProgram(m_program.get());
    // The quad: the colours are interpolated from vertices that lie on the edges of the viewport.
    m_fullScreenBatch = OpenGLDeviceContext::current()->fullScreenQuad();
    enableArrays(m_fullScreenBatch, m_program.get());
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

void GradientRenderPass::drawGradient()
{
    const AutoBinder programBinder(m_program.get());
    m_program->setUniform(m_colorTop, m_inputs[ColorTop].value.value<QColor>());
    m_program->setUniform(m_colorBottom, m_inputs[ColorBottom].value.value<QColor>());
    checkGLError(sourceFile, 205);
    if (!drawBatch(m_fullScreenBatch.data())) {
        setErrorCode(drawFailed);
    }
}

} // namespace Morvane::Qel
