#include <Qel/RenderPasses/geometry/CameraSpaceZBufferRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/CameraSpaceZBufferRenderPass";

/// GL's initial GL_TEXTURE_MAX_LEVEL.
constexpr int allLevels = 1000;

const QString fragmentSource = uR"(#version 150
uniform sampler2D u_SamplerDepth;
uniform mat4 u_InvProjMatrix;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

vec3 positionFromDepth(vec2 uv, float d)
{
    vec4 p = u_InvProjMatrix * vec4(uv * 2.0 - 1.0, 2.0 * d - 1.0, 1.0);
    return p.xyz / p.w;
}

void main()
{
    float d = texture(u_SamplerDepth, vo_TexCoord).r;
    out_FragColor = vec4(positionFromDepth(vo_TexCoord, d), 1.0);
}
)"_s;

const QString levelFragmentSource = uR"(#version 150
uniform sampler2D u_Positions;
uniform int u_FinerLevel;
out vec4 out_FragColor;

void main()
{
    ivec2 texel = ivec2(gl_FragCoord.xy);
    ivec2 chosen = texel * 2 + ivec2((texel.y & 1) ^ 1, (texel.x & 1) ^ 1);
    ivec2 last = textureSize(u_Positions, u_FinerLevel) - 1;
    out_FragColor = texelFetch(u_Positions, min(chosen, last), u_FinerLevel);
}
)"_s;

/// Whether a texture can be attached as depth beside a target of a size without keeping any of it from being
/// drawn.
bool isAttachable(const Texture* depth, int width, int height)
{
    const unsigned int format = formatFromInternalFormat(depth->internalFormat());
    return (format == GL_DEPTH_COMPONENT || format == GL_DEPTH_STENCIL) && depth->target() == GL_TEXTURE_2D &&
           depth->size().width() >= width && depth->size().height() >= height;
}

} // namespace

const PassDescription& CameraSpaceZBufferRenderPass::description()
{
    static const PassDescription description{
        u"CameraSpaceZBufferRenderPass"_s,
        u"Turns a depth texture into eye-space positions, with all mip levels."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the result; the origin is ignored"_s,
          u"1 x 1, and nothing is drawn"_s,
          {},
          u"pixels"_s},
         {u"Qel_QelTexture*_Frame"_s, u"the depth, with or without stencil, of the viewport's size"_s,
          u"every position lies on the near plane"_s},
         {u"Qel_QMatrix4x4_ProjectionMatrix"_s, u"the projection that the depth was made with"_s,
          u"identity"_s}},
        {{u"Qel_QelTexture*_Frame"_s,
          u"x, y, z in eye space and 1; RGBA32F, pooled; each texel of a smaller level is one "
          "of the four below it"_s}}};
    return description;
}

CameraSpaceZBufferRenderPass::CameraSpaceZBufferRenderPass()
{
    declarePorts(description());
}

CameraSpaceZBufferRenderPass::~CameraSpaceZBufferRenderPass() = default;

void CameraSpaceZBufferRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QRect viewport = m_inputs[Viewport].value.toRect();
    auto* depth = getInputPointer<Texture>(InputFrame);
    if (!m_framebuffer) {
        m_framebuffer = std::make_unique<FramebufferObject>(nullptr);
        m_levelFramebuffer = std::make_unique<FramebufferObject>(nullptr);
    }
    m_width = viewport.width();
    m_height = viewport.height();

    const AutoBinder framebufferBinder(m_framebuffer.get());
    Texture* positions =
        attachTempTarget(m_framebuffer.get(), TextureFormat::RGBA32FMipmapped, m_width, m_height);
    // The combined point takes depth without stencil too. What does not fit there, such as distances in a
    // colour texture or a smaller depth, is sampled without being attached.
    if (depth && isAttachable(depth, m_width, m_height)) {
        m_framebuffer->attach(depth, GL_DEPTH_STENCIL_ATTACHMENT, 0);
    }
    if (!m_program) {
        buildPrograms();
    }
    draw(depth);
    fillLevels(positions);
    m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
    m_framebuffer->detach(GL_DEPTH_STENCIL_ATTACHMENT);
    m_outputs[Frame].value = publishPooled(positions, m_outputs[Frame].users);
    TextureManager::Instance()->releaseTempTextureRef(depth, 1);
}

void CameraSpaceZBufferRenderPass::buildPrograms()
{
    const auto make = [](const QString& fragments) {
        GLSLMacroProcessor macroProcessor;
        auto program = std::make_unique<ShaderProgram>(nullptr);
        program->setMacroProcessor(&macroProcessor);
        addFullScreenShaders(program.get(), fragments);
        program->bind();
        checkGLError(sourceFile, 116);
        program->release();
        checkGLError(sourceFile, 117);
        program->setMacroProcessor(nullptr);
        return program;
    };
    m_program = make(fragmentSource);
    m_levelProgram = make(levelFragmentSource);
    m_fullScreenBatch = OpenGLDeviceContext::current()->fullScreenTriangle();
    enableArrays(m_fullScreenBatch, m_program.get());
}

void CameraSpaceZBufferRenderPass::draw(Texture* depth)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    m_framebuffer->setDrawBuffers();
    context->setViewport(0, 0, m_width, m_height);
    const AutoBinder programBinder(m_program.get());
    const AutoBinder depthBinder(depth);
    checkGLError(sourceFile, 141);
    m_program->setUniform(m_samplerDepth, samplerUnit(depth));
    m_program->setUniform(m_invProjMatrix, m_inputs[ProjectionMatrix].value.value<QMatrix4x4>().inverted());
    // Neither is restored, and the target is not cleared, as the draw covers it. Deliberate.
    context->disable(GL_STENCIL_TEST);
    glDepthMask(GL_FALSE);
    drawBatch(m_fullScreenBatch.data());
}

/// Draws every level from the one before it.
void CameraSpaceZBufferRenderPass::fillLevels(Texture* positions)
{
    positions->setFilter(GL_NEAREST_MIPMAP_NEAREST, GL_NEAREST);
    const AutoBinder framebufferBinder(m_levelFramebuffer.get());
    const AutoBinder programBinder(m_levelProgram.get());
    const AutoBinder positionsBinder(positions);
    const AutoBinder batchBinder(m_fullScreenBatch.data());
    m_levelProgram->setUniform(m_positions, positions->unit());
    for (int level = 1; level < positions->levels(); ++level) {
        // The level that is drawn must be none of those that can be sampled.
        positions->setParameter(GL_TEXTURE_MAX_LEVEL, level - 1);
        m_levelFramebuffer->attach(positions, GL_COLOR_ATTACHMENT0, level);
        m_levelFramebuffer->setDrawBuffers();
        m_levelProgram->setUniform(m_finerLevel, level - 1);
        m_fullScreenBatch->draw();
    }
    m_levelFramebuffer->detach(GL_COLOR_ATTACHMENT0);
    positions->setParameter(GL_TEXTURE_MAX_LEVEL, allLevels);
}

} // namespace Morvane::Qel
