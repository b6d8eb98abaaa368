#include <Qel/RenderPasses/postprocessing/SMAARenderPass.h>

#include <QRect>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/SmaaTables.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/TextureManager.h>

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
    texture->setTarget(GL_TEXTURE_2D);
    sampleLinearly(texture.get());
    glPixelStorei(GL_UNPACK_ALIGNMENT, alignment);
    texture->setImage2D(0, internalFormat, width, height, format, GL_UNSIGNED_BYTE, bytes);
    return texture;
}

std::unique_ptr<ShaderProgram> makeProgram(GLSLMacroProcessor* processor, const QString& vertexSource,
                                           const QString& fragmentSource)
{
    auto program = std::make_unique<ShaderProgram>(nullptr);
    program->setMacroProcessor(processor);
    program->setFragDataLocations({u"out_output"_s});
    program->addShader(GL_VERTEX_SHADER, vertexSource, {});
    program->addShader(GL_FRAGMENT_SHADER, fragmentSource, {});
    buildProgram(program.get());
    program->setMacroProcessor(nullptr);
    return program;
}

} // namespace

const PassDescription& SMAARenderPass::description()
{
    static const PassDescription description{
        u"SMAARenderPass"_s,
        u"Smooths the staircases of a finished frame by the shape of its edges (SMAA)."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the frame; the origin is ignored"_s,
          u"frames of one undefined pixel"_s,
          {},
          u"pixels"_s},
         {u"Qel_QelTexture*_Frame"_s, u"the frame; it gets linear filters"_s, u"nothing happens"_s},
         {u"Qel_QelTexture*_Depth"_s, u"not read"_s, u"nothing"_s}},
        {{u"Qel_QelTexture*_Frame"_s, u"the smoothed frame, RGBA8, pooled"_s},
         {u"Qel_QelTexture*_EdgeTex"_s,
          u"edges to the left neighbour (red) and to the one below (green), 0 or 1; RGBA8, "
          "pooled"_s},
         {u"Qel_QelTexture*_BlendTex"_s,
          u"weights of the edge below (red, green) and of the one on the left (blue, alpha), "
          "0 to 1; RGBA8, pooled"_s}}};
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

    m_fullScreenBatch = OpenGLDeviceContext::current()->fullScreenTriangle();
}

void SMAARenderPass::teardown(RenderCallbacks* /*callbacks*/)
{
    m_edgeFramebuffer.reset();
    m_weightFramebuffer.reset();
    m_areaTexture.reset();
    m_searchTexture.reset();
    m_edgeProgram.reset();
    m_weightProgram.reset();
    m_blendProgram.reset();
}

void SMAARenderPass::start(RenderCallbacks* callbacks)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    checkGLError(sourceFile, __LINE__);
    const QRect viewport = m_inputs[Viewport].value.toRect();
    // A size of 0 gives infinite metrics; deliberately not guarded.
    m_metrics =
        QVector4D(1.0F / static_cast<float>(viewport.width()), 1.0F / static_cast<float>(viewport.height()),
                  static_cast<float>(viewport.width()), static_cast<float>(viewport.height()));
    if (viewport.width() != m_width || viewport.height() != m_height || !m_edgeProgram) {
        teardown(callbacks);
        m_width = viewport.width();
        m_height = viewport.height();
        setup(callbacks);
    }
    // The host counts the pass among the users of the depth although it is not read.
    TextureManager::Instance()->releaseTempTextureRef(getInputPointer<Texture>(Depth), 1);
    auto* frame = getInputPointer<Texture>(Frame);
    if (!frame) {
        keepOutputs();
        return;
    }

    context->disable(GL_DEPTH_TEST);
    context->disable(GL_STENCIL_TEST);
    context->setViewport(0, 0, m_width, m_height);
    checkGLError(sourceFile, __LINE__);
    Texture* edges = detectEdges(frame);
    Texture* weights = calculateWeights(edges);
    Texture* result = blend(frame, weights);
    context->enable(GL_DEPTH_TEST);
    checkGLError(sourceFile, __LINE__);

    const auto publish = [&](OutputPort port, Texture* texture) {
        m_outputs[port].value = publishPooled(texture, m_outputs[port].users);
        m_published[port] = texture;
    };
    publish(AntiAliasedFrame, result);
    publish(EdgeTexture, edges);
    publish(BlendTexture, weights);
    TextureManager::Instance()->releaseTempTextureRef(frame, 1);
}

