#include <Qel/RenderPasses/visibility/VisibilityBufferRenderPass.h>

#include <QMatrix4x4>
#include <QRect>

#include <algorithm>
#include <array>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/FragmentLists.h>
#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/ModelPrograms.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/VisibilityBufferRenderPass";

/// Width and height of the node buffer of the full mode.
constexpr int nodeBufferSide = 4096;

constexpr std::array<unsigned int, 4> zeroes{};

const QString vertexSource = uR"(#version 150
#instancedata "InstanceInfo"
uniform mat4 u_CameraMatrix;
uniform mat4 u_ProjectionMatrix;
uniform int u_DrawID;
in vec3 va_Vertex;

void main()
{
    gl_Position = u_ProjectionMatrix * u_CameraMatrix * getModelMatrix() * vec4(va_Vertex, 1.0);
}
)"_s;

// There is no test for a node buffer that is full: GL drops stores outside the image. Deliberate. The depth
// is tested behind this stage, which stores something, and so takes nothing from the lists: it must not ask
// for early tests, as the depth of the full mode is never cleared. Deliberate too.
const QString fragmentSource = uR"(#version 150
#define QEL_GL_3_2 %1
#if QEL_GL_3_2 == 0
#extension GL_ARB_shader_atomic_counters : enable
#extension GL_ARB_shader_image_load_store : enable
#extension GL_ARB_shading_language_420pack : enable
#endif
#include "ShaderBitEncoding.glslh"
uniform int u_NodeBufferImageWidth;

#if QEL_GL_3_2 == 0 && defined(GL_ARB_shader_atomic_counters) && defined(GL_ARB_shader_image_load_store) && defined(GL_ARB_shading_language_420pack)

uniform int u_DrawID;
layout(binding = 0, offset = 0) uniform atomic_uint u_HeadCounter;
layout(r32ui, binding = 0) uniform uimage2D u_HeadPointerImage;
layout(rgba32ui, binding = 1) writeonly uniform uimage2D u_NodeBufferImage;

void main()
{
    uint node = atomicCounterIncrement(u_HeadCounter);
    uint next = imageAtomicExchange(u_HeadPointerImage, ivec2(gl_FragCoord.xy), node + 1u);
    uint width = uint(u_NodeBufferImageWidth);
    imageStore(u_NodeBufferImage, ivec2(node % width, node / width),
               uvec4(next, uint(gl_PrimitiveID) + 1u, floatBitsToUint(gl_FragCoord.z), uint(u_DrawID)));
}

#else

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

// Covers the rows that hold nodes, from the lowest one on.
const QString clearVertexSource = uR"(#version 150
uniform usamplerBuffer u_NumNodes;
in vec3 va_Vertex;

void main()
{
    const uint side = %1u;
    uint numNodes = min(texelFetch(u_NumNodes, 0).r, side * side);
    float numRows = float((numNodes + side - 1u) / side);
    float y = va_Vertex.y > 0.0 ? 2.0 * numRows / float(side) - 1.0 : -1.0;
    gl_Position = vec4(va_Vertex.x, y, 0.0, 1.0);
}
)"_s;

const QString clearFragmentSource = uR"(#version 150
out uvec4 out_Node;

void main()
{
    out_Node = uvec4(0u);
}
)"_s;

std::unique_ptr<Texture> makeIntegerTarget(int width, int height, unsigned int internalFormat)
{
    return std::unique_ptr<Texture>(makeTarget(width, height, internalFormat,
                                               formatFromInternalFormat(internalFormat),
                                               typeFromInternalFormat(internalFormat)));
}

/// Puts a new texture in place of an attached one.
void replace(std::unique_ptr<Texture>& texture, std::unique_ptr<Texture> replacement,
             FramebufferObject* framebuffer, unsigned int attachment)
{
    framebuffer->detach(attachment);
    texture = std::move(replacement);
    framebuffer->attach(texture.get(), attachment, 0);
}

} // namespace

