#pragma once

#include <QSharedPointer>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;

/// Anti-aliases a finished frame in one full-screen draw, by FXAA in its quality form, preset 12 (T. Lottes:
/// FXAA (white paper), 2009; the algorithm of revision 3.11, 2011).
///
/// Reads a display-encoded colour texture, sampled with linear filters and clamped to its edge; of a frame of
/// the viewport's size, the texels around a pixel are read exactly. Edges are found in the green channel
/// alone, so a frame without contrast in green is left unchanged. Writes a pooled texture (RGBA8). Where
/// nothing is filtered the texel is copied, alpha included; where the filter acts, alpha is the green of the
/// input's texel. With a minimum threshold of 0, the default, the filter also acts on areas without green:
/// their alpha becomes 0.
///
/// GL state: leaves the depth test disabled and the viewport at the frame's size.
class QEL_RENDERPASSES_EXPORT FastApproximateAntiAliasingRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect, pixels.
        Viewport,
        /// Display-encoded colour texture.
        Frame,
        /// float, 0 to 1.
        SubPixelQuality,
        /// float, texels.
        RcpFrameQuality,
        /// float, 0 to 1, relative to the local maximum.
        EdgeThresholdQuality,
        /// float, 0 to 1.
        EdgeThresholdMinQuality
    };
    enum OutputPort
    {
        /// RGBA8, pooled.
        AntiAliasedFrame
    };

    static const PassDescription& description();

    FastApproximateAntiAliasingRenderPass();
    ~FastApproximateAntiAliasingRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    /// Builds the program if there is none for frames of the viewport's size or, if `isScaled`, of another.
    void provideProgram(bool isScaled);
    /// The value of a quality input, or its default while it is unset.
    float quality(InputPort port, float whenUnset) const;

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_program;
    bool m_isScaled = false;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    Uniform m_frameSampler{"u_FrameSampler"};
    Uniform m_width{"u_Width"};
    Uniform m_height{"u_Height"};
    Uniform m_subPixelQuality{"u_SubPixelQuality"};
    Uniform m_rcpFrameQuality{"u_RcpFrameQuality"};
    Uniform m_edgeThresholdQuality{"u_EdgeThresholdQuality"};
    Uniform m_edgeThresholdMinQuality{"u_EdgeThresholdMinQuality"};
};

} // namespace Morvane::Qel
