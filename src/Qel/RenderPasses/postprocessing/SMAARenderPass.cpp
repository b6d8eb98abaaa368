#include <Qel/RenderPasses/postprocessing/SMAARenderPass.h>

#include <optional>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/support/SmaaTables.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/GLSLMacroProcessor.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/SMAARenderPass";

const QString edgeVertexSource = uR"(#version 150
#define SMAA_INCLUDE_VS 1
#define SMAA_INCLUDE_PS 0
uniform vec4 u_smaaMetrics;
#include "SMAA.glslh"
in vec3 va_Vertex;
in vec2 va_TexCoord;
out vec2 vo_TexCoord;
out vec4 vo_offsets[3];

void main()
{
    gl_Position = vec4(va_Vertex, 1.0);
    vo_TexCoord = va_TexCoord;
    SMAAEdgeDetectionVS(va_TexCoord, vo_offsets);
}
)"_s;

const QString edgeFragmentSource = uR"(#version 150
#define SMAA_INCLUDE_VS 0
#define SMAA_INCLUDE_PS 1
uniform vec4 u_smaaMetrics;
#include "SMAA.glslh"
uniform sampler2D u_FrameSampler;
in vec2 vo_TexCoord;
in vec4 vo_offsets[3];
out vec2 out_output;

void main()
{
    out_output = SMAAColorEdgeDetectionPS(vo_TexCoord, vo_offsets, u_FrameSampler);
}
)"_s;

const QString weightVertexSource = uR"(#version 150
#define SMAA_INCLUDE_VS 1
#define SMAA_INCLUDE_PS 0
uniform vec4 u_smaaMetrics;
#include "SMAA.glslh"
in vec3 va_Vertex;
in vec2 va_TexCoord;
out vec2 vo_TexCoord;
out vec2 vo_PixCoord;
out vec4 vo_offsets[3];

void main()
{
    gl_Position = vec4(va_Vertex, 1.0);
    vo_TexCoord = va_TexCoord;
    SMAABlendingWeightCalculationVS(va_TexCoord, vo_PixCoord, vo_offsets);
}
)"_s;

const QString weightFragmentSource = uR"(#version 150
#define SMAA_INCLUDE_VS 0
#define SMAA_INCLUDE_PS 1
uniform vec4 u_smaaMetrics;
#include "SMAA.glslh"
uniform sampler2D u_EdgeTex;
uniform sampler2D u_AreaTex;
uniform sampler2D u_SearchTex;
in vec2 vo_TexCoord;
in vec2 vo_PixCoord;
in vec4 vo_offsets[3];
out vec4 out_output;

void main()
{
    out_output = SMAABlendingWeightCalculationPS(vo_TexCoord, vo_PixCoord, vo_offsets, u_EdgeTex, u_AreaTex,
                                                 u_SearchTex, vec4(0.0));
}
)"_s;

const QString blendVertexSource = uR"(#version 150
#define SMAA_INCLUDE_VS 1
#define SMAA_INCLUDE_PS 0
uniform vec4 u_smaaMetrics;
#include "SMAA.glslh"
in vec3 va_Vertex;
in vec2 va_TexCoord;
out vec2 vo_TexCoord;
out vec4 vo_offset;

void main()
{
    gl_Position = vec4(va_Vertex, 1.0);
    vo_TexCoord = va_TexCoord;
    SMAANeighborhoodBlendingVS(va_TexCoord, vo_offset);
}
)"_s;

const QString blendFragmentSource = uR"(#version 150
#define SMAA_INCLUDE_VS 0
#define SMAA_INCLUDE_PS 1
uniform vec4 u_smaaMetrics;
#include "SMAA.glslh"
uniform sampler2D u_ColorTex;
uniform sampler2D u_BlendTex;
in vec2 vo_TexCoord;
in vec4 vo_offset;
out vec4 out_output;

void main()
{
    out_output = SMAANeighborhoodBlendingPS(vo_TexCoord, vo_offset, u_ColorTex, u_BlendTex);
}
)"_s;

std::unique_ptr<Texture> makeTable(int alignment, unsigned int internalFormat, int width, int height,
                                   unsigned int format, const unsigned char* bytes)
{
    auto texture = std::make_unique<Texture>(nullptr);
    texture->setFilter(GL_LINEAR, GL_LINEAR);
    texture->setWrap(GL_CLAMP_TO_EDGE);
    glPixelStorei(GL_UNPACK_ALIGNMENT, alignment);
    texture->setImage2D(0, internalFormat, width, height, format, GL_UNSIGNED_BYTE, bytes);
    return texture;
}

