#include <Qel/RenderPasses/geometry/GBufferRenderPass.h>

#include <QMatrix4x4>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/GLErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/GBufferRenderPass";

// Deliberate: there is no model matrix. Positions and normals are in world space already.
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

// Deliberate: the interpolated normal is not normalised again.
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
        .type = u"GBufferRenderPass"_s,
        .summary = u"Draws batches into a G-buffer of normals, texture coordinates, depth and primitive "
                   "numbers."_s,
        .inputs = {viewportInput(u"size of the outputs; the origin is ignored"_s, u"no texture is made"_s),
                   projectionMatrixInput(),
                   cameraMatrixInput(),
                   {.name = u"Qel_QelDrawBuffers*_Geometry"_s,
                    .meaning = u"a batch or a list of batches with vertices in world space; the transforms "
                               "of a model's instances are not applied"_s,
                    .whenMissing = u"the outputs are cleared to the clear colour in force, the depth to "
                                   "1"_s}},
        .outputs = {{.name = u"Qel_QelTexture*_Normal"_s,
                     .meaning = u"the interpolated world-space normal, not normalised; RGB32F, owned by the "
                                "pass"_s,
                     .encoding = Encoding::Data,
                     .space = Space::World},
                    {.name = u"Qel_QelTexture*_TexCoord"_s,
                     .meaning = u"the interpolated texture coordinate; RG32F, owned by the pass"_s,
                     .encoding = Encoding::Data},
                    {.name = u"Qel_QelTexture*_Depth"_s,
                     .meaning = u"the depth, from 0 at the near plane to 1 at the far plane; "
                                "DEPTH_COMPONENT32F, owned by the pass"_s,
                     .encoding = Encoding::Data},
                    {.name = u"Qel_QelTexture*_Id"_s,
                     .meaning = u"the primitive's number in its batch plus one, 0 for the background; R32F, "
                                "owned by the pass"_s,
                     .encoding = Encoding::Data}}};
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
    const QVariant& geometry = m_inputs[Geometry].value;
    // A single batch is drawn directly: a list of one would be allocated in every frame.
    const bool isList = geometry.canConvert<QVariantList>();
    const QVariantList list = isList ? geometry.toList() : QVariantList();
    provideTargets(m_framebuffer, m_width, m_height, m_inputs[Viewport].value.toRect(), m_attachments);
    if (!m_program) {
        buildProgram();
    }

    const AutoBinder framebufferBinder(m_framebuffer);
    m_framebuffer->setDrawBuffers();
    // Deliberate: the clear colour in force is used.
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    if (isList ? !list.isEmpty() : !geometry.isNull()) {
        OpenGLDeviceContext::current()->enable(GL_DEPTH_TEST);
        const AutoBinder programBinder(m_program);
        m_program->setUniform(m_projectionMatrix, m_inputs[ProjectionMatrix].value.value<QMatrix4x4>());
        m_program->setUniform(m_cameraMatrix, m_inputs[CameraMatrix].value.value<QMatrix4x4>());
        checkGLError(sourceFile, 239);
        if (isList) {
            for (const QVariant& entry : list) {
                drawEntry(entry);
            }
        } else {
            drawEntry(geometry);
        }
    }
    // Ports and attachments differ in order: the depth port comes before the Id port.
    m_outputs[Normal].value = attachedTexture(m_framebuffer, GL_COLOR_ATTACHMENT0);
    m_outputs[TexCoord].value = attachedTexture(m_framebuffer, GL_COLOR_ATTACHMENT1);
    m_outputs[Depth].value = attachedTexture(m_framebuffer, GL_DEPTH_ATTACHMENT);
    m_outputs[Id].value = attachedTexture(m_framebuffer, GL_COLOR_ATTACHMENT2);
}

void GBufferRenderPass::buildProgram()
{
    provide(m_program).setFragDataLocations(fragmentOutputs(m_attachments));
    m_program->addShader(GL_VERTEX_SHADER, vertexSource, {});
    m_program->addShader(GL_FRAGMENT_SHADER, fragmentSource, {});
    Qel::buildProgram(*m_program);
}

void GBufferRenderPass::drawEntry(const QVariant& entry)
{
    if (auto* batch = pointerFromVariant<DrawBuffers>(entry)) {
        drawBatch(batch);
    } else if (!m_hasReportedEntry) {
        m_hasReportedEntry = true;
        logNotice(sourceFile, __LINE__,
                  u"a geometry entry is skipped: it must be a DrawBuffers*, not %1"_s.arg(
                      entry.isNull() ? u"null"_s : QString::fromLatin1(entry.metaType().name())));
    }
}

} // namespace Morvane::Qel
