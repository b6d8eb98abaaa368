#include <Qel/RenderPasses/visibility/VisibilitySortRenderPass.h>

#include <QRect>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/FragmentLists.h>
#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/VisibilitySortRenderPass";

// Records keep the pointer of the node whose place they have while their payloads move. The smaller of two
// ranges is sorted first, so that the stack is never deeper than the number of times that 50 can be halved.
// Both walks take no more than MAX_DEPTH steps, whatever the pointers say.
const QString fragmentSource = uR"(#version 150
#extension GL_ARB_shader_atomic_counters : enable
#extension GL_ARB_shader_image_load_store : enable
#extension GL_ARB_shading_language_420pack : enable
#include "ShaderBitEncoding.glslh"
#define MAX_DEPTH 50
#define MAX_LEVELS 16

uniform usampler2D u_SamplerHeadPointer;
layout(rgba32ui) uniform uimage2D u_NodeBufferImage;
uniform int u_NodeBufferImageWidth;

struct Record
{
    uint primitive;
    uint draw;
    float depth;
    uint pointer;
};
Record records[MAX_DEPTH];

bool isGreater(Record a, Record b)
{
    return a.depth > b.depth;
}

void copyPayload(inout Record target, Record source)
{
    target.primitive = source.primitive;
    target.draw = source.draw;
    target.depth = source.depth;
}

// An alternative to quickSort that nothing calls; kept on purpose.
void insertionSort(int count)
{
    for (int i = 1; i < count; ++i) {
        Record moved = records[i];
        int place = i;
        for (; place > 0 && isGreater(records[place - 1], moved); --place) {
            copyPayload(records[place], records[place - 1]);
        }
        copyPayload(records[place], moved);
    }
}

// Divides the records from low to high by the first of them and returns where that one belongs.
int divide(int low, int high)
{
    Record pivot = records[low];
    while (low < high) {
        while (low < high && !isGreater(pivot, records[high])) {
            --high;
        }
        copyPayload(records[low], records[high]);
        while (low < high && !isGreater(records[low], pivot)) {
            ++low;
        }
        copyPayload(records[high], records[low]);
    }
    copyPayload(records[low], pivot);
    return low;
}

int sizeOf(ivec2 range)
{
    return range.y - range.x;
}

void quickSort(int count)
{
    // Begins and ends of what is left to sort.
    ivec2 ranges[MAX_LEVELS];
    int top = 0;
    ranges[0] = ivec2(0, count);
    while (top >= 0) {
        ivec2 range = ranges[top];
        if (sizeOf(range) < 2) {
            --top;
            continue;
        }
        int middle = divide(range.x, range.y - 1);
        ivec2 later = ivec2(range.x, middle);
        ivec2 next = ivec2(middle + 1, range.y);
        if (sizeOf(next) > sizeOf(later)) {
            ivec2 swapped = later;
            later = next;
            next = swapped;
        }
        ranges[top] = later;
        ++top;
        ranges[top] = next;
    }
}

ivec2 texelOfNode(uint pointer)
{
    uint width = uint(u_NodeBufferImageWidth);
    return ivec2((pointer - 1u) % width, (pointer - 1u) / width);
}

// Fills the records from the list and returns their number.
int gather(uint pointer)
{
    int count = 0;
    while (pointer != 0u && count < MAX_DEPTH) {
        uvec4 node = imageLoad(u_NodeBufferImage, texelOfNode(pointer));
        if (node.g == 0u) {
            // Outside the image g reads as 0, which no node has for its primitive: the list of a buffer that ran
            // full ends here.
            break;
        }
        records[count] = Record(node.g, node.a, uintBitsToFloat(node.b), node.r);
        pointer = node.r;
        ++count;
    }
    return count;
}

void writeBack(uint pointer, int count)
{
    for (int i = 0; i < count; ++i) {
        imageStore(u_NodeBufferImage, texelOfNode(pointer),
                   uvec4(records[i].pointer, records[i].primitive, floatBitsToUint(records[i].depth),
                         records[i].draw));
        pointer = records[i].pointer;
    }
}

void main()
{
    ivec2 pixel = ivec2(gl_FragCoord.xy);
    if (any(greaterThanEqual(pixel, textureSize(u_SamplerHeadPointer, 0)))) {
        discard;
    }
    uint head = texelFetch(u_SamplerHeadPointer, pixel, 0).r;
    if (head == 0u) {
        discard;
    }
    int count = gather(head);
    quickSort(count);
    writeBack(head, count);
}
)"_s;

} // namespace

