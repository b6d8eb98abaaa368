#pragma once

#include <QSharedPointer>
#include <QSize>
#include <QStringList>

#include <cstddef>
#include <memory>

#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>

namespace Morvane::Qel {

class DrawBuffers;

/// Returns the names of the GL extensions that building and sorting fragment lists require.
const QStringList& fragmentListExtensions();

/// Whether the current context has all extensions of fragmentListExtensions().
bool hasFragmentListExtensions();

/// Whether two textures are head pointers and nodes, judged by target and format. Null is not. Any other
/// mismatch is logged as an error, but only once: `isReported` remembers that between calls.
bool areFragmentLists(const Texture* headPointers, const Texture* nodes, bool* isReported);

/// Binds level 0 of a texture to an image unit for a scope. Nothing is bound there afterwards.
class ImageBinder
{
public:
    /// `access` is GL_READ_ONLY, GL_WRITE_ONLY or GL_READ_WRITE.
    ImageBinder(unsigned int unit, Texture* texture, unsigned int access, unsigned int format);
    ~ImageBinder();
    ImageBinder(const ImageBinder&) = delete;
    ImageBinder& operator=(const ImageBinder&) = delete;

private:
    unsigned int m_unit;
    unsigned int m_access;
    unsigned int m_format;
};

/// Makes marks for head pointers: a depth and stencil texture of their size, which they own. The pass that
/// builds the lists sets its stencil to 1 where a pixel has a list and to 0 elsewhere, so that ListDraw need
/// not find these pixels.
Texture* makeListMarks(Texture* headPointers);

/// Fragment lists as VisibilityBufferRenderPass publishes them.
struct FragmentLists
{
    Texture* headPointers;
    Texture* nodes;
    int nodeBufferWidth;
};

/// The program with which ListDraw finds the pixels that have a list, if the head pointers have no marks.
class ListMask
{
public:
    /// For provide().
    explicit ListMask(std::nullptr_t) {}

private:
    friend class ListDraw;
    void mark(const FragmentLists& lists, const QSize& size);

    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    Uniform m_headPointers{"u_SamplerHeadPointer"};
    Uniform m_nodes{"u_SamplerNodeBuffer"};
    Uniform m_nodeBufferWidth{"u_SamplerNodeBufferWidth"};
    Uniform m_size{"u_Size"};
};

/// Keeps draws to the pixels that have a list for its lifetime, through the stencil test. Software
/// rasterisers execute a whole stage for the others too, unless the stencil test removes them first.
///
/// A pixel whose head pointer names a node that does not exist may pass too. GL state: disables the depth
/// test and enables the stencil test. Afterwards both are still so, the stencil function is GL_EQUAL,
/// reference 1, and the stencil and colour masks are full.
class ListDraw
{
public:
    /// The framebuffer is bound, of `frame` pixels, and has no depth or stencil attachment. Head pointer (x,
    /// y) is that of pixel (x, y) if the frame is scaled to `size` pixels, which may be more than there are
    /// head pointers.
    ListDraw(ListMask& mask, FramebufferObject& framebuffer, const FragmentLists& lists, const QSize& frame,
             const QSize& size);
    ~ListDraw();
    ListDraw(const ListDraw&) = delete;
    ListDraw& operator=(const ListDraw&) = delete;

private:
    ListDraw(ListMask& mask, FramebufferObject& framebuffer, const FragmentLists& lists, const QSize& frame,
             const QSize& size, Texture* marks);

    PooledTexture m_ownMarks;
    AttachedDepth m_attachedMarks;
};

} // namespace Morvane::Qel
