#include <Qel/RenderPasses/compositing/SkyboxRenderPass.h>

#include <QMatrix4x4>

#include <array>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/SkyboxRenderPass";

const QString vertexSource = uR"(#version 150
uniform mat4 u_InvCameraMatrix;
uniform mat4 u_NDCCoordToDirection;
in vec3 va_Vertex;
out vec3 vo_Vertex;
out vec3 vo_ViewDir;

void main()
{
    gl_Position = vec4(va_Vertex, 1.0);
    vo_Vertex = va_Vertex;
    vec4 d4 = u_NDCCoordToDirection * vec4(va_Vertex, 1.0);
    vec3 d = normalize(d4.xyz / d4.w);
    vec3 p1 = (u_InvCameraMatrix * vec4(d, 1.0)).xyz;
    vec3 p0 = (u_InvCameraMatrix * vec4(0.0, 0.0, 0.0, 1.0)).xyz;
    vo_ViewDir = normalize(p1 - p0);
}
)"_s;

const QString cubeFragmentSource = uR"(#version 150
uniform samplerCube u_EnvTexture;
in vec3 vo_ViewDir;
out vec4 out_FragColor;

void main()
{
    out_FragColor = texture(u_EnvTexture, normalize(vo_ViewDir));
}
)"_s;

// The jump of u at the seam needs no care with derivatives: the minification filter that is set on the image
// reads no mipmaps.
const QString latLongFragmentSource = uR"(#version 150
#include "QelUtilities.glslh"
uniform sampler2D u_EnvTexture;
in vec3 vo_ViewDir;
out vec4 out_FragColor;

void main()
{
    out_FragColor = texture(u_EnvTexture, directionToLatLong_Vesk(normalize(vo_ViewDir)));
}
)"_s;

std::unique_ptr<ShaderProgram> makeProgram(const QString& fragmentSource, const QString& sharedFile)
{
    auto program = std::make_unique<ShaderProgram>(nullptr);
    // Neither stage writes out_Id: Ids that are attached beside the frame stay as they are.
    program->setFragDataLocations({u"out_FragColor"_s, u"out_Id"_s});
    program->addShader(GL_VERTEX_SHADER, vertexSource, {});
    program->addShader(GL_FRAGMENT_SHADER, fragmentSource, {});
    if (!sharedFile.isEmpty()) {
        program->addShaderFromFile(GL_FRAGMENT_SHADER, sharedFile);
    }
    buildProgram(program.get());
    checkGLError(sourceFile, __LINE__);
    return program;
}

} // namespace

const PassDescription& SkyboxRenderPass::description()
{
    static const PassDescription description{
        u"SkyboxRenderPass"_s,
        u"Fills the background of a frame, where the stencil is 0, with a cube map or an image "
        "in latitude and longitude."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the textures that stand in for missing ones; the origin is ignored"_s,
          u"1 x 1"_s,
          {},
          u"pixels"_s},
         {u"Qel_QMatrix4x4_ProjectionMatrix"_s, u"eye space to clip space"_s, u"identity"_s},
         {u"Qel_QMatrix4x4_CameraMatrix"_s, u"world space to eye space"_s, u"identity"_s},
         {u"Qel_QelTexture*_Cubemap"_s, u"the environment as a cube map"_s,
          u"the image in latitude and longitude is used"_s},
         {u"Qel_QelTexture*_LatLongMap"_s,
          u"the environment as an image in latitude and longitude, bottom row straight down; "
          "not used with a cube map"_s,
          u"without a cube map too, the frame is published as it came"_s},
         {u"Qel_QelTexture*_Frame"_s, u"the picture to draw into"_s,
          u"a new texture, RGBA16F, cleared to opaque black"_s},
         {u"Qel_QelTexture*_Depth"_s,
          u"depth and stencil of the frame; the stencil is not 0 where the scene was drawn"_s,
          u"the whole frame is background"_s}},
        {{u"Qel_QelTexture*_Frame"_s, u"the frame that came in, or the new one, with the environment"_s}}};
    return description;
}

SkyboxRenderPass::SkyboxRenderPass()
{
    declarePorts(description());
}

SkyboxRenderPass::~SkyboxRenderPass() = default;

void SkyboxRenderPass::setup(RenderCallbacks* /*callbacks*/)
{
    checkGLError(sourceFile, __LINE__);
    m_framebuffer = std::make_unique<FramebufferObject>(nullptr);
    m_cubeProgram = makeProgram(cubeFragmentSource, {});
    m_latLongProgram = makeProgram(latLongFragmentSource, u"QelUtilities.glslc"_s);
    // The quad: the view direction is a unit vector at each vertex, and what lies between is right only where
    // the vertices are equally far from the eye. Those of the oversized triangle are not.
    m_fullScreenBatch = OpenGLDeviceContext::current()->fullScreenQuad();
}

