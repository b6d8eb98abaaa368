#pragma once

#include <Qel/RenderPasses/postprocessing/BlurBaseRenderPass.h>

namespace Morvane::Qel {

/// Blurs a texture with a separable Gaussian kernel, horizontally and then vertically, at the viewport's size
/// or a fraction of it.
///
/// Reads a colour texture, whose filters it sets to linear and whose wrap modes to clamp to edge; writes a
/// pooled texture (RGBA, 16-bit floats) of the reduced size, whose references its consumers own. A radius of
/// 1 or less passes the input on as it is. Alpha is blurred like the colours; texels whose alpha is 0 stay as
/// they are, in each of the two draws.
///
/// GL state: relies on blending and scissor test being off; leaves depth test and depth mask off and, on
/// purpose, the clear colour at opaque red.
class QEL_RENDERPASSES_EXPORT GaussianBlurRenderPass : public BlurBaseRenderPass
{
public:
    enum InputPort
    {
        Viewport,
        Input,
        BlurRadius,
        ResolutionDivider
    };
    enum OutputPort
    {
        Output
    };

    static const PassDescription& description();

    GaussianBlurRenderPass();
    ~GaussianBlurRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void updateKernel(float radius);
    void draw(Texture* source, Texture* target, const QVector2D& step, float divider);

    Uniform m_resolutionDivider{"u_ResolutionDivider"};
};

} // namespace Morvane::Qel
