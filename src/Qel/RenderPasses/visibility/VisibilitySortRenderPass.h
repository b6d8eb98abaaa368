#pragma once

#include <QSharedPointer>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class ListMask;
class Texture;

/// Sorts each pixel's fragment list by depth, nearest first, in place, for passes that blend layers in order
/// (C. A. R. Hoare: Quicksort, 1962, with one fragment invocation per list).
///
/// Reads the lists of VisibilityBufferRenderPass and moves primitive, draw and depth between the nodes of a
/// list; the links stay. In a list of more than 50 nodes only the first 50 are sorted, among themselves.
/// Nodes of equal depth are in no particular order.
///
/// The outputs are the inputs, whether or not they were sorted, and keep their owner. Without the extensions
/// that `description()` lists, or if an input is missing, nothing is sorted.
///
/// GL state: face culling and scissor test must be off, and the colour mask full. When it sorts, leaves the
/// depth test enabled; with its own program also the stencil test disabled, its function at GL_EQUAL,
/// reference 1, and its mask full.
class QEL_RENDERPASSES_EXPORT VisibilitySortRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect in pixels.
        Viewport,
        /// Head pointers, R32UI.
        HeadPointers,
        /// Nodes, RGBA32UI; sorted in place.
        NodeBuffer,
        /// int, nodes in a row of the node buffer.
        NodeBufferWidth
    };
    enum OutputPort
    {
        /// The head pointers of the input.
        SortedHeadPointers,
        /// The node buffer of the input.
        SortedNodeBuffer,
        /// The width of the input.
        SortedNodeBufferWidth
    };

    static const PassDescription& description();

    VisibilitySortRenderPass();
    ~VisibilitySortRenderPass() override;

    /// Replaces the sorting program by one that the caller owns; call it before the first start. The program
    /// must use the uniforms "u_SamplerHeadPointer", "u_NodeBufferImage" and "u_NodeBufferImageWidth".
    void setShaderProgram(ShaderProgram* program);

    void start(RenderCallbacks* callbacks) override;

private:
    void provideProgram();
    void sort(Texture* headPointers, Texture* nodes, int nodeBufferWidth);

    /// Whether the context has the extensions that sorting needs.
    bool m_gl4 = false;
    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ListMask> m_listMask;
    std::unique_ptr<ShaderProgram> m_builtinProgram;
    ShaderProgram* m_program = nullptr;
    bool m_hasReportedLists = false;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    Uniform m_imageWidth{"u_NodeBufferImageWidth"};
    Uniform m_headPointerSampler{"u_SamplerHeadPointer"};
    Uniform m_nodeBufferImage{"u_NodeBufferImage"};
};

} // namespace Morvane::Qel