std::unique_ptr<ShaderProgram> makeProgram(GLSLMacroProcessor* processor, const QString& vertexSource,
                                           const QString& fragmentSource)
{
    auto program = std::make_unique<ShaderProgram>(nullptr);
    buildScreenProgram(*program, {.fragment = fragmentSource,
                                  .vertex = vertexSource,
                                  .outputs = {u"out_output"_s},
                                  .macroProcessor = processor});
    return program;
}

/// Clears with the current clear colour, and marks the texels that are drawn in the stencil.
void markDrawnTexels()
{
    glClear(GL_COLOR_BUFFER_BIT);
    OpenGLDeviceContext::current()->enable(GL_STENCIL_TEST);
    glStencilMask(~0U);
    glClearBufferfi(GL_DEPTH_STENCIL, 0, 1.0F, 0);
    glStencilFunc(GL_ALWAYS, 1, ~0U);
    glStencilOp(GL_KEEP, GL_KEEP, GL_REPLACE);
}

/// Clears to 0, and keeps all but the marked texels from being drawn.
void keepToMarkedTexels()
{
    constexpr std::array<float, 4> zero{};
    glClearBufferfv(GL_COLOR, 0, zero.data());
    glStencilFunc(GL_EQUAL, 1, ~0U);
    glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
}

/// Clears with the current clear colour, and lets all texels be drawn.
void drawAllTexels()
{
    glClear(GL_COLOR_BUFFER_BIT);
    OpenGLDeviceContext::current()->disable(GL_STENCIL_TEST);
}

} // namespace

const PassDescription& SMAARenderPass::description()
{
    static const PassDescription description{
        .type = u"SMAARenderPass"_s,
        .summary = u"Anti-aliases a finished frame by the shape of its edges (SMAA)."_s,
        .inputs = {viewportInput(u"size of the frame; the origin is ignored"_s, u"1 x 1 outputs, cleared"_s),
                   {.name = u"Qel_QelTexture*_Frame"_s,
                    .meaning = u"the frame, display-encoded"_s,
                    .whenMissing = u"nothing is drawn and the outputs keep their textures"_s,
                    .encoding = Encoding::Display},
                   {.name = u"Qel_QelTexture*_Depth"_s,
                    .meaning = u"not read"_s,
                    .whenMissing = u"nothing changes"_s}},
        .outputs = {
            {.name = u"Qel_QelTexture*_Frame"_s,
             .meaning = u"the anti-aliased frame, encoded as the input, alpha blended like the colours; "
                        "RGBA8, pooled"_s,
             .encoding = Encoding::AsInput,
             .alpha = AlphaMeaning::AsInput,
             .like = {u"Qel_QelTexture*_Frame"_s}},
            {.name = u"Qel_QelTexture*_EdgeTex"_s,
             .meaning = u"edges as data: 1 where there is an edge to the left neighbour (red) or to the "
                        "one below (green), blue and alpha undefined; RGBA8, pooled"_s,
             .encoding = Encoding::Data,
             .alpha = AlphaMeaning::Data},
            {.name = u"Qel_QelTexture*_BlendTex"_s,
             .meaning = u"blending weights as data, 0 to 1: of the edge below (red, green) and of the edge "
                        "on the left (blue, alpha); RGBA8, pooled"_s,
             .encoding = Encoding::Data,
             .alpha = AlphaMeaning::Data}}};
    return description;
}

SMAARenderPass::SMAARenderPass()
{
    declarePorts(description());
}

SMAARenderPass::~SMAARenderPass() = default;

void SMAARenderPass::setup(RenderCallbacks* /*callbacks*/)
{
    m_edgeFramebuffer = std::make_unique<FramebufferObject>(nullptr);
    m_weightFramebuffer = std::make_unique<FramebufferObject>(nullptr);
    m_outputFramebuffers.push_back(std::make_unique<FramebufferObject>(nullptr));
    m_marks.reset(
        makeTarget(QSize(m_width, m_height), GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8));
    for (FramebufferObject* framebuffer : {m_edgeFramebuffer.get(), m_weightFramebuffer.get()}) {
        framebuffer->attach(m_marks.get(), GL_DEPTH_STENCIL_ATTACHMENT, 0);
    }

    m_areaTexture = makeTable(2, GL_RG8, 160, 560, GL_RG, smaaAreaTable.data());
    m_searchTexture = makeTable(1, GL_R8, 64, 16, GL_RED, smaaSearchTable.data());
    constexpr int defaultAlignment = 4;
    glPixelStorei(GL_UNPACK_ALIGNMENT, defaultAlignment);

    GLSLMacroProcessor processor;
    processor.addDefine(u"SMAA_RT_METRICS"_s, u"u_smaaMetrics"_s);
    processor.addDefine(u"SMAA_GLSL_3"_s, u"1"_s);
    processor.addDefine(u"SMAA_PRESET_ULTRA"_s, u"1"_s);
    m_edgeProgram = makeProgram(&processor, edgeVertexSource, edgeFragmentSource);
    m_weightProgram = makeProgram(&processor, weightVertexSource, weightFragmentSource);
    m_blendProgram = makeProgram(&processor, blendVertexSource, blendFragmentSource);
    for (const ShaderProgram* program : {m_edgeProgram.get(), m_weightProgram.get(), m_blendProgram.get()}) {
        provideScreenBatch(m_fullScreenBatch, *program, Screen::Triangle);
    }
}

