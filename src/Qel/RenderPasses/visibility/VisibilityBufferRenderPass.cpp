#include <Qel/RenderPasses/visibility/VisibilityBufferRenderPass.h>

#include <QMatrix4x4>

#include <algorithm>
#include <array>
#include <optional>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/ModelPrograms.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/RenderPasses/support/FragmentLists.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/VisibilityBufferRenderPass";

/// Width and height of the node buffer in the full mode.
constexpr int nodeBufferSide = 4096;

constexpr std::array<unsigned int, 4> zeroes{};

const QString vertexSource = uR"(#version 150
#instancedata "InstanceInfo"
uniform mat4 u_CameraMatrix;
uniform mat4 u_ProjectionMatrix;
uniform int u_DrawID;
in vec3 va_Vertex;
flat out int vo_DrawID;                // software rasterisers pay for every uniform that a pixel reads

void main()
{
    gl_Position = u_ProjectionMatrix * u_CameraMatrix * getModelMatrix() * vec4(va_Vertex, 1.0);
    vo_DrawID = u_DrawID;
}
)"_s;

// Deliberate: there is no test for a full node buffer; GL drops stores outside the image.
const QString fragmentSource = uR"(#version 150
#define QEL_GL_3_2 %1
#if QEL_GL_3_2 == 0
#extension GL_ARB_shader_atomic_counters : enable
#extension GL_ARB_shader_image_load_store : enable
#extension GL_ARB_shading_language_420pack : enable
#endif
#include "ShaderBitEncoding.glslh"

#if QEL_GL_3_2 == 0 && defined(GL_ARB_shader_atomic_counters) && defined(GL_ARB_shader_image_load_store) && defined(GL_ARB_shading_language_420pack)

flat in int vo_DrawID;
layout(binding = 0, offset = 0) uniform atomic_uint u_HeadCounter;
layout(r32ui, binding = 0) uniform uimage2D u_HeadPointerImage;
layout(rgba32ui, binding = 1) writeonly uniform uimage2D u_NodeBufferImage;

void main()
{
    uint node = atomicCounterIncrement(u_HeadCounter);
    uint next = imageAtomicExchange(u_HeadPointerImage, ivec2(gl_FragCoord.xy), node + 1u);
    imageStore(u_NodeBufferImage, ivec2(node % %2u, node / %2u),
               uvec4(next, uint(gl_PrimitiveID) + 1u, floatBitsToUint(gl_FragCoord.z), uint(vo_DrawID)));
}

#else

uniform int u_NodeBufferImageWidth;
out uvec4 out_HeadPointer;
out uvec4 out_NodeBuffer;

void main()
{
    uvec2 pixel = uvec2(gl_FragCoord.xy);
    out_HeadPointer = uvec4(pixel.x + pixel.y * uint(u_NodeBufferImageWidth) + 1u, 0u, 0u, 0u);
    out_NodeBuffer = uvec4(0u, uint(gl_PrimitiveID) + 1u, floatBitsToUint(gl_FragCoord.z), 0u);
}

#endif
)"_s;

// Covers the rows of the node buffer with the nodes that the previous frame had and this one has not.
const QString clearVertexSource = uR"(#version 150
uniform usamplerBuffer u_NumNodes;     // of the previous frame, of this frame
in vec3 va_Vertex;
flat out uint vo_NumNodes;

void main()
{
    const uint side = %1u;
    uint numOldNodes = min(texelFetch(u_NumNodes, 0).r, side * side);
    vo_NumNodes = min(texelFetch(u_NumNodes, 1).r, side * side);
    uint firstRow = vo_NumNodes / side;
    uint endRow = max((numOldNodes + side - 1u) / side, firstRow);
    float y = 2.0 * float(va_Vertex.y > 0.0 ? endRow : firstRow) / float(side) - 1.0;
    gl_Position = vec4(va_Vertex.x, y, 0.0, 1.0);
}
)"_s;

const QString clearFragmentSource = uR"(#version 150
flat in uint vo_NumNodes;
out uvec4 out_Node;

void main()
{
    uvec2 texel = uvec2(gl_FragCoord.xy);
    if (texel.x + texel.y * %1u < vo_NumNodes) {
        discard;
    }
    out_Node = uvec4(0u);
}
)"_s;

