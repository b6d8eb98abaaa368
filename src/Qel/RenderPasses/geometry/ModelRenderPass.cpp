#include <Qel/RenderPasses/geometry/ModelRenderPass.h>

#include <QMatrix4x4>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/ModelPrograms.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/ModelRenderPass";

// Deliberate: the normal is extended with w = 1, so the last column of the normal matrix contributes.
const QString vertexSource = uR"(#version 150
#instancedata "InstanceInfo"
uniform mat4 u_CameraMatrix;
uniform mat4 u_ProjectionMatrix;
uniform mat4 u_NormalMatrix;
in vec3 va_Vertex;
in vec3 va_Normal;
in vec2 va_TexCoord;
out vec3 vo_Normal;
out vec2 vo_TexCoord;

void main()
{
    gl_Position = u_ProjectionMatrix * u_CameraMatrix * getModelMatrix() * vec4(va_Vertex, 1.0);
    mat4 normalMatrix = u_NormalMatrix * getModelNormalMatrix();
    vo_Normal = (normalMatrix * vec4(va_Normal, 1.0)).xyz;
    vo_TexCoord = va_TexCoord;
}
)"_s;

// Removing the marker turns the rest of its line into code. Deliberate: out_TexCoord has no attachment and is
// written nowhere.
const QString discardMarker = u"//DODA "_s;
const QString fragmentSource = uR"(#version 150
#instancedata "OBJMaterial"
#include "TextureManager.glslh"
in vec3 vo_Normal;
in vec2 vo_TexCoord;
out vec4 out_Kd;
out vec4 out_Ks;
out vec3 out_Normal;
out vec2 out_TexCoord;
out vec4 out_Id;

void main()
{
    // Both before the discard, after which the derivatives that choose the mip level would be undefined.
    vec4 diffuse = managedTexture(getMap_Kd(), vo_TexCoord);
    vec4 specular = managedTexture(getMap_Ks(), vo_TexCoord);
    //DODA if (diffuse.a <= 0.01) discard;
    out_Kd = vec4(getKd() * diffuse.rgb, getD());
    out_Ks = vec4(getKs() * specular.rgb, getNs());
    out_Normal = normalize(vo_Normal);
    out_TexCoord = vo_TexCoord;
    out_Id = vec4(float(gl_PrimitiveID) + 1.0);
}
)"_s;

} // namespace

const PassDescription& ModelRenderPass::description()
{
    static const PassDescription description{
        .type = u"ModelRenderPass"_s,
        .summary = u"Draws a model into a G-buffer of materials, normals, depth and primitive numbers."_s,
        .inputs = {viewportInput(u"size of the outputs; the origin is ignored"_s, u"no texture is made"_s),
                   projectionMatrixInput(), cameraMatrixInput(),
                   modelInput(u"the model; all its batches are drawn"_s,
                              u"the outputs are cleared to 0, the depth to 1"_s)},
        .outputs = {{.name = u"Qel_QelTexture*_Diffuse"_s,
                     .meaning = u"the diffuse colour, alpha holding the dissolve; RGBA32F, owned by the "
                                "pass"_s,
                     .encoding = Encoding::AsMaterials,
                     .alpha = AlphaMeaning::Straight},
                    {.name = u"Qel_QelTexture*_Specular"_s,
                     .meaning = u"the specular colour, alpha holding the shininess, not clamped; RGBA32F, "
                                "owned by the pass"_s,
                     .encoding = Encoding::AsMaterials,
                     .alpha = AlphaMeaning::Data},
                    {.name = u"Qel_QelTexture*_Normal"_s,
                     .meaning = u"the eye-space normal, of unit length; RGB32F, owned by the pass"_s,
                     .encoding = Encoding::Data,
                     .space = Space::Eye},
                    {.name = u"Qel_QelTexture*_Depth"_s,
                     .meaning = u"the depth, from 0 at the near plane to 1 at the far plane; "
                                "DEPTH_COMPONENT32F, owned by the pass"_s,
                     .encoding = Encoding::Data},
                    {.name = u"Qel_QelTexture*_Id"_s,
                     .meaning = u"the primitive's number plus one, 0 for the background; R32F, owned by the "
                                "pass"_s,
                     .encoding = Encoding::Data}},
        .options = {{.name = u"discardOnDiffuseAlpha"_s,
                     .meaning = u"whether to discard fragments whose diffuse map has an alpha of 0.01 or "
                                "less"_s,
                     .defaultValue = false}}};
    return description;
}

ModelRenderPass::ModelRenderPass()
    : m_attachments{{u"out_Kd"_s, GL_RGBA32F},
                    {u"out_Ks"_s, GL_RGBA32F},
                    {u"out_Normal"_s, GL_RGB32F},
                    {u"out_Id"_s, GL_R32F}}
{
    declarePorts(description());
}

ModelRenderPass::~ModelRenderPass() = default;

void ModelRenderPass::setShaderProgram(ShaderProgram* program)
{
    m_program = program;
}

void ModelRenderPass::setDiscardOnDiffuseAlpha(bool discard)
{
    m_discardOnDiffuseAlpha = discard;
}

void ModelRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();
    auto* model = getInputPointer<GPUModel>(Geometry);
    provideTargets(m_framebuffer, m_width, m_height, m_inputs[Viewport].value.toRect(), m_attachments);
    if (!m_program) {
        buildProgram();
    }

    const AutoBinder framebufferBinder(m_framebuffer);
    m_framebuffer->setDrawBuffers();
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    if (model) {
        OpenGLDeviceContext::current()->enable(GL_DEPTH_TEST);
        const AutoBinder programBinder(m_program);
        m_program->setUniform(m_projectionMatrix, m_inputs[ProjectionMatrix].value.value<QMatrix4x4>());
        m_program->setUniform(m_cameraMatrix, camera);
        m_program->setUniform(m_normalMatrix, camera.inverted().transposed());
        checkGLError(sourceFile, 265);
        model->draw(m_program, 0, 0, WindingType::CounterClockwise);
    }
    m_outputs[Diffuse].value = attachedTexture(m_framebuffer, GL_COLOR_ATTACHMENT0);
    m_outputs[Specular].value = attachedTexture(m_framebuffer, GL_COLOR_ATTACHMENT1);
    m_outputs[Normal].value = attachedTexture(m_framebuffer, GL_COLOR_ATTACHMENT2);
    m_outputs[Depth].value = attachedTexture(m_framebuffer, GL_DEPTH_ATTACHMENT);
    m_outputs[Id].value = attachedTexture(m_framebuffer, GL_COLOR_ATTACHMENT3);
}

void ModelRenderPass::buildProgram()
{
    QString source = fragmentSource;
    if (m_discardOnDiffuseAlpha) {
        source.remove(discardMarker);
    }
    buildModelProgram(provide(m_program), fragmentOutputs(m_attachments), vertexSource, source);
}

} // namespace Morvane::Qel
