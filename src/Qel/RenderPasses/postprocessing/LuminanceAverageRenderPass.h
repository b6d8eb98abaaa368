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

/// Averages a frame in two box-filter draws and reads its mean luminance back to the CPU (Rec. 709 weights;
/// values are used as they are, without gamma correction).
///
/// Reads a colour texture. Every texel counts once, whatever the frame's shape and whether or not its size is
/// the viewport's. Writes the luminance and a 1 x 1 texture (RGBA32F) with the mean of all four channels,
/// owned by the pass. The read-back stalls until the GPU has finished, once per frame.
///
/// The intermediate target is square: its side is an eighth of the viewport's width, rounded down. With a
/// viewport narrower than 8 pixels it has no texels, and the second draw averages the frame itself.
///
/// Deliberate: both draws are placed at the viewport's origin. With an origin other than (0, 0) they miss
/// part of their targets, or all of them, and the mean includes old contents.
///
/// GL state: leaves depth test, blending, culling and stencil test disabled and the colour mask full;
/// requires the scissor test to be off.
class QEL_RENDERPASSES_EXPORT LuminanceAverageRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect, pixels.
        Viewport,
        /// Colour texture.
        SourceTexture
    };
    enum OutputPort
    {
        /// RGBA32F, 1 x 1, owned by the pass.
        Frame,
        /// float, in the units of the frame.
        AverageLuminance
    };

    static const PassDescription& description();

    LuminanceAverageRenderPass();
    ~LuminanceAverageRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void provideReductionTarget(int width, int height);
    void draw(Texture* source, FramebufferObject& target, const QRect& viewport, const QVector2D& renderSize);
    float readLuminance() const;

    QSharedPointer<DrawBuffers> m_quad;
    std::unique_ptr<ShaderProgram> m_program;
    std::unique_ptr<FramebufferObject> m_reduction;
    std::unique_ptr<FramebufferObject> m_final;
    int m_reducedWidth = 0;
    int m_reducedHeight = 0;
    int m_finalWidth = 0;
    int m_finalHeight = 0;
    std::unique_ptr<Texture> m_fallbackTexture;
    Uniform m_samplerTexture{"u_SamplerTexture"};
    Uniform m_renderSize{"u_RenderSize"};
};

} // namespace Morvane::Qel
