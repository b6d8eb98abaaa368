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

/// Blurs each pixel of a frame according to its distance from the focal plane, with bokeh highlights.
///
/// The circle of confusion is that of a thin lens (M. Potmesil, I. Chakravarty: A lens and aperture camera
/// model for synthetic image generation, 1981); it is gathered on three rings of taps, with highlight gain
/// and chromatic fringing (M. Upitis: GLSL depth of field with bokeh, version 2.4, 2012).
///
/// Reads a colour frame, sampled with linear filters and clamped to its edge, and its depth (a depth texture,
/// or the red channel; window depth 0 to 1). Depth is interpreted with a near plane at 0.1 m and a far plane
/// at 100 m, whatever the camera's are. Writes a texture (RGBA32F) that the pass owns and replaces only when
/// the size changes. Alpha is 1, and nothing is clamped: highlights with gain exceed 1.
///
/// The largest blur radius is 3 pixels. Pixels that are nearly in focus are copied unchanged, and so is the
/// whole frame without depth, with a focal length of 0, or if the lens is undefined (an f-stop or focal depth
/// of 0).
///
/// GL state: requires blending and scissor test to be off; leaves the depth test disabled.
class QEL_RENDERPASSES_EXPORT DepthOfFieldRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect, pixels.
        Viewport,
        /// Colour texture.
        Frame,
        /// Window depth, 0 to 1.
        Depth,
        /// float, metres.
        FocalDepth,
        /// float, millimetres.
        FocalLength,
        /// float, focal length over aperture.
        FStop,
        /// bool.
        AutoFocus,
        /// QVector2D, texture coordinates.
        Focus
    };
    enum OutputPort
    {
        /// RGBA32F, opaque, owned by the pass.
        OutputFrame
    };

    static const PassDescription& description();

    DepthOfFieldRenderPass();
    ~DepthOfFieldRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_screenQuad;
    int m_width = 0;
    int m_height = 0;
    std::unique_ptr<Texture> m_fallbackDepth;
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
