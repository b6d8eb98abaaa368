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

/// Copies a texture to the screen: blits it to the default framebuffer or, with super-sampling, draws the sum
/// of the texels that each pixel covers into the bound framebuffer.
///
/// Reads a colour texture; publishes nothing. The blit copies the lower left part of the texture to the lower
/// left corner of the screen and ignores the viewport's origin. The shader draws at the origin but fetches
/// from the pixel's position on the screen, so the image shifts with the origin. The size of
/// the block of texels that a pixel covers is the texture's size over the viewport's, rounded, and at least
/// 1; a square block of n * n yields the sum of its texels, not their mean.
///
/// GL state: super-sampling leaves depth test, stencil test and blending disabled, the colour mask full and
/// the viewport set; the blit leaves framebuffer 0 bound. Without a texture the bound framebuffer is cleared.
class QEL_RENDERPASSES_EXPORT TextureToScreenRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect, pixels.
        Viewport,
        /// Colour texture of a fixed-point or float format.
        SourceTexture,
        /// bool.
        EnableSuperSampling
    };

    static const PassDescription& description();

    TextureToScreenRenderPass();
    ~TextureToScreenRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void updateSuperSampling();
    void drawSuperSampled(const QRect& viewport, Texture* texture);
    void blit(int width, int height, Texture& texture);

    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    std::unique_ptr<Texture> m_fallbackTexture;
    std::unique_ptr<FramebufferObject> m_readFramebuffer;
    bool m_superSampling = false;
    Uniform m_samplerTexture{"u_SamplerTexture"};
    Uniform m_renderSize{"u_RenderSize"};
};

} // namespace Morvane::Qel