const PassDescription& VisibilityBufferRenderPass::description()
{
    static const PassDescription description{
        u"VisibilityBufferRenderPass"_s,
        u"Records which primitives of a model cover each pixel, in lists, without shading."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the picture; the origin is ignored"_s,
          u"no texture is published"_s,
          {},
          u"pixels"_s},
         {u"Qel_QMatrix4x4_ProjectionMatrix"_s, u"eye space to clip space"_s, u"identity"_s},
         {u"Qel_QMatrix4x4_CameraMatrix"_s, u"world space to eye space"_s, u"identity"_s},
         {u"Qel_QelGPUModel*_Geometry"_s, u"the model"_s, u"all lists are empty"_s}},
        {{u"Qel_QelTexture*_HeadPointers"_s,
          u"number of a pixel's first node plus one, 0 where there is none; R32UI, owned by the "
          "pass"_s},
         {u"Qel_QelTexture*_NodeBuffer"_s,
          u"nodes: number of the next node plus one or 0, number of the primitive plus one, bits "
          "of the depth, number of the draw; RGBA32UI, 4096 x 4096 or of the picture's size, "
          "owned by the pass"_s},
         {u"Qel_int_NodeBufferWidth"_s, u"W: node n is the texel (n mod W, n div W)"_s},
         {u"Qel_QelTexture*_Depth"_s, u"never set"_s}},
        {{u"drawFlags"_s,
          u"64-bit number, such as \"0x1\": batches are drawn whose flags, masked, equal it"_s, u"0"_s},
         {u"drawMask"_s, u"64-bit number: the mask of the batches' flags; 0 with flags of 0 draws all"_s,
          u"0"_s}},
        false,
        fragmentListExtensions(),
        u"each pixel keeps its nearest fragment alone"_s};
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
    if (!m_framebuffer) {
        makeObjects();
    }
    if (viewport.width() != m_width || viewport.height() != m_height) {
        resize(viewport.width(), viewport.height());
    }

    // The clear colour is left behind; integers are cleared by their own call.
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
    if (m_gl4) {
        clearLists();
    }
    const AutoBinder framebufferBinder(m_framebuffer.get());
    Texture* scratch = nullptr;
    if (m_gl4) {
        // Something to rasterise onto; nothing is written to it.
        scratch = attachTempTarget(m_framebuffer.get(), TextureFormat::RGBA16F, m_width, m_height);
    }
    m_framebuffer->setDrawBuffers();
    if (!m_gl4) {
        glClearBufferuiv(GL_COLOR, 0, zeroes.data());
        glClearBufferuiv(GL_COLOR, 1, zeroes.data());
        glClear(GL_DEPTH_BUFFER_BIT);
    }
    if (auto* model = getInputPointer<GPUModel>(Geometry)) {
        draw(model);
    }
    if (m_gl4) {
        m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
        TextureManager::Instance()->releaseTempTextureRef(scratch, 1);
    }
    m_outputs[HeadPointers].value = textureVariant(m_headPointers.get());
    m_outputs[NodeBuffer].value = textureVariant(m_nodes.get());
}

void VisibilityBufferRenderPass::makeObjects()
{
    m_framebuffer = std::make_unique<FramebufferObject>();
    m_program = std::make_unique<ShaderProgram>();
    m_program->setFragDataLocations(outputNames(m_attachments));
    addModelVertexShaders(m_program.get(), vertexSource);
    m_program->addShader(GL_FRAGMENT_SHADER, fragmentSource.arg(m_gl4 ? 0 : 1), {});
    buildProgram(m_program.get());
    if (m_gl4) {
        makeLists();
    }
}