/// Replaces an attached texture by a new one; base format and type follow from the internal format.
void replace(std::unique_ptr<Texture>& texture, FramebufferObject& framebuffer, unsigned int attachment,
             unsigned int internalFormat, const QSize& size)
{
    framebuffer.detach(attachment);
    texture.reset(makeTarget(size, internalFormat, formatFromInternalFormat(internalFormat),
                             typeFromInternalFormat(internalFormat)));
    framebuffer.attach(texture.get(), attachment, 0);
}

} // namespace

const PassDescription& VisibilityBufferRenderPass::description()
{
    static const PassDescription description{
        .type = u"VisibilityBufferRenderPass"_s,
        .summary = u"Records per-pixel lists of the primitives that cover each pixel, without shading."_s,
        .inputs = {viewportInput(u"size of the frame; the origin is ignored"_s, u"no texture is published"_s),
                   projectionMatrixInput(), cameraMatrixInput(),
                   modelInput(u"the model"_s, u"all lists are empty"_s)},
        .outputs =
            {{.name = u"Qel_QelTexture*_HeadPointers"_s,
              .meaning = u"index of a pixel's first node plus one, 0 for an empty list; R32UI, owned by "
                         "the pass"_s,
              .encoding = Encoding::Data},
             {.name = u"Qel_QelTexture*_NodeBuffer"_s,
              .meaning = u"nodes: index of the next node plus one or 0, index of the primitive plus "
                         "one, bits of the depth, index of the draw; RGBA32UI, 4096 x 4096 or the size "
                         "of the frame, owned by the pass"_s,
              .encoding = Encoding::Data,
              .alpha = AlphaMeaning::Data},
             {.name = u"Qel_int_NodeBufferWidth"_s,
              .meaning = u"W: node n is the texel (n mod W, n div W)"_s},
             {.name = u"Qel_QelTexture*_Depth"_s, .meaning = u"never set"_s, .encoding = Encoding::Data}},
        .options = {{.name = u"drawFlags"_s,
                     .meaning = u"64-bit number, such as \"0x1\": only batches whose masked flags equal it "
                                "are drawn"_s,
                     .defaultValue = u"0"_s},
                    {.name = u"drawMask"_s,
                     .meaning =
                         u"64-bit number: the mask of the batches' flags; 0 with drawFlags 0 draws all"_s,
                     .defaultValue = u"0"_s}},
        .fullModeExtensions = fragmentListExtensions(),
        .reducedMode = u"each pixel keeps only its nearest fragment"_s};
    return description;
}

VisibilityBufferRenderPass::VisibilityBufferRenderPass(unsigned long long drawFlags,
                                                       unsigned long long drawMask)
    : m_drawFlags(drawFlags)
    , m_drawMask(drawMask)
    , m_attachments{{u"out_HeadPointer"_s, GL_R32UI}, {u"out_NodeBuffer"_s, GL_RGBA32UI}}
{
    declarePorts(description());
}

VisibilityBufferRenderPass::~VisibilityBufferRenderPass() = default;

void VisibilityBufferRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    m_gl4 = hasFragmentListExtensions();
    logInformation(sourceFile, __LINE__, m_gl4 ? u"Using GL4 mode"_s : u"Using non-GL4 mode"_s);

    const QRect viewport = m_inputs[Viewport].value.toRect();
    m_nodeBufferWidth = m_gl4 ? nodeBufferSide : std::max(viewport.width(), 0);
    m_outputs[NodeBufferWidth].value = m_nodeBufferWidth;
    if (viewport.isEmpty()) {
        m_outputs[HeadPointers].value.clear();
        m_outputs[NodeBuffer].value.clear();
        return;
    }
    if (!m_program) {
        buildListProgram();
        if (m_gl4) {
            makeLists();
        }
    }
    if (viewport.width() != m_width || viewport.height() != m_height) {
        resize(viewport.size());
    }

    // Deliberate: sets only what is left behind; glClearBufferuiv, which clears integer textures, ignores it.
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
    if (m_gl4) {
        clearLists();
    }
    {
        const AutoBinder framebufferBinder(m_framebuffer.get());
        std::optional<PooledTarget> scratch;
        if (m_gl4) {
            // A target to rasterise onto; nothing is written to it.
            scratch.emplace(*m_framebuffer, TextureFormat::RGBA16F, viewport.size());
            // Software rasterisers would otherwise read and write its texels.
            glDrawBuffer(GL_NONE);
            // The marks; the depth is never read.
            glStencilMask(~0U);
            glClearBufferfi(GL_DEPTH_STENCIL, 0, 1.0F, 0);
        } else {
            clearTargets();
        }
        if (auto* model = getInputPointer<GPUModel>(Geometry)) {
            draw(model);
        }
    }
    if (m_gl4) {
        clearNodes();
    }
    m_outputs[HeadPointers].value = textureVariant(m_headPointers.get());
    m_outputs[NodeBuffer].value = textureVariant(m_nodes.get());
}

