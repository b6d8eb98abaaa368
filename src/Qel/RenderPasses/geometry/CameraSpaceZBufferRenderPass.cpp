#include <Qel/RenderPasses/geometry/CameraSpaceZBufferRenderPass.h>

#include <QMatrix4x4>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/GLSLMacroProcessor.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/CameraSpaceZBufferRenderPass";

/// The initial value of GL_TEXTURE_MAX_LEVEL.
constexpr int allLevels = 1000;

// The matrix is passed on in a flat output, because software rasterisers pay for every uniform that a pixel
// reads.
const QString vertexSource = uR"(#version 150
in vec3 va_Vertex;
in vec2 va_TexCoord;
uniform mat4 u_InvProjMatrix;
noperspective out vec2 vo_TexCoord;
flat out mat4 vo_InvProjMatrix;

void main()
{
    gl_Position = vec4(va_Vertex, 1.0);
    vo_TexCoord = va_TexCoord;
    vo_InvProjMatrix = u_InvProjMatrix;
}
)"_s;

const QString fragmentSource = uR"(#version 150
uniform sampler2D u_SamplerDepth;
noperspective in vec2 vo_TexCoord;
flat in mat4 vo_InvProjMatrix;
out vec4 out_FragColor;

vec3 positionFromDepth(vec2 uv, float d)
{
    vec4 p = vo_InvProjMatrix * vec4(uv * 2.0 - 1.0, 2.0 * d - 1.0, 1.0);
    return p.xyz / p.w;
}

void main()
{
    float d = texture(u_SamplerDepth, vo_TexCoord).r;
    out_FragColor = vec4(positionFromDepth(vo_TexCoord, d), 1.0);
}
)"_s;

const QString levelVertexSource = uR"(#version 150
in vec3 va_Vertex;
uniform vec2 u_TexelSize;              // of the next finer level, as a fraction of it
flat out vec2 vo_TexelSize;

void main()
{
    gl_Position = vec4(va_Vertex, 1.0);
    vo_TexelSize = u_TexelSize;
}
)"_s;

const QString levelFragmentSource = uR"(#version 150
uniform sampler2D u_Positions;         // has only the next finer level
flat in vec2 vo_TexelSize;
out vec4 out_FragColor;

void main()
{
    ivec2 texel = ivec2(gl_FragCoord.xy);
    ivec2 chosen = texel * 2 + ivec2((texel.y & 1) ^ 1, (texel.x & 1) ^ 1);
    // Not texelFetch, which costs software rasterisers more, and which would not be clamped to the edge.
    out_FragColor = texture(u_Positions, (vec2(chosen) + 0.5) * vo_TexelSize);
}
)"_s;

/// Whether a texture is a depth texture and large enough not to crop a target of this size.
bool isAttachable(const Texture* depth, const QSize& size)
{
    if (!depth) {
        return false;
    }
    const unsigned int format = formatFromInternalFormat(depth->internalFormat());
    return (format == GL_DEPTH_COMPONENT || format == GL_DEPTH_STENCIL) && depth->target() == GL_TEXTURE_2D &&
           depth->size().width() >= size.width() && depth->size().height() >= size.height();
}

} // namespace

const PassDescription& CameraSpaceZBufferRenderPass::description()
{
    static const PassDescription description{
        .type = u"CameraSpaceZBufferRenderPass"_s,
        .summary = u"Turns a depth texture into eye-space positions, with all mip levels."_s,
        .inputs = {viewportInput(u"size of the output; the origin is ignored"_s,
                                 u"the output is 1 x 1 and not drawn"_s),
                   {.name = u"Qel_QelTexture*_Frame"_s,
                    .meaning = u"the depth, from 0 to 1, with or without stencil, of the viewport's size"_s,
                    .whenMissing = u"every position lies on the near plane"_s,
                    .encoding = Encoding::Data,
                    .wantsOpaqueDepth = true},
                   {.name = u"Qel_QMatrix4x4_ProjectionMatrix"_s,
                    .meaning = u"the projection that the depth was drawn with"_s,
                    .whenMissing = u"identity"_s}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"x, y and z in eye space, in scene units, and 1; each texel of a mip level "
                                "copies one of the four that it covers in the next finer level; RGBA32F, "
                                "from the pool"_s,
                     .encoding = Encoding::Data,
                     .alpha = AlphaMeaning::Opaque,
                     .space = Space::Eye}}};
    return description;
}

