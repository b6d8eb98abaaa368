#include <Qel/RenderPasses/geometry/ForwardRenderPass.h>

#include <QMatrix4x4>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/ModelPrograms.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/ForwardRenderPass";

// The normal is extended with w = 1, so that the last column of the normal matrix takes part. Deliberate.
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

// The normal is used as it was interpolated, without normalising it again. Deliberate.
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
        u"ForwardRenderPass"_s,
        u"Draws a model in one pass, lit by a directional light that moves with the camera."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the textures; the origin is ignored"_s,
          u"no texture is made"_s,
          {},
          u"pixels"_s},
         {u"Qel_QMatrix4x4_ProjectionMatrix"_s, u"eye space to clip space"_s, u"identity"_s},
         {u"Qel_QMatrix4x4_CameraMatrix"_s, u"world space to eye space"_s, u"identity"_s},
         {u"Qel_QelGPUModel*_Geometry"_s, u"the model; all its batches are drawn"_s,
          u"the textures are cleared to 0"_s}},
        {{u"Qel_QelTexture*_Frame"_s,
          u"lit colours, alpha the material's dissolve; GL_RGBA, owned by the pass"_s},
         {u"Qel_QelTexture*_Id"_s,
          u"number of the primitive plus one in all components, 0 where there is none; GL_RGBA "
          "of the driver's default precision, owned by the pass"_s}}};
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
    const QRect viewport = m_inputs[Viewport].value.toRect();
    const auto projection = m_inputs[ProjectionMatrix].value.value<QMatrix4x4>();
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();
    auto* model = getInputPointer<GPUModel>(Geometry);

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
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    if (model) {
        const AutoEnabler depthTest(GL_DEPTH_TEST);
        const AutoBinder programBinder(m_program);
        m_program->setUniform(m_projectionMatrix, projection);
        m_program->setUniform(m_cameraMatrix, camera);
        checkGLError(sourceFile, 227);
        model->draw(m_program, 0, 0, WindingType::CounterClockwise);
    }
    m_outputs[Frame].value = textureVariant(m_framebuffer->attachment(GL_COLOR_ATTACHMENT0));
    m_outputs[Id].value = textureVariant(m_framebuffer->attachment(GL_COLOR_ATTACHMENT1));
}

void ForwardRenderPass::resize(int width, int height)
{
    m_width = width;
    m_height = height;
    const AutoBinder framebufferBinder(m_framebuffer);
    for (const unsigned int attachment : {GL_COLOR_ATTACHMENT0, GL_COLOR_ATTACHMENT1}) {
        replaceAttachment(m_framebuffer, attachment, makeTarget(width, height, GL_RGBA, GL_BGRA, GL_FLOAT));
    }
    replaceAttachment(m_framebuffer, GL_DEPTH_ATTACHMENT, makeDepthTarget(width, height));
}

void ForwardRenderPass::buildProgram()
{
    m_program = new ShaderProgram(nullptr);
    m_program->setFragDataLocations({u"out_FragColor"_s, u"out_Id"_s});
    addModelVertexShaders(m_program, vertexSource);
    addModelFragmentShaders(m_program, fragmentSource);
    Qel::buildProgram(m_program);
}

} // namespace Morvane::Qel