void VisibilityBufferRenderPass::buildListProgram()
{
    ShaderProgram& program = provide(m_program);
    program.setFragDataLocations({m_attachments[0].name, m_attachments[1].name});
    addModelVertexShaders(&program, vertexSource);
    program.addShader(GL_FRAGMENT_SHADER, fragmentSource.arg(m_gl4 ? 0 : 1).arg(nodeBufferSide), {});
    buildProgram(program);
}

/// Makes the objects that only the full mode needs.
void VisibilityBufferRenderPass::makeLists()
{
    FramebufferObject& nodeFramebuffer = provide(m_nodeFramebuffer);
    {
        const AutoBinder binder(&nodeFramebuffer);
        replace(m_nodes, nodeFramebuffer, GL_COLOR_ATTACHMENT0, GL_RGBA32UI,
                {nodeBufferSide, nodeBufferSide});
    }
    checkGLError(sourceFile, __LINE__);

    constexpr qsizetype counterSize = sizeof(unsigned int);
    m_counter = std::make_unique<BufferObject>();
    m_counter->setIndexedTarget(GL_ATOMIC_COUNTER_BUFFER, 0, 0, counterSize);
    m_counter->uploadBytes(nullptr, counterSize, GL_DYNAMIC_DRAW);
    m_previousCount = std::make_unique<BufferObject>();
    m_previousCount->uploadBytes(nullptr, 2 * counterSize, GL_DYNAMIC_DRAW);
    m_previousCountTexel = std::make_unique<Texture>();
    m_previousCountTexel->setTarget(GL_TEXTURE_BUFFER);
    m_previousCountTexel->setBuffer(GL_R32UI, m_previousCount.get());

    ShaderProgram& clearProgram = provide(m_clearProgram);
    clearProgram.setFragDataLocations({u"out_Node"_s});
    clearProgram.addShader(GL_VERTEX_SHADER, clearVertexSource.arg(nodeBufferSide), {});
    clearProgram.addShader(GL_FRAGMENT_SHADER, clearFragmentSource.arg(nodeBufferSide), {});
    buildProgram(clearProgram);
    provideScreenBatch(m_clearBatch, clearProgram, Screen::Quad);
}

void VisibilityBufferRenderPass::resize(const QSize& size)
{
    m_width = size.width();
    m_height = size.height();
    FramebufferObject& framebuffer = provide(m_framebuffer);
    // In the full mode the attached marks are deleted with the previous head pointers.
    framebuffer.detach(GL_DEPTH_STENCIL_ATTACHMENT);
    FramebufferObject& listFramebuffer = m_gl4 ? provide(m_headFramebuffer) : framebuffer;
    {
        const AutoBinder binder(&listFramebuffer);
        const auto heads = static_cast<unsigned int>(m_attachments[0].format);
        replace(m_headPointers, listFramebuffer, GL_COLOR_ATTACHMENT0, heads, size);
        if (!m_gl4) {
            const auto nodes = static_cast<unsigned int>(m_attachments[1].format);
            replace(m_nodes, listFramebuffer, GL_COLOR_ATTACHMENT1, nodes, size);
        }
    }
    const AutoBinder binder(&framebuffer);
    if (m_gl4) {
        framebuffer.attach(makeListMarks(m_headPointers.get()), GL_DEPTH_STENCIL_ATTACHMENT, 0);
    } else {
        replace(m_depth, framebuffer, GL_DEPTH_ATTACHMENT, GL_DEPTH_COMPONENT32F, size);
    }
    checkGLError(sourceFile, __LINE__);
}

