#include <Qel/RenderPasses/geometry/ForwardRenderPass.h>

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

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/ForwardRenderPass";

// Deliberate: the normal is extended with w = 1, so the last column of the normal matrix contributes.
const QString vertexSource = uR"(#version 150
#instancedata "InstanceInfo"
uniform mat4 u_CameraMatrix;
uniform mat4 u_ProjectionMatrix;
in vec3 va_Vertex;
in vec3 va_Normal;
in vec2 va_TexCoord;
out vec3 vo_Normal;
out vec2 vo_TexCoord;

void main()
{
    mat4 modelView = u_CameraMatrix * getModelMatrix();
    gl_Position = u_ProjectionMatrix * u_CameraMatrix * getModelMatrix() * vec4(va_Vertex, 1.0);
    mat4 normalMatrix = transpose(inverse(modelView));
    vo_Normal = (normalMatrix * vec4(va_Normal, 1.0)).xyz;
    vo_TexCoord = va_TexCoord;
}
)"_s;

// Deliberate: the interpolated normal is not normalised again.
const QString fragmentSource = uR"(#version 150
#instancedata "OBJMaterial"
#include "DirectionalLight.glslh"
#include "TextureManager.glslh"
in vec3 vo_Normal;
in vec2 vo_TexCoord;
out vec4 out_FragColor;
out vec4 out_Id;

void main()
{
    vec3 Kd = getKd() * managedTexture(getMap_Kd(), vo_TexCoord).rgb;
    vec3 Ks = getKs() * managedTexture(getMap_Ks(), vo_TexCoord).rgb;
    vec3 L = normalize(vec3(100.0, 100.0, 100.0));
    out_FragColor = vec4(directionalLight(Kd, Ks, getNs(), vo_Normal, L), getD());
    out_Id = vec4(float(gl_PrimitiveID) + 1.0);
}
)"_s;

} // namespace

const PassDescription& ForwardRenderPass::description()
{
    static const PassDescription description{
        .type = u"ForwardRenderPass"_s,
        .summary = u"Draws a model in one pass, lit by a directional light that moves with the camera."_s,
        .inputs = {viewportInput(u"size of the outputs; the origin is ignored"_s, u"no texture is made"_s),
                   projectionMatrixInput(), cameraMatrixInput(),
                   modelInput(u"the model; all its batches are drawn"_s, u"the outputs are cleared to 0"_s)},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"the lit colour, straight alpha holding the material's dissolve, 0 where "
                                "nothing was drawn; GL_RGBA, owned by the pass"_s,
                     .encoding = Encoding::AsMaterials,
                     .alpha = AlphaMeaning::Straight},
                    {.name = u"Qel_QelTexture*_Id"_s,
                     .meaning = u"the primitive's number plus one in all four components, 0 for the "
                                "background; GL_RGBA at the driver's default precision (8 bits clamp every "
                                "Id to 1), owned by the pass"_s,
                     .encoding = Encoding::Data,
                     .alpha = AlphaMeaning::Data}}};
    return description;
}

ForwardRenderPass::ForwardRenderPass()
{
    declarePorts(description());
}

ForwardRenderPass::~ForwardRenderPass() = default;

void ForwardRenderPass::setShaderProgram(ShaderProgram* program)
{
    m_program = program;
}

void ForwardRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    auto* model = getInputPointer<GPUModel>(Geometry);
    provideTargets(m_framebuffer, m_width, m_height, m_inputs[Viewport].value.toRect(),
                   {{GL_COLOR_ATTACHMENT0, GL_RGBA, GL_BGRA, GL_FLOAT},
                    {GL_COLOR_ATTACHMENT1, GL_RGBA, GL_BGRA, GL_FLOAT},
                    depthTarget});
    if (!m_program) {
        buildModelProgram(provide(m_program), {u"out_FragColor"_s, u"out_Id"_s}, vertexSource,
                          fragmentSource);
    }

    const AutoBinder framebufferBinder(m_framebuffer);
    m_framebuffer->setDrawBuffers();
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    if (model) {
        const AutoEnabler depthTest(GL_DEPTH_TEST);
        const AutoBinder programBinder(m_program);
        m_program->setUniform(m_projectionMatrix, m_inputs[ProjectionMatrix].value.value<QMatrix4x4>());
        m_program->setUniform(m_cameraMatrix, m_inputs[CameraMatrix].value.value<QMatrix4x4>());
        checkGLError(sourceFile, 227);
        model->draw(m_program, 0, 0, WindingType::CounterClockwise);
    }
    m_outputs[Frame].value = attachedTexture(m_framebuffer, GL_COLOR_ATTACHMENT0);
    m_outputs[Id].value = attachedTexture(m_framebuffer, GL_COLOR_ATTACHMENT1);
}

} // namespace Morvane::Qel
