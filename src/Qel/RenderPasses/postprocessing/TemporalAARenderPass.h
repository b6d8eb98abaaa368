#pragma once

#include <QSharedPointer>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/core/RenderPassHelper.h>

namespace Morvane::Qel {

class ViewWatch;

/// Averages the frames of a still view, jittered by TemporalAAJitterPass, into an anti-aliased one (P.
/// Haeberli, K. Akeley: The accumulation buffer: hardware support for high-quality rendering, 1990).
///
/// Blends every frame into one texture with the weight that yields the plain mean: 1, 1/2, 1/3, ... The mean
/// restarts when the sequence of TemporalAAJitterPass does. The frame of the restart, the only one without
/// jitter, is shown and then replaced by the one after it. The number of frames is not bounded.
///
/// The jitter ends with frame 31, counted from the restart. Later frames of a still view are all alike and
/// aliased, and the mean approaches them: in the graph examples/graphs/temporal.json, the error against a
/// supersampled image is 0.012 (RMS) at frame 31, 0.020 at frame 300 and 0.029 without anti-aliasing. To keep
/// the result, draw no more frames after frame 31 until the view changes. With `"settle": 31`, `qel render`
/// writes that frame.
///
/// The texture has 8 bits per channel, and the mean is rounded every frame. After n frames, it no longer
/// follows differences of less than n / 2 steps of 1/255: after two black frames, white ones raise it to
/// about 240/255 and no further.
///
/// Reads a colour texture with the filters that are set on it. Writes a pooled texture (RGBA8) that the pass
/// keeps from frame to frame and replaces on a new size; a consumer that keeps it sees it change. Without an
/// input frame it is opaque black. The count goes on then, so that the black weighs as much as all frames
/// before it, even if the view changes at the same time: set Dirty with the next frame.
///
/// GL state: leaves depth test and blending disabled, depth writes enabled, blend function and blend colour
/// as set for the mean and, after a restart or without a frame, the clear colour opaque black.
class QEL_RENDERPASSES_EXPORT TemporalAARenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect, pixels.
        Viewport,
        /// Colour texture.
        Frame,
        /// QMatrix4x4, eye space to clip space, without jitter.
        ProjectionMatrix,
        /// QMatrix4x4, world space to eye space.
        CameraMatrix,
        /// bool.
        Dirty
    };
    enum OutputPort
    {
        /// RGBA8, pooled.
        AccumulatedFrame
    };

    static const PassDescription& description();

    TemporalAARenderPass();
    ~TemporalAARenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void replaceTarget(const QSize& size);
    static void clear();
    void accumulate(Texture* frame, bool restart);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    std::unique_ptr<ShaderProgram> m_program;
    std::unique_ptr<ViewWatch> m_view;
    /// The number of frames in the mean.
    int m_accumulatedFrames = 0;
    /// The texture attached to the framebuffer.
    PooledTexture m_accumulated;
    Uniform m_newFrame{"u_newFrame"};
};

} // namespace Morvane::Qel