/// Clears the targets of the reduced mode.
void VisibilityBufferRenderPass::clearTargets()
{
    m_framebuffer->setDrawBuffers();
    glClearBufferuiv(GL_COLOR, 0, zeroes.data());
    glClearBufferuiv(GL_COLOR, 1, zeroes.data());
    glClear(GL_DEPTH_BUFFER_BIT);
}

/// Empties the lists of the full mode, but leaves the nodes of the previous frame in place.
void VisibilityBufferRenderPass::clearLists()
{
    // The images and the counter were last written by shaders, possibly of other passes.
    glMemoryBarrier(GL_FRAMEBUFFER_BARRIER_BIT | GL_BUFFER_UPDATE_BARRIER_BIT);
    m_previousCount->copyBytes(m_counter.get(), sizeof(unsigned int));
    m_counter->updateBytes(zeroes.data(), sizeof(unsigned int));
    {
        const AutoBinder binder(m_headFramebuffer.get());
        m_headFramebuffer->setDrawBuffers();
        glClearBufferuiv(GL_COLOR, 0, zeroes.data());
    }
    if (m_nodesAreUndefined) {
        const AutoBinder binder(m_nodeFramebuffer.get());
        m_nodeFramebuffer->setDrawBuffers();
        glClearBufferuiv(GL_COLOR, 0, zeroes.data());
        m_nodesAreUndefined = false;
    }
    glMemoryBarrier(GL_SHADER_IMAGE_ACCESS_BARRIER_BIT);
}

/// Clears the nodes that the previous frame wrote and this one did not; all others beyond its own are 0
/// already. Clearing all 256 MiB every frame would cost more than drawing.
void VisibilityBufferRenderPass::clearNodes()
{
    glMemoryBarrier(GL_FRAMEBUFFER_BARRIER_BIT | GL_BUFFER_UPDATE_BARRIER_BIT);
    m_previousCount->copyBytes(m_counter.get(), sizeof(unsigned int), sizeof(unsigned int));
    const AutoBinder framebufferBinder(m_nodeFramebuffer.get());
    m_nodeFramebuffer->setDrawBuffers();
    const AutoDisabler culling(GL_CULL_FACE);
    const AutoDisabler depthTest(GL_DEPTH_TEST);
    const AutoBinder programBinder(m_clearProgram.get());
    const AutoBinder countBinder(m_previousCountTexel.get());
    m_clearProgram->setUniform(m_clearCount, m_previousCountTexel->unit());
    drawBatch(m_clearBatch);
}

void VisibilityBufferRenderPass::draw(GPUModel* model)
{
    OpenGLDeviceContext::current()->enable(GL_DEPTH_TEST);
    const AutoBinder programBinder(m_program.get());
    m_program->setUniform(m_projectionMatrix, m_inputs[ProjectionMatrix].value.value<QMatrix4x4>());
    m_program->setUniform(m_cameraMatrix, m_inputs[CameraMatrix].value.value<QMatrix4x4>());
    m_program->setUniform(m_imageWidth, m_nodeBufferWidth);
    if (!m_gl4) {
        model->draw(m_program.get(), m_drawFlags, m_drawMask, WindingType::CounterClockwise);
        return;
    }
    m_program->setUniform(m_headPointerImage, 0);
    m_program->setUniform(m_nodeBufferImage, 1);
    {
        const AutoBinder counterBinder(m_counter.get());
        // Deliberate: bound as write-only although the shader's atomic exchange also reads. Drivers go by
        // what the shader does.
        const ImageBinder headPointers(0, m_headPointers.get(), GL_WRITE_ONLY, GL_R32UI);
        const ImageBinder nodes(1, m_nodes.get(), GL_READ_WRITE, GL_RGBA32UI);
        // The depth test would remove nothing from the lists, because a stage that stores runs before it.
        const AutoDisabler depthTest(GL_DEPTH_TEST);
        const AutoEnabler stencilTest(GL_STENCIL_TEST);
        glStencilFunc(GL_ALWAYS, 1, ~0U);
        glStencilOp(GL_KEEP, GL_KEEP, GL_REPLACE);
        model->draw(m_program.get(), m_drawFlags, m_drawMask, WindingType::CounterClockwise);
        glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
    }
    glMemoryBarrier(GL_TEXTURE_FETCH_BARRIER_BIT);
}

} // namespace Morvane::Qel
