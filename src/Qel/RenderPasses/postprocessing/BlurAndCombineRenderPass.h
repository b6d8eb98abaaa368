#pragma once

#include <Qel/RenderPasses/postprocessing/BlurBaseRenderPass.h>

namespace Morvane::Qel {

/// Adds glow to a frame: selects the bright texels of the blur frame, blurs them horizontally and vertically,
/// and adds the scaled result to the normal frame.
///
/// Reads two colour textures, clamped to their edges: texel by texel where their size is the viewport's, with
/// linear filters otherwise and for the taps of the blur. Writes a pooled texture (RGBA16F) of the viewport's
/// size, whose consumers own its references. All four channels are added, and nothing is clamped. A radius or
/// an amount of 0 or less publishes the normal frame itself.
///
/// The horizontal draw copies texels of the blur frame with an alpha of 0 unchanged; the vertical draw blurs
/// them. A threshold makes all darker texels transparent, so the glow then spreads only vertically. To make
/// it spread in all directions, set no threshold and pass a blur frame that is black, but not transparent,
/// outside its bright areas.
///
/// The threshold reaches the shader only together with a new radius: changed alone, it takes effect with the
/// next change of the radius, except that crossing 0 turns the selection of bright texels on or off.
///
/// GL state: requires blending and scissor test to be off; leaves depth test and depth writes disabled.
class QEL_RENDERPASSES_EXPORT BlurAndCombineRenderPass : public BlurBaseRenderPass
{
public:
    enum InputPort
    {
        /// QRect, pixels.
        Viewport,
        /// Colour texture, premultiplied alpha.
        NormalFrame,
        /// float, texels.
        BlurRadius,
        /// float, luma.
        GlowThreshold,
        /// float, a factor.
        GlowAmount,
        /// Colour texture, premultiplied alpha.
        BlurFrame
    };
    enum OutputPort
    {
        /// RGBA16F, pooled, or the normal frame.
        Output
    };

    static const PassDescription& description();

    BlurAndCombineRenderPass();
    ~BlurAndCombineRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    /// Rebuilds the programs as provideKernel does. Returns whether the radius has changed.
    bool providePrograms(float radius, BlurredInput input);
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
