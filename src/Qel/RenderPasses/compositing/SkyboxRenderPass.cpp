#include <Qel/RenderPasses/compositing/SkyboxRenderPass.h>

#include <QMatrix4x4>

#include <array>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/GLErrors.h>

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

// The jump of u at the seam needs no explicit derivatives: the image is sampled without mip levels.
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

// Deliberate: neither fragment stage declares out_Id, and nothing is attached at its draw buffer.
const QStringList programOutputs{u"out_FragColor"_s, u"out_Id"_s};

} // namespace

const PassDescription& SkyboxRenderPass::description()
{
    InputDescription projection = projectionMatrixInput();
    projection.perspectiveReason = u"in an orthographic view, every pixel sees the environment in the same "
                                   "direction"_s;
    static const PassDescription description{
        .type = u"SkyboxRenderPass"_s,
        .summary = u"Fills the background of a frame, where the stencil is 0, with a cube map or a "
                   "latitude-longitude image."_s,
        .inputs = {viewportInput(u"size of the textures that replace a missing frame or depth; the origin is "
                                 "ignored"_s,
                                 u"1 x 1"_s),
                   projection,
                   cameraMatrixInput(),
                   {.name = u"Qel_QelTexture*_Cubemap"_s,
                    .meaning = u"the environment as a cube map"_s,
                    .whenMissing = u"the latitude-longitude image is used"_s},
                   {.name = u"Qel_QelTexture*_LatLongMap"_s,
                    .meaning = u"the environment as a latitude-longitude image, whose bottom row is straight "
                               "down; ignored if there is a cube map"_s,
                    .whenMissing = u"without a cube map either, the frame is published unchanged"_s},
                   {.name = u"Qel_QelTexture*_Frame"_s,
                    .meaning = u"the colour texture to draw into"_s,
                    .whenMissing = u"a pooled texture, RGBA16F, cleared to opaque black"_s,
                    .isModified = true},
                   {.name = u"Qel_QelTexture*_Depth"_s,
                    .meaning =
                        u"depth-stencil texture of the frame, with a stencil other than 0 where the scene "
                        "was drawn; without a stencil, the environment replaces the whole frame"_s,
                    .whenMissing = u"the whole frame is background"_s,
                    .isDepth = true}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning =
                         u"the input frame, or the new one, with the environment drawn into it; colour "
                         "encoding and alpha of the environment"_s,
                     .encoding = Encoding::AsInput,
                     .alpha = AlphaMeaning::AsInput,
                     .like = {u"Qel_QelTexture*_Cubemap"_s, u"Qel_QelTexture*_LatLongMap"_s,
                              u"Qel_QelTexture*_Frame"_s}}}};
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
    m_cubeProgram = std::make_unique<ShaderProgram>(nullptr);
    buildScreenProgram(*m_cubeProgram,
                       {.fragment = cubeFragmentSource, .vertex = vertexSource, .outputs = programOutputs});
    checkGLError(sourceFile, __LINE__);
    m_latLongProgram = std::make_unique<ShaderProgram>(nullptr);
    buildScreenProgram(*m_latLongProgram, {.fragment = latLongFragmentSource,
                                           .fragmentFile = u"QelUtilities.glslc"_s,
                                           .vertex = vertexSource,
                                           .outputs = programOutputs});
    checkGLError(sourceFile, __LINE__);
    // The quad: interpolating between normalised view directions is right only if all vertices are equally
    // far from the eye. Those of the oversized triangle are not.
    provideScreenBatch(m_fullScreenBatch, *m_cubeProgram, Screen::Quad);
    provideScreenBatch(m_fullScreenBatch, *m_latLongProgram, Screen::Quad);
}

