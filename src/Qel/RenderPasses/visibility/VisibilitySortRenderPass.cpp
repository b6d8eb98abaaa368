#include <Qel/RenderPasses/visibility/VisibilitySortRenderPass.h>

#include <optional>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/RenderPasses/support/FragmentLists.h>
#include <Qel/gl/GLErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/VisibilitySortRenderPass";

// The width is passed on in a flat output, because software rasterisers pay for every uniform that a pixel
// reads, each time.
const QString vertexSource = uR"(#version 150
in vec3 va_Vertex;
uniform int u_NodeBufferImageWidth;
flat out int vo_NodeBufferWidth;

void main()
{
    gl_Position = vec4(va_Vertex, 1.0);
    vo_NodeBufferWidth = u_NodeBufferImageWidth;
}
)"_s;

// Payloads move between the nodes, whose next pointers stay. The smaller of two ranges is sorted first, which
// bounds the stack by the number of times that 50 can be halved. Both walks take at most MAX_DEPTH steps,
// whatever the pointers are.
//
// Most pixels have no list or a short one. Software rasterisers execute both sides of every branch and every
// loop at least once, or twice if its condition comes first, so all loops test their condition last, and the
// sort is a single loop of small steps. They also clear local arrays, so the records hold no more than
// needed. The stencil keeps pixels without a list away, which needs early tests, because the stage stores.
const QString fragmentSource = uR"(#version 150
#extension GL_ARB_shader_atomic_counters : enable
#extension GL_ARB_shader_image_load_store : enable
#extension GL_ARB_shading_language_420pack : enable
#include "ShaderBitEncoding.glslh"
#include "FragmentList.glslh"
layout(early_fragment_tests) in;
#define MAX_DEPTH 50
#define MAX_LEVELS 16

uniform usampler2D u_SamplerHeadPointer;
layout(rgba32ui) uniform uimage2D u_NodeBufferImage;
flat in int vo_NodeBufferWidth;

struct Record
{
    uint primitive;
    uint draw;
    float depth;
};
Record records[MAX_DEPTH];

bool isGreater(Record a, Record b)
{
    return a.depth > b.depth;
}

// Deliberate: an alternative to quickSort that is never called.
void insertionSort(int count)
{
    for (int i = 1; i < count; ++i) {
        Record moved = records[i];
        int place = i;
        for (; place > 0 && isGreater(records[place - 1], moved); --place) {
            records[place] = records[place - 1];
        }
        records[place] = moved;
    }
}

bool hasTwo(ivec2 range)
{
    return range.x < range.y;
}

// Each step compares a record with the pivot, or ends the partition of a range. The pivot's place is a hole at
// the lower or the upper end of the records that are still to be compared; one that lies on the wrong side
// fills it and leaves the hole at the other end.
void quickSort(int count)
{
    // First and last record of each range that remains to be sorted.
    ivec2 ranges[MAX_LEVELS];
    int numRanges = 0;
    ranges[0] = ivec2(0);
    ivec2 range = ivec2(0, max(count - 1, 0));
    int low = range.x;
    int high = range.y;
    bool isHoleLow = true;
    Record pivot = records[0];
    bool isSorted = count < 2;
    do {
        Record compared = records[isHoleLow ? high : low];
        bool isWrongSide = isHoleLow ? isGreater(pivot, compared) : isGreater(compared, pivot);
        bool isPartitioned = low == high;
        if (isPartitioned || isWrongSide) {
            Record filling = compared;
            if (isPartitioned) {
                filling = pivot;
            }
            records[isHoleLow ? low : high] = filling;
        }
        if (isPartitioned) {
            ivec2 left = ivec2(range.x, low - 1);
            ivec2 right = ivec2(low + 1, range.y);
            bool isRightFirst = right.y - right.x <= left.y - left.x;
            ivec2 later = isRightFirst ? left : right;
            range = isRightFirst ? right : left;
            if (hasTwo(later)) {
                ranges[numRanges] = later;
                ++numRanges;
            }
            if (!hasTwo(range)) {
                isSorted = numRanges == 0;
                numRanges = max(numRanges - 1, 0);
                range = ranges[numRanges];
            }
            low = range.x;
            high = range.y;
            isHoleLow = true;
            pivot = records[low];
        } else {
            isHoleLow = isHoleLow != isWrongSide;
            if (isHoleLow) {
                --high;
            } else {
                ++low;
            }
        }
    } while (!isSorted);
}

struct List
{
    int count;
    // Whether the records are in order already.
    bool isSorted;
    // Whether the nodes are out of order, so that the records must be written back.
    bool isChanged;
};

// Fills the records from the list, the first two in order: most lists hold no more.
List gather(uint pointer)
{
    List list = List(0, true, false);
    float depth = 0.0;
    do {
        uvec4 node = imageLoad(u_NodeBufferImage, texelOfNode(pointer, vo_NodeBufferWidth));
        if (node.g == 0u) {
            // Reads outside the image return 0, which is no node's primitive. This ends a list at a node that
            // did not fit into the buffer.
            break;
        }
        Record record = Record(node.g, node.a, uintBitsToFloat(node.b));
        if (list.count == 1 && isGreater(records[0], record)) {
            Record first = records[0];
            records[0] = record;
            record = first;
            list.isChanged = true;
        }
        if (list.count > 0 && depth > record.depth) {
            list.isSorted = false;
            list.isChanged = true;
        }
        depth = record.depth;
        records[list.count] = record;
        pointer = node.r;
        ++list.count;
    } while (pointer != 0u && list.count < MAX_DEPTH);
    return list;
}

