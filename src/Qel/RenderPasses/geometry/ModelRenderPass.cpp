#include <Qel/RenderPasses/geometry/ModelRenderPass.h>

#include <QMatrix4x4>
#include <QRect>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/ModelPrograms.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/ModelRenderPass";

// The normal is extended with w = 1, so that the last column of the normal matrix takes part. Deliberate.
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

// The line behind the marker is a comment until the marker is taken away. out_TexCoord has no attachment and
// goes nowhere; deliberate.
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
    vec4 diffuse = managedTexture(getMap_Kd(), vo_TexCoord);
    //DODA if (diffuse.a <= 0.01) discard;
    out_Kd = vec4(getKd() * diffuse.rgb, getD());
    out_Ks = vec4(getKs() * managedTexture(getMap_Ks(), vo_TexCoord).rgb, getNs());
    out_Normal = normalize(vo_Normal);
    out_TexCoord = vo_TexCoord;
    out_Id = vec4(float(gl_PrimitiveID) + 1.0);
}
)"_s;

} // namespace

const PassDescription& ModelRenderPass::description()
{
    static const PassDescription description{
        u"ModelRenderPass"_s,
        u"Draws a model into images of its materials, normals, depth and primitives."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the textures; the origin is ignored"_s,
          u"no texture is made"_s,
          {},
          u"pixels"_s},
         {u"Qel_QMatrix4x4_ProjectionMatrix"_s, u"eye space to clip space"_s, u"identity"_s},
         {u"Qel_QMatrix4x4_CameraMatrix"_s, u"world space to eye space"_s, u"identity"_s},
         {u"Qel_QelGPUModel*_Geometry"_s, u"the model; all its batches are drawn"_s,
          u"the textures are cleared to 0, the depth to 1"_s}},
        {{u"Qel_QelTexture*_Diffuse"_s, u"diffuse colour, alpha the dissolve; RGBA32F, owned by the pass"_s},
         {u"Qel_QelTexture*_Specular"_s,
          u"specular colour, alpha the shininess; RGBA32F, owned by the pass"_s},
         {u"Qel_QelTexture*_Normal"_s, u"normal in eye space, of unit length; RGB32F, owned by the pass"_s},
         {u"Qel_QelTexture*_Depth"_s,
          u"depth from 0 at the near plane to 1; DEPTH_COMPONENT32F, owned by the pass"_s},
         {u"Qel_QelTexture*_Id"_s,
          u"number of the primitive plus one, 0 where there is none; R32F, owned by the pass"_s}},
        {{u"discardOnDiffuseAlpha"_s,
          u"whether fragments whose diffuse map has an alpha of 0.01 or less are discarded"_s, false}}};
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
        OpenGLDeviceContext::current()->enable(GL_DEPTH_TEST);
        const AutoBinder programBinder(m_program);
        m_program->setUniform(m_projectionMatrix, projection);
        m_program->setUniform(m_cameraMatrix, camera);
        m_program->setUniform(m_normalMatrix, camera.inverted().transposed());
        checkGLError(sourceFile, 265);
        model->draw(m_program, 0, 0, WindingType::CounterClockwise);
    }
    publish();
}

void ModelRenderPass::resize(int width, int height)
{
    m_width = width;
    m_height = height;
    replaceTargets(m_framebuffer, m_attachments, width, height);
}

void ModelRenderPass::buildProgram()
{
    QString fragments = fragmentSource;
    if (m_discardOnDiffuseAlpha) {
        fragments.replace(discardMarker, QString());
    }
    m_program = new ShaderProgram(nullptr);
    m_program->setFragDataLocations(outputNames(m_attachments));
    addModelVertexShaders(m_program, vertexSource);
    addModelFragmentShaders(m_program, fragments);
    Qel::buildProgram(m_program);
}

void ModelRenderPass::publish()
{
    const auto attached = [&](unsigned int attachment) {
        return textureVariant(m_framebuffer->attachment(attachment));
    };
    m_outputs[Diffuse].value = attached(GL_COLOR_ATTACHMENT0);
    m_outputs[Specular].value = attached(GL_COLOR_ATTACHMENT1);
    m_outputs[Normal].value = attached(GL_COLOR_ATTACHMENT2);
    m_outputs[Depth].value = attached(GL_DEPTH_ATTACHMENT);
    m_outputs[Id].value = attached(GL_COLOR_ATTACHMENT3);
}

} // namespace Morvane::Qel
