#pragma once

#include <QSharedPointer>
#include <QSize>
#include <QStringList>

#include <memory>

#include <Qel/gl/FramebufferObject.h>
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

/// A framebuffer that can keep draws to the pixels that have a list. Software rasterisers execute a whole
/// stage for the others too, unless the stencil test removes them first, which needs a stage without discard.
class ListFramebuffer : public FramebufferObject
{
public:
    using FramebufferObject::FramebufferObject;

    /// Lets only pixels with a list pass until the stencil test is disabled, by marking them in the attached
    /// stencil. Head pointer (x, y) is that of pixel (x, y) in a frame of `size` pixels, which may have more;
    /// a pixel whose head pointer names no node has no list. Call it while the framebuffer is bound. Leaves
    /// the depth test disabled and the stencil mask full.
    void keepToLists(Texture* headPointers, Texture* nodes, int nodeBufferWidth, const QSize& size);

private:
    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    Uniform m_headPointers{"u_SamplerHeadPointer"};
    Uniform m_nodes{"u_SamplerNodeBuffer"};
    Uniform m_nodeBufferWidth{"u_SamplerNodeBufferWidth"};
    Uniform m_size{"u_Size"};
};

/// Returns the framebuffer that a member owns, creating it if the member is null. The member holds no other
/// kind.
ListFramebuffer& provideListFramebuffer(std::unique_ptr<FramebufferObject>& member);

} // namespace Morvane::Qel