CameraSpaceZBufferRenderPass::CameraSpaceZBufferRenderPass()
{
    declarePorts(description());
}

CameraSpaceZBufferRenderPass::~CameraSpaceZBufferRenderPass() = default;

void CameraSpaceZBufferRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QSize size = m_inputs[Viewport].value.toRect().size();
    auto* depth = getInputPointer<Texture>(InputFrame);
    const InputReferences inputs(depth);
    m_width = size.width();
    m_height = size.height();

    // What cannot be attached, such as distances in a colour texture or a smaller depth, is only sampled.
    const AttachedDepth attachedDepth(provide(m_framebuffer), isAttachable(depth, size) ? depth : nullptr);
    const PooledTarget positions(*m_framebuffer, TextureFormat::RGBA32FMipmapped, size);
    if (!m_program) {
        buildPrograms();
    }
    draw(depth);
    fillLevels(*positions.get());
    m_outputs[Frame].value = positions.publish(m_outputs[Frame].users);
}

void CameraSpaceZBufferRenderPass::buildPrograms()
{
    GLSLMacroProcessor macroProcessor;
    buildScreenProgram(
        provide(m_program),
        {.fragment = fragmentSource, .vertex = vertexSource, .macroProcessor = &macroProcessor});
    checkGLError(sourceFile, 116);
    buildScreenProgram(provide(m_levelProgram),
                       {.fragment = levelFragmentSource, .vertex = levelVertexSource});
    provideScreenBatch(m_fullScreenBatch, *m_program, Screen::Triangle);
    checkGLError(sourceFile, 117);
}

void CameraSpaceZBufferRenderPass::draw(Texture* depth)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->setViewport(0, 0, m_width, m_height);
    // Against the depth that is read, no fragment would pass.
    const AutoDisabler depthTest(GL_DEPTH_TEST);
    const AutoBinder programBinder(m_program.get());
    const BoundSampler depths(*m_program, m_samplerDepth, depth, Sampling::Nearest);
    checkGLError(sourceFile, 141);
    m_program->setUniform(m_invProjMatrix, m_inputs[ProjectionMatrix].value.value<QMatrix4x4>().inverted());
    // Deliberate: neither is restored. The target is not cleared, because the draw covers it.
    context->disable(GL_STENCIL_TEST);
    glDepthMask(GL_FALSE);
    drawBatch(m_fullScreenBatch);
}

/// Draws each mip level from the next finer one.
void CameraSpaceZBufferRenderPass::fillLevels(Texture& positions)
{
    positions.setFilter(GL_NEAREST_MIPMAP_NEAREST, GL_NEAREST);
    const AutoBinder framebufferBinder(&provide(m_levelFramebuffer));
    const AutoBinder programBinder(m_levelProgram.get());
    const BoundSampler finerLevels(*m_levelProgram, m_positions, &positions, Sampling::Nearest);
    const AutoBinder batchBinder(m_fullScreenBatch.data());
    QSize size = positions.size();
    for (int level = 1; level < positions.levels(); ++level) {
        // A level must not be sampled while it is drawn into.
        positions.setParameter(GL_TEXTURE_BASE_LEVEL, level - 1);
        positions.setParameter(GL_TEXTURE_MAX_LEVEL, level - 1);
        m_levelFramebuffer->attach(&positions, GL_COLOR_ATTACHMENT0, level);
        m_levelFramebuffer->setDrawBuffers();
        m_levelProgram->setUniform(m_texelSize, QVector2D(1.0F / static_cast<float>(size.width()),
                                                          1.0F / static_cast<float>(size.height())));
        m_fullScreenBatch->draw();
        size = QSize(size.width() / 2, size.height() / 2).expandedTo(QSize(1, 1));
    }
    m_levelFramebuffer->detach(GL_COLOR_ATTACHMENT0);
    positions.setParameter(GL_TEXTURE_BASE_LEVEL, 0);
    positions.setParameter(GL_TEXTURE_MAX_LEVEL, allLevels);
}

} // namespace Morvane::Qel
