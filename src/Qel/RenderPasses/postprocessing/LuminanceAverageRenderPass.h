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

/// Averages a frame, by two box-filter draws, and reads the mean luminance back to the CPU (Rec. 709
/// weights, values taken as they are, without gamma).
///
/// Reads a colour texture, of which every texel counts once, whatever the frame's shape and whether or not
/// its size is the viewport's; writes the luminance and a 1 x 1 texture of 32-bit floats with the mean of all
/// four channels, which the pass owns. The read-back waits for the GPU once a frame.
///
/// The intermediate target is square: an eighth of the viewport's width, rounded down, in both directions. A
/// viewport narrower than 8 pixels leaves it no texels; the second draw then averages the frame itself.
///
/// Both draws go to the viewport's origin: with another one than (0, 0) they miss part of the targets, or
/// all, and the mean is that of what the targets held. Deliberate; hand in the frame's rectangle.
///
/// GL state: leaves depth test, blending, culling and stencil test disabled and the colour mask full; relies
/// on the scissor test being off.
class QEL_RENDERPASSES_EXPORT LuminanceAverageRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        SourceTexture
    };
    enum OutputPort
    {
        Frame,
        AverageLuminance
    };

    static const PassDescription& description();

    LuminanceAverageRenderPass();
    ~LuminanceAverageRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void resize(int width, int height);
    void makeFinalTarget();
    void buildProgram();
    void draw(Texture* source, FramebufferObject* target, const QRect& viewport, const QVector2D& renderSize);
    float readLuminance() const;

    QSharedPointer<DrawBuffers> m_quad;
    std::unique_ptr<ShaderProgram> m_program;
    std::unique_ptr<FramebufferObject> m_reduction;
    std::unique_ptr<FramebufferObject> m_final;
    std::unique_ptr<Texture> m_fallbackTexture;
    int m_reducedWidth = 0;
    int m_reducedHeight = 0;
    Uniform m_samplerTexture{"u_SamplerTexture"};
    Uniform m_renderSize{"u_RenderSize"};
};

} // namespace Morvane::Qel
