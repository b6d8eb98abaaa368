#include <Qel/RenderPasses/support/FragmentLists.h>

#include <QVector2D>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/OpenGLDeviceContext.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

// What is the same for all pixels is passed on in flat outputs, because software rasterisers pay for every
// uniform that a pixel reads.
const QString markVertexSource = uR"(#version 150
uniform usampler2D u_SamplerHeadPointer;
uniform usampler2D u_SamplerNodeBuffer;
uniform int u_SamplerNodeBufferWidth;
uniform vec2 u_Size;
in vec3 va_Vertex;
in vec2 va_TexCoord;
noperspective out vec2 vo_Pixel;
flat out ivec2 vo_NumHeads;
flat out uint vo_NumNodes;

void main()
{
    gl_Position = vec4(va_Vertex, 1.0);
    vo_Pixel = va_TexCoord * u_Size;
    vo_NumHeads = textureSize(u_SamplerHeadPointer, 0);
    uint width = uint(u_SamplerNodeBufferWidth);
    uint height = uint(textureSize(u_SamplerNodeBuffer, 0).y);
    vo_NumNodes = width > ~0u / height ? ~0u : width * height;
}
)"_s;

const QString markFragmentSource = uR"(#version 150
uniform usampler2D u_SamplerHeadPointer;
noperspective in vec2 vo_Pixel;
flat in ivec2 vo_NumHeads;
flat in uint vo_NumNodes;

void main()
{
    ivec2 pixel = ivec2(vo_Pixel);
    uint head = any(greaterThanEqual(pixel, vo_NumHeads)) ? 0u : texelFetch(u_SamplerHeadPointer, pixel, 0).r;
    // Without a list, head - 1 is the largest number there is.
    if (head - 1u >= vo_NumNodes) {
        discard;
    }
}
)"_s;

/// Returns the marks of head pointers if they are those of the pixels of a frame; null if there are none.
Texture* marksOf(const Texture* headPointers, const QSize& frame, const QSize& size)
{
    const bool areOfPixels = headPointers->size() == frame && frame == size;
    return areOfPixels ? headPointers->findChild<Texture*>({}, Qt::FindDirectChildrenOnly) : nullptr;
}

} // namespace

const QStringList& fragmentListExtensions()
{
    static const QStringList extensions{u"GL_ARB_shader_atomic_counters"_s,
                                        u"GL_ARB_shader_image_load_store"_s,
                                        u"GL_ARB_shading_language_420pack"_s};
    return extensions;
}

bool hasFragmentListExtensions()
{
    return hasGLExtension("ARB_shader_atomic_counters") && hasGLExtension("ARB_shader_image_load_store") &&
           hasGLExtension("ARB_shading_language_420pack");
}

bool areFragmentLists(const Texture* headPointers, const Texture* nodes, bool* isReported)
{
    if (!headPointers || !nodes) {
        return false;
    }
    const auto isOf = [](const Texture* texture, unsigned int internalFormat) {
        return texture->target() == GL_TEXTURE_2D && texture->internalFormat() == internalFormat &&
               !texture->size().isEmpty();
    };
    const bool areLists = isOf(headPointers, GL_R32UI) && isOf(nodes, GL_RGBA32UI);
    if (!areLists && !*isReported) {
        *isReported = true;
        logCritical(__FILE__, __LINE__,
                    u"head pointers must be a 2D texture of R32UI and nodes one of RGBA32UI, as the "
                    "visibility buffer makes them; the lists are ignored"_s);
    }
    return areLists;
}

ImageBinder::ImageBinder(unsigned int unit, Texture* texture, unsigned int access, unsigned int format)
    : m_unit(unit)
    , m_access(access)
    , m_format(format)
{
    // Images of textures that are incomplete by their parameters read 0 and drop what is written.
    texture->synchronize();
    glBindImageTexture(m_unit, texture->textureID(), 0, GL_FALSE, 0, m_access, m_format);
}

ImageBinder::~ImageBinder()
{
    glBindImageTexture(m_unit, 0, 0, GL_FALSE, 0, m_access, m_format);
}

Texture* makeListMarks(Texture* headPointers)
{
    Texture* marks =
        makeTarget(headPointers->size(), GL_DEPTH24_STENCIL8, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8);
    marks->setParent(headPointers);
    return marks;
}

void ListMask::mark(const FragmentLists& lists, const QSize& size)
{
    provideScreenProgram(m_program, m_fullScreenBatch,
                         {.fragment = markFragmentSource, .vertex = markVertexSource});
    glClearBufferfi(GL_DEPTH_STENCIL, 0, 1.0F, 0);
    glStencilFunc(GL_ALWAYS, 1, ~0U);
    glStencilOp(GL_KEEP, GL_KEEP, GL_REPLACE);
    glColorMask(GL_FALSE, GL_FALSE, GL_FALSE, GL_FALSE);
    {
        const AutoBinder programBinder(m_program.get());
        const BoundSampler sampler(*m_program, m_headPointers, lists.headPointers, Sampling::Nearest);
        const BoundSampler nodeSampler(*m_program, m_nodes, lists.nodes, Sampling::Nearest);
        m_program->setUniform(m_nodeBufferWidth, lists.nodeBufferWidth);
        m_program->setUniform(m_size,
                              QVector2D(static_cast<float>(size.width()), static_cast<float>(size.height())));
        drawBatch(m_fullScreenBatch);
    }
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
}

ListDraw::ListDraw(ListMask& mask, FramebufferObject& framebuffer, const FragmentLists& lists,
                   const QSize& frame, const QSize& size)
    : ListDraw(mask, framebuffer, lists, frame, size, marksOf(lists.headPointers, frame, size))
{
}

ListDraw::ListDraw(ListMask& mask, FramebufferObject& framebuffer, const FragmentLists& lists,
                   const QSize& frame, const QSize& size, Texture* marks)
    : m_ownMarks(marks ? PooledTexture() : PooledTexture(TextureFormat::Depth24Stencil8, frame))
    , m_attachedMarks(framebuffer, marks ? marks : m_ownMarks.get())
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->disable(GL_DEPTH_TEST);
    context->enable(GL_STENCIL_TEST);
    if (!marks) {
        glStencilMask(~0U);
        mask.mark(lists, size);
    }
    glStencilFunc(GL_EQUAL, 1, ~0U);
    glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
    // Software rasterisers would otherwise write the stencil back.
    glStencilMask(0);
}

ListDraw::~ListDraw()
{
    glStencilMask(~0U);
}

} // namespace Morvane::Qel