const PassDescription& VisibilitySortRenderPass::description()
{
    static const PassDescription description{
        u"VisibilitySortRenderPass"_s,
        u"Sorts the lists of fragments by depth, nearest first, in place."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the picture; the origin is ignored"_s,
          u"nothing is sorted"_s,
          {},
          u"pixels"_s},
         {u"Qel_QelTexture*_HeadPointers"_s, u"head pointers, R32UI"_s, u"nothing is sorted"_s},
         {u"Qel_QelTexture*_NodeBuffer"_s, u"nodes, RGBA32UI; their contents are sorted"_s,
          u"nothing is sorted"_s},
         {u"Qel_int_NodeBufferWidth"_s,
          u"nodes in a row of the buffer"_s,
          u"nothing is sorted"_s,
          {},
          u"1 or more"_s}},
        {{u"Qel_QelTexture*_HeadPointers"_s, u"the head pointers of the input"_s},
         {u"Qel_QelTexture*_NodeBuffer"_s, u"the node buffer of the input"_s},
         {u"Qel_int_NodeBufferWidth"_s, u"the width of the input"_s}},
        {},
        false,
        fragmentListExtensions(),
        u"lists, which then have one fragment, are passed on as they are"_s};
    return description;
}

VisibilitySortRenderPass::VisibilitySortRenderPass()
{
    declarePorts(description());
}

VisibilitySortRenderPass::~VisibilitySortRenderPass() = default;

void VisibilitySortRenderPass::setShaderProgram(ShaderProgram* program)
{
    m_program = program;
}

void VisibilitySortRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    m_gl4 = hasFragmentListExtensions();
    auto* headPointers = getInputPointer<Texture>(HeadPointers);
    auto* nodes = getInputPointer<Texture>(NodeBuffer);
    const int width = m_inputs[NodeBufferWidth].value.toInt();
    if (m_gl4 && width > 0 && !m_inputs[Viewport].value.toRect().isEmpty() &&
        areFragmentLists(headPointers, nodes, &m_hasReportedLists)) {
        sort(headPointers, nodes, width);
    }
    passInputsThrough();
}

/// The users of the outputs get the references that they drop, and the inputs' own are dropped here.
void VisibilitySortRenderPass::passInputsThrough()
{
    TextureManager* pool = TextureManager::Instance();
    for (const auto& [input, output] :
         {std::pair{HeadPointers, SortedHeadPointers}, std::pair{NodeBuffer, SortedNodeBuffer}}) {
        auto* texture = getInputPointer<Texture>(input);
        m_outputs[output].value = m_inputs[input].value;
        pool->addTempTextureRef(texture, m_outputs[output].users);
        pool->releaseTempTextureRef(texture, 1);
    }
    m_outputs[SortedNodeBufferWidth].value = m_inputs[NodeBufferWidth].value;
}

void VisibilitySortRenderPass::makeObjects()
{
    if (!m_framebuffer) {
        m_framebuffer = std::make_unique<FramebufferObject>();
        m_fullScreenBatch = OpenGLDeviceContext::current()->fullScreenTriangle();
    }
    if (!m_program) {
        m_builtinProgram = std::make_unique<ShaderProgram>();
        m_builtinProgram->addShader(GL_VERTEX_SHADER, fullScreenVertexSource, {});
        m_builtinProgram->addShader(GL_FRAGMENT_SHADER, fragmentSource, {});
        m_program = m_builtinProgram.get();
        buildProgram(m_program);
    }
    enableArrays(m_fullScreenBatch, m_program);
}

void VisibilitySortRenderPass::sort(Texture* headPointers, Texture* nodes, int nodeBufferWidth)
{
    const QRect viewport = m_inputs[Viewport].value.toRect();
    if (!m_framebuffer || !m_program) {
        makeObjects();
    }
    const AutoBinder framebufferBinder(m_framebuffer.get());
    // Something to rasterise onto; nothing is written to it.
    Texture* scratch =
        attachTempTarget(m_framebuffer.get(), TextureFormat::RGBA16F, viewport.width(), viewport.height());
    m_framebuffer->setDrawBuffers();
    // Without a depth attachment this has no effect but to stay enabled. Deliberate.
    OpenGLDeviceContext::current()->enable(GL_DEPTH_TEST);
    {
        // Nodes were stored by shaders and are read as an image here.
        glMemoryBarrier(GL_SHADER_IMAGE_ACCESS_BARRIER_BIT);
        const AutoBinder programBinder(m_program);
        const AutoBinder headPointerBinder(headPointers);
        const ImageBinder nodeBinder(1, nodes, GL_READ_WRITE, GL_RGBA32UI);
        m_program->setUniform(m_imageWidth, nodeBufferWidth);
        m_program->setUniform(m_headPointerSampler, headPointers->unit());
        m_program->setUniform(m_nodeBufferImage, 1);
        checkGLError(sourceFile, __LINE__);
        drawBatch(m_fullScreenBatch.data());
    }
    glMemoryBarrier(GL_TEXTURE_FETCH_BARRIER_BIT);
    m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
    TextureManager::Instance()->releaseTempTextureRef(scratch, 1);
}

} // namespace Morvane::Qel
