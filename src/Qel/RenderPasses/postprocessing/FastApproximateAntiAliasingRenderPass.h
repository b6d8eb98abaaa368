#pragma once

#include <QSharedPointer>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;

/// Smooths the staircases of a finished frame in one full-screen draw, by FXAA in its quality form (T.
/// Lottes: FXAA (white paper), 2009; the algorithm of revision 3.11, 2011), preset 12.
///
/// Reads a colour texture; edges are found in its green channel alone, so one without contrast in green is
/// left as it is. Writes a pooled texture (RGBA, 8 bits). Where nothing is filtered the texel is the input's,
/// alpha included; where the filter acts, the alpha is the green of the input's texel. With the least
/// contrast at 0, its default, the filter acts on areas without any green too: their alpha becomes 0.
///
/// GL state: leaves the depth test disabled and the viewport at the frame's size. Relies on the clear colour
/// for nothing: every pixel is drawn.
class QEL_RENDERPASSES_EXPORT FastApproximateAntiAliasingRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        Frame,
        SubPixelQuality,
        RcpFrameQuality,
        EdgeThresholdQuality,
        EdgeThresholdMinQuality
    };
    enum OutputPort
    {
        AntiAliasedFrame
    };

    static const PassDescription& description();

    FastApproximateAntiAliasingRenderPass();
    ~FastApproximateAntiAliasingRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    float quality(InputPort port, float whenUnset) const;
    void buildProgram();

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_program;
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