/// The users of the outputs drop their references in this frame as in every other.
void SMAARenderPass::keepOutputs()
{
    for (size_t i = 0; i < m_published.size(); ++i) {
        if (m_published[i]) {
            TextureManager::Instance()->addTempTextureRef(m_published[i], m_outputs[i].users);
        } else {
            m_outputs[i].value.clear();
        }
    }
}

Texture* SMAARenderPass::detectEdges(Texture* frame)
{
    const AutoBinder framebufferBinder(m_edgeFramebuffer.get());
    attachTempTarget(m_edgeFramebuffer.get(), TextureFormat::RGBA8, m_width, m_height);
    enableArrays(m_fullScreenBatch, m_edgeProgram.get());
    checkGLError(sourceFile, __LINE__);

    const AutoBinder programBinder(m_edgeProgram.get());
    const AutoBinder frameBinder(frame);
    frame->setFilter(GL_LINEAR, GL_LINEAR);
    m_edgeProgram->setUniform(m_edgeFrame, frame->unit());
    m_edgeProgram->setUniform(m_edgeMetrics, m_metrics);
    checkGLError(sourceFile, __LINE__);
    glClear(GL_COLOR_BUFFER_BIT);
    drawBatch(m_fullScreenBatch.data());
    checkGLError(sourceFile, __LINE__);
    return m_edgeFramebuffer->detach(GL_COLOR_ATTACHMENT0);
}

Texture* SMAARenderPass::calculateWeights(Texture* edges)
{
    const AutoBinder framebufferBinder(m_weightFramebuffer.get());
    attachTempTarget(m_weightFramebuffer.get(), TextureFormat::RGBA8, m_width, m_height);
    enableArrays(m_fullScreenBatch, m_weightProgram.get());
    checkGLError(sourceFile, __LINE__);

    const AutoBinder programBinder(m_weightProgram.get());
    const AutoBinder edgeBinder(edges);
    const AutoBinder areaBinder(m_areaTexture.get());
    const AutoBinder searchBinder(m_searchTexture.get());
    m_weightProgram->setUniform(m_weightEdges, edges->unit());
    m_weightProgram->setUniform(m_weightAreas, m_areaTexture->unit());
    m_weightProgram->setUniform(m_weightSearches, m_searchTexture->unit());
    m_weightProgram->setUniform(m_weightMetrics, m_metrics);
    checkGLError(sourceFile, __LINE__);
    glClear(GL_COLOR_BUFFER_BIT);
    drawBatch(m_fullScreenBatch.data());
    checkGLError(sourceFile, __LINE__);
    return m_weightFramebuffer->detach(GL_COLOR_ATTACHMENT0);
}

Texture* SMAARenderPass::blend(Texture* frame, Texture* weights)
{
    FramebufferObject* framebuffer = m_outputFramebuffers.back().get();
    const AutoBinder framebufferBinder(framebuffer);
    attachTempTarget(framebuffer, TextureFormat::RGBA8, m_width, m_height);
    enableArrays(m_fullScreenBatch, m_blendProgram.get());
    checkGLError(sourceFile, __LINE__);

    const AutoBinder programBinder(m_blendProgram.get());
    const AutoBinder frameBinder(frame);
    const AutoBinder weightBinder(weights);
    m_blendProgram->setUniform(m_blendFrame, frame->unit());
    m_blendProgram->setUniform(m_blendWeights, weights->unit());
    m_blendProgram->setUniform(m_blendMetrics, m_metrics);
    checkGLError(sourceFile, __LINE__);
    glClear(GL_COLOR_BUFFER_BIT);
    drawBatch(m_fullScreenBatch.data());
    checkGLError(sourceFile, __LINE__);
    return framebuffer->detach(GL_COLOR_ATTACHMENT0);
}

} // namespace Morvane::Qel
