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

/// Blurs a frame by each pixel's distance from the plane in focus, with bokeh: circles of confusion of a thin
/// lens (M. Potmesil, I. Chakravarty: A lens and aperture camera model for synthetic image generation, 1981),
/// gathered on three rings of taps with gained highlights and fringed colours (M. Upitis: GLSL depth of field
/// with bokeh, version 2.4, 2012).
///
/// Reads a colour frame and its depth (a depth texture or red, window depth 0 to 1), which is taken as made
/// with a near plane at 0.1 m and a far plane at 100 m whatever the camera's are; writes a texture of 32-bit
/// floats that the pass owns and that stays the same object until the size changes. Alpha becomes 1, and
/// nothing is clamped: gained highlights exceed 1. The largest blur reaches 3 pixels. Pixels that are nearly
/// in focus are copied as they are, and so is the whole frame without depth, with a focal length of 0 or
/// where the lens is not defined (an f-stop or focal depth of 0).
///
/// The wrap mode of the frame is left alone: blur at the border reads what it says. GL state: relies on
/// blending and scissor test being off; leaves the depth test off.
class QEL_RENDERPASSES_EXPORT DepthOfFieldRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        Frame,
        Depth,
        FocalDepth,
        FocalLength,
        FStop,
        AutoFocus,
        Focus
    };
    enum OutputPort
    {
        OutputFrame
    };

    static const PassDescription& description();

    DepthOfFieldRenderPass();
    ~DepthOfFieldRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void resize(int width, int height);
    void buildProgram();
    void draw(Texture* frame, Texture* depth);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_screenQuad;
    std::unique_ptr<Texture> m_fallbackDepth;
    int m_width = 0;
    int m_height = 0;
    Uniform m_renderedTexture{"bgl_RenderedTexture"};
    Uniform m_depthTexture{"bgl_DepthTexture"};
    Uniform m_renderedTextureWidth{"bgl_RenderedTextureWidth"};
    Uniform m_renderedTextureHeight{"bgl_RenderedTextureHeight"};
    Uniform m_focalDepth{"focalDepth"};
    Uniform m_focalLength{"focalLength"};
    Uniform m_fstop{"fstop"};
    Uniform m_autofocus{"autofocus"};
    Uniform m_focus{"focus"};
};

} // namespace Morvane::Qel
