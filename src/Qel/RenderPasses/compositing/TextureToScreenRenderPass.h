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

/// Puts a texture on the screen: copies it into the default framebuffer by a blit or, with super-sampling,
/// adds up by a shader the block of texels that falls on each pixel, into the framebuffer that is bound.
///
/// Reads a colour texture; publishes nothing. The blit copies the lower left part of the texture to the lower
/// left corner of the screen and ignores the viewport's origin; the shader draws at the origin but reads from
/// the pixel's position on the screen, so that the picture shifts with it.
///
/// GL state: super-sampling leaves depth test, stencil test and blending disabled, the colour mask full and
/// the viewport set; the blit leaves framebuffer 0 bound. Without a texture the bound framebuffer is cleared.
class QEL_RENDERPASSES_EXPORT TextureToScreenRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        SourceTexture,
        EnableSuperSampling
    };

    static const PassDescription& description();

    TextureToScreenRenderPass();
    ~TextureToScreenRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void updateSuperSampling();
    void drawSuperSampled(const QRect& viewport, Texture* texture);
    void blit(const QRect& viewport, Texture* texture);
    void buildProgram();

    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    std::unique_ptr<Texture> m_fallbackTexture;
    std::unique_ptr<FramebufferObject> m_readFramebuffer;
    bool m_superSampling = false;
    Uniform m_samplerTexture{"u_SamplerTexture"};
    Uniform m_renderSize{"u_RenderSize"};
};

} // namespace Morvane::Qel