void SkyboxRenderPass::start(RenderCallbacks* callbacks)
{
    const QSize size = m_inputs[Viewport].value.toRect().size();
    if (!m_framebuffer || size.width() != m_width || size.height() != m_height) {
        // Deliberate: the first frame rebuilds what the host's setup built, because no size was known then.
        teardown(callbacks);
        m_width = size.width();
        m_height = size.height();
        setup(callbacks);
    }
    auto* cubemap = getInputPointer<Texture>(Cubemap);
    auto* latLongMap = getInputPointer<Texture>(LatLongMap);
    auto* frame = getInputPointer<Texture>(InputFrame);
    auto* depth = getInputPointer<Texture>(Depth);
    const InputReferences inputs(cubemap, latLongMap, frame, depth);
    if (cubemap || latLongMap) {
        depth = usableDepth(depth);
    }
    const PooledTexture newFrame = frame ? PooledTexture() : PooledTexture(TextureFormat::RGBA16F, size);
    const PooledTexture newDepth =
        depth ? PooledTexture() : PooledTexture(TextureFormat::Depth24Stencil8, size);
    frame = frame ? frame : newFrame.get();
    depth = depth ? depth : newDepth.get();

    const AutoBinder framebufferBinder(m_framebuffer.get());
    checkGLError(sourceFile, __LINE__);
    m_framebuffer->attach(frame, GL_COLOR_ATTACHMENT0, 0);
    m_framebuffer->attach(depth, GL_DEPTH_STENCIL_ATTACHMENT, 0);
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    if (cubemap || latLongMap) {
        m_framebuffer->setDrawBuffers();
        checkGLError(sourceFile, __LINE__);
        clearNewTargets(newFrame.get() != nullptr, newDepth.get() != nullptr);
        context->disable(GL_DEPTH_TEST);
        checkGLError(sourceFile, __LINE__);
    }
    context->enable(GL_STENCIL_TEST);
    glStencilFunc(GL_EQUAL, 0, 0xff);
    glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
    glStencilMask(0);
    if (cubemap) {
        drawEnvironment(*m_cubeProgram, cubemap, Sampling::Own);
    } else if (latLongMap) {
        drawEnvironment(*m_latLongProgram, latLongMap, Sampling::LatLong);
    }
    context->disable(GL_STENCIL_TEST);

    m_outputs[Frame].value = publishTexture(frame, m_outputs[Frame].users);
    m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
    m_framebuffer->detach(GL_DEPTH_STENCIL_ATTACHMENT);
}

void SkyboxRenderPass::teardown(RenderCallbacks* /*callbacks*/)
{
    m_framebuffer.reset();
    m_cubeProgram.reset();
    m_latLongProgram.reset();
    m_fullScreenBatch.reset();
}

/// Null for a colour texture, which cannot be attached as depth. Reports a texture without stencil, once.
Texture* SkyboxRenderPass::usableDepth(Texture* depth)
{
    // 0 for a texture whose format is not known.
    const unsigned int format = depth ? formatFromInternalFormat(depth->internalFormat()) : 0;
    if (format == 0 || format == GL_DEPTH_STENCIL) {
        return depth;
    }
    if (!m_hasReportedDepth) {
        logNotice(sourceFile, __LINE__,
                  u"the depth texture, %1, has no stencil, so the environment replaces the "
                  "whole frame; connect a depth-stencil texture whose stencil is not 0 where the scene was "
                  "drawn, or draw the environment into a frame of its own and blend the scene over it"_s.arg(
                      internalFormatName(depth->internalFormat())));
        m_hasReportedDepth = true;
    }
    return format == GL_DEPTH_COMPONENT ? depth : nullptr;
}

void SkyboxRenderPass::clearNewTargets(bool newFrame, bool newDepth)
{
    if (newFrame) {
        constexpr std::array<float, 4> opaqueBlack{0.0F, 0.0F, 0.0F, 1.0F};
        glClearBufferfv(GL_COLOR, 0, opaqueBlack.data());
    }
    if (newDepth) {
        // The previous frame left the stencil mask at 0, which would keep the stencil from being cleared.
        glDepthMask(GL_TRUE);
        glStencilMask(0xff);
        glClearBufferfi(GL_DEPTH_STENCIL, 0, 1.0F, 0);
    }
}

void SkyboxRenderPass::drawEnvironment(ShaderProgram& program, Texture* environment, Sampling sampling)
{
    const auto projection = m_inputs[ProjectionMatrix].value.value<QMatrix4x4>();
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();
    const AutoBinder programBinder(&program);
    const BoundSampler sampler(program, m_envTexture, environment, sampling);
    program.setUniform(m_invCameraMatrix, camera.inverted());
    program.setUniform(m_ndcCoordToDirection, projection.inverted());
    checkGLError(sourceFile, __LINE__);
    drawBatch(m_fullScreenBatch);
}

} // namespace Morvane::Qel
