#pragma once

#include <Qel/RenderPasses/postprocessing/BlurBaseRenderPass.h>

namespace Morvane::Qel {

/// Blurs a texture with a separable Gaussian kernel, horizontally and then vertically, at the viewport's size
/// or a fraction of it.
///
/// Reads a colour texture, sampled with linear filters and clamped to its edge. Writes a pooled texture
/// (RGBA16F) of the reduced size, whose consumers own its references. A radius of 1 or less publishes the
/// input itself. Alpha is blurred like the colours; both draws copy texels with an alpha of 0 unchanged.
///
/// GL state: requires blending and scissor test to be off; leaves depth test and depth writes disabled and,
/// deliberately, the clear colour at opaque red.
class QEL_RENDERPASSES_EXPORT GaussianBlurRenderPass : public BlurBaseRenderPass
{
public:
    enum InputPort
    {
        /// QRect, pixels, at full resolution.
        Viewport,
        /// Colour texture, premultiplied alpha.
        Input,
        /// float, texels of the reduced image.
        BlurRadius,
        /// float, 1 or more.
        ResolutionDivider
    };
    enum OutputPort
    {
        /// RGBA16F, pooled, or the input.
        Output
    };

    static const PassDescription& description();

    GaussianBlurRenderPass();
    ~GaussianBlurRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    Uniform m_resolutionDivider{"u_ResolutionDivider"};
};

} // namespace Morvane::Qel
