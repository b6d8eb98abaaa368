#pragma once

#include <QSharedPointer>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;

/// Fills a texture of the viewport's size with a vertical gradient from the bottom colour to the top colour,
/// or with the top colour alone if there is no bottom colour.
///
/// Reads two colours (0 to 255 per channel, straight alpha). Writes a texture (RGBA32F) that the pass owns
/// and replaces only when the size changes. The solid fill is opaque whatever the top colour's alpha; the
/// gradient interpolates alpha too.
///
/// Sets the error code 0xFFFFFFFF after a GL error in the solid fill or a failed draw, and never resets it.
/// GL state: leaves depth test, stencil test, blending and culling disabled and the colour mask full. A solid
/// fill also leaves the scissor test disabled and the clear colour at the fill colour.
class QEL_RENDERPASSES_EXPORT GradientRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect, pixels.
        Viewport,
        /// QColor, straight alpha.
        ColorTop,
        /// QColor, straight alpha.
        ColorBottom
    };
    enum OutputPort
    {
        /// RGBA32F, straight alpha, owned by the pass.
        Frame
    };

    static const PassDescription& description();

    GradientRenderPass();
    ~GradientRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void fill(const QColor& color);
    void drawGradient(const QColor& top, const QColor& bottom);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    int m_width = 0;
    int m_height = 0;
    Uniform m_colorTop{"u_ColorTop"};
    Uniform m_colorBottom{"u_ColorBottom"};
};

} // namespace Morvane::Qel