void SMAARenderPass::teardown(RenderCallbacks* /*callbacks*/)
{
    m_edgeFramebuffer.reset();
    m_weightFramebuffer.reset();
    m_marks.reset();
    m_areaTexture.reset();
    m_searchTexture.reset();
    m_edgeProgram.reset();
    m_weightProgram.reset();
    m_blendProgram.reset();
}

void SMAARenderPass::start(RenderCallbacks* callbacks)
{
    checkGLError(sourceFile, __LINE__);
    const QSize size = m_inputs[Viewport].value.toRect().size();
    if (size.width() != m_width || size.height() != m_height || !m_edgeProgram) {
        teardown(callbacks);
        m_width = size.width();
        m_height = size.height();
        setup(callbacks);
    }
    auto* frame = getInputPointer<Texture>(Frame);
    // The host counts the pass as a user of the depth, although it is not read.
    const InputReferences inputs(frame, getInputPointer<Texture>(Depth));
    if (!frame) {
        keepOutputs();
        return;
    }

    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->disable(GL_DEPTH_TEST);
    context->disable(GL_STENCIL_TEST);
    context->setViewport(0, 0, m_width, m_height);
    checkGLError(sourceFile, __LINE__);
    const PooledTexture edges = draw(*m_edgeFramebuffer, *m_edgeProgram, m_edgeMetrics, markDrawnTexels,
                                     {{m_edgeFrame, frame, texelSampling(*frame, size, Sampling::Linear)}});
    const PooledTexture weights =
        draw(*m_weightFramebuffer, *m_weightProgram, m_weightMetrics, keepToMarkedTexels,
             {{m_weightEdges, edges.get()},
              {m_weightAreas, m_areaTexture.get()},
              {m_weightSearches, m_searchTexture.get()}});
    const PooledTexture result =
        draw(*m_outputFramebuffers.back(), *m_blendProgram, m_blendMetrics, drawAllTexels,
             {{m_blendFrame, frame}, {m_blendWeights, weights.get(), Sampling::Nearest}});
    context->enable(GL_DEPTH_TEST);
    checkGLError(sourceFile, __LINE__);
    publish(AntiAliasedFrame, result);
    publish(EdgeTexture, edges);
    publish(BlendTexture, weights);
}

PooledTexture SMAARenderPass::draw(FramebufferObject& framebuffer, ShaderProgram& program, Uniform& metrics,
                                   void (*prepare)(), std::initializer_list<SamplerInput> inputs)
{
    PooledTexture result(TextureFormat::RGBA8, QSize(m_width, m_height));
    const BoundTarget target(framebuffer, result.get());
    OpenGLDeviceContext::current()->setViewport(0, 0, m_width, m_height);
    const AutoBinder programBinder(&program);
    std::array<std::optional<BoundSampler>, 3> samplers;
    size_t i = 0;
    for (const SamplerInput& input : inputs) {
        samplers[i++].emplace(program, input.sampler, input.texture, input.sampling);
    }
    const auto width = static_cast<float>(m_width);
    const auto height = static_cast<float>(m_height);
    // Deliberate: a size of 0 is not guarded and gives infinite metrics.
    program.setUniform(metrics, QVector4D(1.0F / width, 1.0F / height, width, height));
    checkGLError(sourceFile, __LINE__);
    prepare();
    drawBatch(m_fullScreenBatch);
    checkGLError(sourceFile, __LINE__);
    return result;
}

void SMAARenderPass::publish(OutputPort port, const PooledTexture& texture)
{
    m_outputs[port].value = texture.publish(m_outputs[port].users);
    m_published[port] = texture.get();
}

void SMAARenderPass::keepOutputs()
{
    for (size_t i = 0; i < m_published.size(); ++i) {
        if (m_published[i]) {
            // Consumers drop their references in this frame as in every other.
            publishTexture(m_published[i], m_outputs[i].users);
        } else {
            m_outputs[i].value.clear();
        }
    }
}

} // namespace Morvane::Qel