void writeBack(uint pointer, int count)
{
    int i = 0;
    do {
        if (i < count) {
            ivec2 texel = texelOfNode(pointer, vo_NodeBufferWidth);
            pointer = imageLoad(u_NodeBufferImage, texel).r;
            imageStore(u_NodeBufferImage, texel,
                       uvec4(pointer, records[i].primitive, floatBitsToUint(records[i].depth), records[i].draw));
        }
        ++i;
    } while (i < count);
}

void main()
{
    uint head = texelFetch(u_SamplerHeadPointer, ivec2(gl_FragCoord.xy), 0).r;
    List list = gather(head);
    quickSort(list.isSorted ? 0 : list.count);
    writeBack(head, list.isChanged ? list.count : 0);
}
)"_s;

} // namespace

const PassDescription& VisibilitySortRenderPass::description()
{
    static const PassDescription description{
        .type = u"VisibilitySortRenderPass"_s,
        .summary = u"Sorts fragment lists by depth, nearest first, in place."_s,
        .inputs = {viewportInput(u"size of the frame; the origin is ignored"_s, u"nothing is sorted"_s),
                   {.name = u"Qel_QelTexture*_HeadPointers"_s,
                    .meaning = u"head pointers, R32UI"_s,
                    .whenMissing = u"nothing is sorted"_s,
                    .encoding = Encoding::Data},
                   {.name = u"Qel_QelTexture*_NodeBuffer"_s,
                    .meaning = u"nodes, RGBA32UI"_s,
                    .whenMissing = u"nothing is sorted"_s,
                    .isModified = true,
                    .encoding = Encoding::Data},
                   {.name = u"Qel_int_NodeBufferWidth"_s,
                    .meaning = u"nodes in a row of the node buffer"_s,
                    .whenMissing = u"nothing is sorted"_s,
                    .range = u"1 or more"_s,
                    .limits = {1.0}}},
        .outputs = {{.name = u"Qel_QelTexture*_HeadPointers"_s,
                     .meaning = u"the head pointers of the input"_s,
                     .encoding = Encoding::Data},
                    {.name = u"Qel_QelTexture*_NodeBuffer"_s,
                     .meaning = u"the node buffer of the input"_s,
                     .encoding = Encoding::Data,
                     .alpha = AlphaMeaning::Data},
                    {.name = u"Qel_int_NodeBufferWidth"_s, .meaning = u"the width of the input"_s}},
        .fullModeExtensions = fragmentListExtensions(),
        .reducedMode = u"lists, which then have at most one fragment, are passed on unchanged"_s};
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
    const InputReferences inputs(headPointers, nodes);
    const int width = m_inputs[NodeBufferWidth].value.toInt();
    if (m_gl4 && width > 0 && !m_inputs[Viewport].value.toRect().isEmpty() &&
        areFragmentLists(headPointers, nodes, &m_hasReportedLists)) {
        sort(headPointers, nodes, width);
    }
    // The values themselves are passed on, whatever they hold.
    m_outputs[SortedHeadPointers].value = m_inputs[HeadPointers].value;
    m_outputs[SortedNodeBuffer].value = m_inputs[NodeBuffer].value;
    m_outputs[SortedNodeBufferWidth].value = m_inputs[NodeBufferWidth].value;
    TextureManager* pool = TextureManager::Instance();
    pool->addTempTextureRef(headPointers, m_outputs[SortedHeadPointers].users);
    pool->addTempTextureRef(nodes, m_outputs[SortedNodeBuffer].users);
}

void VisibilitySortRenderPass::provideProgram()
{
    if (m_program && m_fullScreenBatch) {
        return;
    }
    if (!m_program) {
        m_builtinProgram = std::make_unique<ShaderProgram>();
        m_program = m_builtinProgram.get();
        m_program->addShader(GL_VERTEX_SHADER, vertexSource, {});
        m_program->addShader(GL_FRAGMENT_SHADER, fragmentSource, {});
        buildProgram(*m_program);
    }
    provideScreenBatch(m_fullScreenBatch, *m_program, Screen::Triangle);
}

void VisibilitySortRenderPass::sort(Texture* headPointers, Texture* nodes, int nodeBufferWidth)
{
    provideProgram();
    const QSize size = m_inputs[Viewport].value.toRect().size();
    FramebufferObject& framebuffer = provide(m_framebuffer);
    const bool keepsToLists = m_program == m_builtinProgram.get();
    // A target to rasterise onto; nothing is written to it.
    const PooledTarget scratch(framebuffer, TextureFormat::RGBA16F, size);
    // Software rasterisers would otherwise read and write its texels.
    glDrawBuffer(GL_NONE);
    std::optional<ListDraw> listDraw;
    if (keepsToLists) {
        listDraw.emplace(provide(m_listMask), framebuffer,
                         FragmentLists{headPointers, nodes, nodeBufferWidth}, size, size);
    }
    {
        // Shaders stored the nodes, which are now read as an image.
        glMemoryBarrier(GL_SHADER_IMAGE_ACCESS_BARRIER_BIT);
        const AutoBinder programBinder(m_program);
        const BoundSampler headPointerSampler(*m_program, m_headPointerSampler, headPointers,
                                              Sampling::Nearest);
        const ImageBinder nodeBinder(1, nodes, GL_READ_WRITE, GL_RGBA32UI);
        m_program->setUniform(m_imageWidth, nodeBufferWidth);
        m_program->setUniform(m_nodeBufferImage, 1);
        checkGLError(sourceFile, __LINE__);
        drawBatch(m_fullScreenBatch);
    }
    if (keepsToLists) {
        OpenGLDeviceContext::current()->disable(GL_STENCIL_TEST);
    }
    // Deliberate: the depth test stays enabled.
    OpenGLDeviceContext::current()->enable(GL_DEPTH_TEST);
    glMemoryBarrier(GL_TEXTURE_FETCH_BARRIER_BIT);
}

} // namespace Morvane::Qel
