#pragma once

#include <QSharedPointer>
#include <QSize>
#include <QStringList>

#include <cstddef>
#include <memory>

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

/// Keeps draws to the pixels that have a list, through the stencil test. Software rasterisers execute a whole
/// stage for the others too, unless the stencil test removes them first, which needs a stage without discard.
class ListMask
{
public:
    /// For provide().
    explicit ListMask(std::nullptr_t) {}

    /// Marks the pixels with a list in the stencil of the framebuffer that is bound, and lets only those pass
    /// until the stencil test is disabled. Head pointer (x, y) is that of pixel (x, y) in a frame of `size`
    /// pixels, which may have more; a pixel whose head pointer names no node has no list. Leaves the depth
    /// test disabled and the stencil and colour masks full.
    void apply(Texture* headPointers, Texture* nodes, int nodeBufferWidth, const QSize& size);

private:
    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    Uniform m_headPointers{"u_SamplerHeadPointer"};
    Uniform m_nodes{"u_SamplerNodeBuffer"};
    Uniform m_nodeBufferWidth{"u_SamplerNodeBufferWidth"};
    Uniform m_size{"u_Size"};
};

} // namespace Morvane::Qel
