#pragma once

#include <Qel/RenderPasses/postprocessing/BlurBaseRenderPass.h>

namespace Morvane::Qel {

/// Adds glow to a picture: keeps the bright texels of the blur frame, blurs them horizontally and vertically,
/// and adds them, scaled, onto the normal frame.
///
/// Reads two colour textures, whose filters it sets to linear and whose wrap modes to clamp to edge; writes a
/// pooled texture (RGBA, 16-bit floats) of the viewport's size, whose references its consumers own. All four
/// channels are added, alpha too, and nothing is clamped. A radius or an amount of 0 or less passes the
/// normal frame on as it is.
///
/// Texels of the blur frame whose alpha is 0 stay as they are in the horizontal draw, but not in the vertical
/// one. The threshold makes what is darker transparent, so that with it glow spreads upwards and downwards
/// only; for glow all around, pass highlights that were selected before and kept their alpha, without a
/// threshold.
///
/// The threshold reaches the shader only together with a new radius: changed alone it takes effect with the
/// next change of the radius, unless it crosses 0, which switches the selection of bright texels on and off.
///
/// GL state: relies on blending and scissor test being off; leaves depth test and depth mask off.
class QEL_RENDERPASSES_EXPORT BlurAndCombineRenderPass : public BlurBaseRenderPass
{
public:
    enum InputPort
    {
        Viewport,
        NormalFrame,
        BlurRadius,
        GlowThreshold,
        GlowAmount,
        BlurFrame
    };
    enum OutputPort
    {
        Output
    };

    static const PassDescription& description();

    BlurAndCombineRenderPass();
    ~BlurAndCombineRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    bool updateKernel(float radius);
    void drawWithThresholdShader(const bool& kernelChanged, Texture* source, Texture* target);
    void drawWithBlurOnlyShader(const bool& kernelChanged, Texture* source, Texture* target);
    void drawWithBlurAndAddShader(const bool& kernelChanged, Texture* base, Texture* blurred,
                                  Texture* target);

    std::unique_ptr<ShaderProgram> m_blurAndAddProgram;
    std::unique_ptr<ShaderProgram> m_thresholdProgram;
    float m_glowAmount = 0.0F;
    float m_glowThreshold = 0.0F;
    float m_viewportWidth = 0.0F;
    float m_viewportHeight = 0.0F;
    Uniform m_thresholdInput{"u_Input"};
    Uniform m_thresholdUniform{"glow_threshold"};
    Uniform m_blurred{"u_Blurred"};
    Uniform m_original{"u_Original"};
    Uniform m_addStepVec{"stepVec"};
    Uniform m_addWeight{"weight"};
    Uniform m_addOffset{"offset"};
    Uniform m_amountUniform{"glow_amount"};
};

} // namespace Morvane::Qel
