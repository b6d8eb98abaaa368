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
class ViewWatch;

/// Averages the frames of a view that stands still, jittered by TemporalAAJitterPass, into an anti-aliased
/// one (P. Haeberli, K. Akeley: The accumulation buffer: hardware support for high-quality rendering, 1990).
///
/// Every frame is blended into one texture with the weight that makes it the plain mean: 1, 1/2, 1/3, ... The
/// mean begins again by the rule of TemporalAAJitterPass; the frame of the change, the only one without
/// jitter, is shown and then replaced by the one after it. The number of frames has no bound. The texture has
/// 8 bits a channel, so the mean is rounded in every frame.
///
/// Reads a colour texture; writes a pooled texture (RGBA, 8 bits) that the pass keeps from frame to frame and
/// replaces on a new size; whoever holds on to it sees it change. Without a frame it is opaque black.
///
/// GL state: leaves depth test and blending disabled, depth writes enabled, the blend function and colour as
/// the mean needs them and, after a change or without a frame, the clear colour opaque black.
class QEL_RENDERPASSES_EXPORT TemporalAARenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        Frame,
        ProjectionMatrix,
        CameraMatrix,
        Dirty
    };
    enum OutputPort
    {
        AccumulatedFrame
    };

    static const PassDescription& description();

    TemporalAARenderPass();
    ~TemporalAARenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void replaceTarget(const QSize& size);
    void buildProgram();
    void accumulate(Texture* frame, bool restart);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    std::unique_ptr<ShaderProgram> m_program;
    std::unique_ptr<ViewWatch> m_view;
    int m_accumulatedFrames = 0;
    Uniform m_newFrame{"u_newFrame"};
};

} // namespace Morvane::Qel