void SkyboxRenderPass::start(RenderCallbacks* callbacks)
{
    const QSize size = m_inputs[Viewport].value.toRect().size();
    if (!m_framebuffer || size.width() != m_width || size.height() != m_height) {
        // The first frame builds again what the host's setup built, as no size was known then. Deliberate.
        teardown(callbacks);
        m_width = size.width();
        m_height = size.height();
        setup(callbacks);
    }
    TextureManager* pool = TextureManager::Instance();
    auto* cubemap = getInputPointer<Texture>(Cubemap);
    auto* latLongMap = getInputPointer<Texture>(LatLongMap);
    auto* frame = getInputPointer<Texture>(InputFrame);
    auto* depth = getInputPointer<Texture>(Depth);
    const bool newFrame = !frame;
    const bool newDepth = !depth;
    if (newFrame) {
        frame = pool->tempTexture(TextureFormat::RGBA16F, m_width, m_height, -1);
    }
    if (newDepth) {
        depth = pool->tempTexture(TextureFormat::Depth24Stencil8, m_width, m_height, -1);
    }

    const AutoBinder framebufferBinder(m_framebuffer.get());
    checkGLError(sourceFile, __LINE__);
    m_framebuffer->attach(frame, GL_COLOR_ATTACHMENT0, 0);
    m_framebuffer->attach(depth, GL_DEPTH_STENCIL_ATTACHMENT, 0);
    if (cubemap || latLongMap) {
        m_framebuffer->setDrawBuffers();
        checkGLError(sourceFile, __LINE__);
        clearNewTargets(newFrame, newDepth);
        OpenGLDeviceContext::current()->disable(GL_DEPTH_TEST);
        checkGLError(sourceFile, __LINE__);
    }

    OpenGLDeviceContext::current()->enable(GL_STENCIL_TEST);
    glStencilFunc(GL_EQUAL, 0, 0xff);
    glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
    glStencilMask(0);
    if (cubemap) {
        drawEnvironment(m_cubeProgram.get(), cubemap);
    } else if (latLongMap) {
        latLongMap->setParameter(GL_TEXTURE_WRAP_S, GL_REPEAT);
        latLongMap->setParameter(GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
        latLongMap->setParameter(GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        drawEnvironment(m_latLongProgram.get(), latLongMap);
    }
    OpenGLDeviceContext::current()->disable(GL_STENCIL_TEST);

    m_outputs[Frame].value = textureVariant(frame);
    pool->addTempTextureRef(frame, m_outputs[Frame].users);
    pool->releaseTempTextureRef(cubemap, 1);
    pool->releaseTempTextureRef(latLongMap, 1);
    for (const unsigned int attachment : {GL_COLOR_ATTACHMENT0, GL_DEPTH_STENCIL_ATTACHMENT}) {
        pool->releaseTempTextureRef(m_framebuffer->detach(attachment), 1);
    }
}

void SkyboxRenderPass::teardown(RenderCallbacks* /*callbacks*/)
{
    m_framebuffer.reset();
    m_cubeProgram.reset();
    m_latLongProgram.reset();
    m_fullScreenBatch.reset();
}

void SkyboxRenderPass::clearNewTargets(bool newFrame, bool newDepth)
{
    if (newFrame) {
        constexpr std::array<float, 4> opaqueBlack{0.0F, 0.0F, 0.0F, 1.0F};
        glClearBufferfv(GL_COLOR, 0, opaqueBlack.data());
    }
    if (newDepth) {
        // The frame before left the stencil mask 0, which would keep what the pool's texture held.
        glDepthMask(GL_TRUE);
        glStencilMask(0xff);
        glClearBufferfi(GL_DEPTH_STENCIL, 0, 1.0F, 0);
    }
}

void SkyboxRenderPass::drawEnvironment(ShaderProgram* program, Texture* environment)
{
    const auto projection = m_inputs[ProjectionMatrix].value.value<QMatrix4x4>();
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();
    const AutoBinder programBinder(program);
    const AutoBinder textureBinder(environment);
    enableArrays(m_fullScreenBatch, program);
    program->setUniform(m_envTexture, environment->unit());
    program->setUniform(m_invCameraMatrix, camera.inverted());
    program->setUniform(m_ndcCoordToDirection, projection.inverted());
    checkGLError(sourceFile, __LINE__);
    drawBatch(m_fullScreenBatch.data());
}

} // namespace Morvane::Qel
