#include <Qel/RenderPasses/geometry/GBufferRenderPass.h>

#include <QMatrix4x4>
#include <QRect>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/GBufferRenderPass";

// There is no model matrix: vertices are in world space already, and so are the normals. Deliberate.
const QString vertexSource = uR"(#version 150
uniform mat4 u_CameraMatrix;
uniform mat4 u_ProjectionMatrix;
in vec3 va_Vertex;
in vec3 va_Normal;
in vec2 va_TexCoord;
out vec3 vo_Vertex;
out vec3 vo_Normal;
out vec2 vo_TexCoord;

void main()
{
    gl_Position = u_ProjectionMatrix * (u_CameraMatrix * vec4(va_Vertex, 1.0));
    vo_Vertex = va_Vertex;
    vo_Normal = va_Normal;
    vo_TexCoord = va_TexCoord;
}
)"_s;

// The normal is stored as it was interpolated, without normalising it again. Deliberate.
const QString fragmentSource = uR"(#version 150
in vec3 vo_Vertex;
in vec3 vo_Normal;
in vec2 vo_TexCoord;
out vec3 out_Normal;
out vec2 out_TexCoord;
out vec4 out_Id;

void main()
{
    out_Normal = vo_Normal;
    out_TexCoord = vo_TexCoord;
    out_Id = vec4(float(gl_PrimitiveID) + 1.0);
}
)"_s;

} // namespace

const PassDescription& GBufferRenderPass::description()
{
    static const PassDescription description{
        u"GBufferRenderPass"_s,
        u"Draws batches of geometry into images of normals, texture coordinates, depth and "
        "primitives."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the textures; the origin is ignored"_s,
          u"no texture is made"_s,
          {},
          u"pixels"_s},
         {u"Qel_QMatrix4x4_ProjectionMatrix"_s, u"eye space to clip space"_s, u"identity"_s},
         {u"Qel_QMatrix4x4_CameraMatrix"_s, u"world space to eye space"_s, u"identity"_s},
         {u"Qel_QelDrawBuffers*_Geometry"_s,
          u"a batch or a list of batches, their vertices in world space; transforms of a "
          "model's instances are not applied"_s,
          u"the textures are cleared to the clear colour in force, the depth to 1"_s}},
        {{u"Qel_QelTexture*_Normal"_s,
          u"normal as the vertices have it, interpolated; RGB32F, owned by the pass"_s},
         {u"Qel_QelTexture*_TexCoord"_s, u"texture coordinate; RG32F, owned by the pass"_s},
         {u"Qel_QelTexture*_Depth"_s,
          u"depth from 0 at the near plane to 1; DEPTH_COMPONENT32F, owned by the pass"_s},
         {u"Qel_QelTexture*_Id"_s,
          u"number of the primitive in its batch plus one, 0 where there is none; R32F, owned "
          "by the pass"_s}}};
    return description;
}

GBufferRenderPass::GBufferRenderPass()
    : m_attachments{{u"out_Normal"_s, GL_RGB32F}, {u"out_TexCoord"_s, GL_RG32F}, {u"out_Id"_s, GL_R32F}}
{
    declarePorts(description());
}

GBufferRenderPass::~GBufferRenderPass() = default;

void GBufferRenderPass::setShaderProgram(ShaderProgram* program)
{
    m_program = program;
}

void GBufferRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QRect viewport = m_inputs[Viewport].value.toRect();
    const auto projection = m_inputs[ProjectionMatrix].value.value<QMatrix4x4>();
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();
    const QVariant& geometry = m_inputs[Geometry].value;
    // Kept as it came where it is no list: a list of one would be allocated in every frame.
    const bool isList = geometry.canConvert<QVariantList>();
    const QVariantList list = isList ? geometry.toList() : QVariantList();

    if (!m_framebuffer) {
        m_framebuffer = new FramebufferObject(nullptr);
    }
    if (viewport.width() != m_width || viewport.height() != m_height) {
        resize(viewport.width(), viewport.height());
    }
    if (!m_program) {
        buildProgram();
    }

    const AutoBinder framebufferBinder(m_framebuffer);
    m_framebuffer->setDrawBuffers();
    // To the clear colour in force: deliberate.
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    // The null pointer of a pass that built nothing is no geometry either.
    if (isList ? !list.isEmpty() : !geometry.isNull()) {
        OpenGLDeviceContext::current()->enable(GL_DEPTH_TEST);
        const AutoBinder programBinder(m_program);
        m_program->setUniform(m_projectionMatrix, projection);
        m_program->setUniform(m_cameraMatrix, camera);
        checkGLError(sourceFile, 239);
        if (isList) {
            for (const QVariant& entry : list) {
                drawEntry(entry);
            }
        } else {
            drawEntry(geometry);
        }
    }
    publish();
}

void GBufferRenderPass::resize(int width, int height)
{
    m_width = width;
    m_height = height;
    replaceTargets(m_framebuffer, m_attachments, width, height);
}

void GBufferRenderPass::buildProgram()
{
    m_program = new ShaderProgram(nullptr);
    m_program->setFragDataLocations(outputNames(m_attachments));
    m_program->addShader(GL_VERTEX_SHADER, vertexSource, {});
    m_program->addShader(GL_FRAGMENT_SHADER, fragmentSource, {});
    Qel::buildProgram(m_program);
}

void GBufferRenderPass::drawEntry(const QVariant& entry)
{
    if (auto* batch = pointerFromVariant<DrawBuffers>(entry)) {
        // Enables the arrays that the program reads, too.
        drawBatch(batch);
    } else if (!m_saidWhatIsNoBatch) {
        m_saidWhatIsNoBatch = true;
        logNotice(sourceFile, __LINE__,
                  u"an entry of the geometry is left out: it must be a DrawBuffers*, not %1"_s.arg(
                      entry.isNull() ? u"null"_s : QString::fromLatin1(entry.metaType().name())));
    }
}

void GBufferRenderPass::publish()
{
    const auto attached = [&](unsigned int attachment) {
        return textureVariant(m_framebuffer->attachment(attachment));
    };
    // The Id comes last though it is attached before the depth.
    m_outputs[Normal].value = attached(GL_COLOR_ATTACHMENT0);
    m_outputs[TexCoord].value = attached(GL_COLOR_ATTACHMENT1);
    m_outputs[Depth].value = attached(GL_DEPTH_ATTACHMENT);
    m_outputs[Id].value = attached(GL_COLOR_ATTACHMENT2);
}

} // namespace Morvane::Qel
