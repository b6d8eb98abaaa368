#pragma once

#include <QSharedPointer>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class Texture;

/// Sorts the fragments of every pixel's list by depth, the nearest first, in place, for passes that blend
/// layers in order (C. A. R. Hoare: Quicksort, 1962, one list to a fragment invocation).
///
/// Reads the lists of VisibilityBufferRenderPass and moves primitives, draws and depths between the nodes of
/// a list; the links stay. Of lists longer than 50 nodes the first 50 are sorted among themselves. Nodes of
/// the same depth come in any order.
///
/// Outputs are the inputs, whether or not they were sorted; their owner keeps them. Without the extensions
/// that `description()` lists, or without all inputs, nothing is sorted.
///
/// GL state: leaves the depth test enabled when it sorts.
class QEL_RENDERPASSES_EXPORT VisibilitySortRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        HeadPointers,
        NodeBuffer,
        NodeBufferWidth
    };
    enum OutputPort
    {
        SortedHeadPointers,
        SortedNodeBuffer,
        SortedNodeBufferWidth
    };

    static const PassDescription& description();

    VisibilitySortRenderPass();
    ~VisibilitySortRenderPass() override;

    /// Sorts with a program of the caller's, who keeps it; to be set before the first start. It must take the
    /// same uniforms, "u_SamplerHeadPointer", "u_NodeBufferImage" and "u_NodeBufferImageWidth".
    void setShaderProgram(ShaderProgram* program);

    void start(RenderCallbacks* callbacks) override;

private:
    void passInputsThrough();
    void makeObjects();
    void sort(Texture* headPointers, Texture* nodes, int nodeBufferWidth);

    /// Whether lists can be sorted.
    bool m_gl4 = false;
    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_builtinProgram;
    ShaderProgram* m_program = nullptr;
    bool m_hasReportedLists = false;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    Uniform m_imageWidth{"u_NodeBufferImageWidth"};
    Uniform m_headPointerSampler{"u_SamplerHeadPointer"};
    Uniform m_nodeBufferImage{"u_NodeBufferImage"};
};

} // namespace Morvane::Qel