void VisibilityBufferRenderPass::makeLists()
{
    m_headFramebuffer = std::make_unique<FramebufferObject>();
    m_nodeFramebuffer = std::make_unique<FramebufferObject>();
    {
        const AutoBinder binder(m_nodeFramebuffer.get());
        replace(m_nodes, makeIntegerTarget(nodeBufferSide, nodeBufferSide, GL_RGBA32UI),
                m_nodeFramebuffer.get(), GL_COLOR_ATTACHMENT0);
    }
    checkGLError(sourceFile, __LINE__);

    constexpr qsizetype counterSize = sizeof(unsigned int);
    m_counter = std::make_unique<BufferObject>();
    m_counter->setIndexedTarget(GL_ATOMIC_COUNTER_BUFFER, 0, 0, counterSize);
    m_counter->uploadBytes(nullptr, counterSize, GL_DYNAMIC_DRAW);
    m_previousCount = std::make_unique<BufferObject>();
    m_previousCount->uploadBytes(nullptr, counterSize, GL_DYNAMIC_DRAW);
    m_previousCountTexel = std::make_unique<Texture>();
    m_previousCountTexel->setTarget(GL_TEXTURE_BUFFER);
    m_previousCountTexel->setBuffer(GL_R32UI, m_previousCount.get());

    m_clearProgram = std::make_unique<ShaderProgram>();
    m_clearProgram->setFragDataLocations({u"out_Node"_s});
    m_clearProgram->addShader(GL_VERTEX_SHADER, clearVertexSource.arg(nodeBufferSide), {});
    m_clearProgram->addShader(GL_FRAGMENT_SHADER, clearFragmentSource, {});
    buildProgram(m_clearProgram.get());
    m_clearBatch = OpenGLDeviceContext::current()->fullScreenQuad();
    enableArrays(m_clearBatch, m_clearProgram.get());
}

void VisibilityBufferRenderPass::resize(int width, int height)
{
    m_width = width;
    m_height = height;
    FramebufferObject* listFramebuffer = m_gl4 ? m_headFramebuffer.get() : m_framebuffer.get();
    {
        const AutoBinder binder(listFramebuffer);
        replace(m_headPointers, makeIntegerTarget(width, height, GL_R32UI), listFramebuffer,
                GL_COLOR_ATTACHMENT0);
        if (!m_gl4) {
            replace(m_nodes, makeIntegerTarget(width, height, GL_RGBA32UI), listFramebuffer,
                    GL_COLOR_ATTACHMENT1);
        }
    }
    const AutoBinder binder(m_framebuffer.get());
    replace(m_depth, std::unique_ptr<Texture>(makeDepthTarget(width, height)), m_framebuffer.get(),
            GL_DEPTH_ATTACHMENT);
    checkGLError(sourceFile, __LINE__);
}

/// Makes every texel of both images 0 and starts counting anew.
void VisibilityBufferRenderPass::clearLists()
{
    // The images and the counter were last written by shaders, maybe those of other passes.
    glMemoryBarrier(GL_FRAMEBUFFER_BARRIER_BIT | GL_BUFFER_UPDATE_BARRIER_BIT);
    m_previousCount->copyBytes(m_counter.get(), sizeof(unsigned int));
    m_counter->updateBytes(zeroes.data(), sizeof(unsigned int));
    {
        const AutoBinder binder(m_headFramebuffer.get());
        m_headFramebuffer->setDrawBuffers();
        glClearBufferuiv(GL_COLOR, 0, zeroes.data());
    }
    clearNodes();
    glMemoryBarrier(GL_SHADER_IMAGE_ACCESS_BARRIER_BIT);
}

/// Only what the frame before wrote is not 0: clearing all of the 256 MiB every time would cost more than
/// drawing.
void VisibilityBufferRenderPass::clearNodes()
{
    const AutoBinder framebufferBinder(m_nodeFramebuffer.get());
    m_nodeFramebuffer->setDrawBuffers();
    if (m_nodesAreUndefined) {
        glClearBufferuiv(GL_COLOR, 0, zeroes.data());
        m_nodesAreUndefined = false;
        return;
    }
    const AutoDisabler culling(GL_CULL_FACE);
    const AutoBinder programBinder(m_clearProgram.get());
    const AutoBinder countBinder(m_previousCountTexel.get());
    m_clearProgram->setUniform(m_clearCount, m_previousCountTexel->unit());
    drawBatch(m_clearBatch.data());
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
        // Bound for writing alone although the shader exchanges values, which reads them. Deliberate; drivers
        // go by what the shader does.
        const ImageBinder headPointers(0, m_headPointers.get(), GL_WRITE_ONLY, GL_R32UI);
        const ImageBinder nodes(1, m_nodes.get(), GL_READ_WRITE, GL_RGBA32UI);
        model->draw(m_program.get(), m_drawFlags, m_drawMask, WindingType::CounterClockwise);
    }
    glMemoryBarrier(GL_TEXTURE_FETCH_BARRIER_BIT);
}

} // namespace Morvane::Qel
