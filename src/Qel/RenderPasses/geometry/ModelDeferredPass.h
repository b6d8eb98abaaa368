#pragma once

#include <QSharedPointer>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class Texture;

/// Shades the G-buffer of ModelRenderPass with one directional light from (1, 1, 1) in eye space, with the
/// Blinn-Phong model (J. F. Blinn: Models of light reflection for computer synthesized pictures, 1977). The
/// result is that of ForwardRenderPass, except that normals have unit length.
///
/// Writes the lit colour in 8 bits, clamped, with the dissolve as alpha. The inputs are sampled at nearest.
/// The pass owns the texture and replaces it when the size changes. Matrices and depth are not read,
/// but a missing depth has an effect: from then on transparent black replaces other missing textures, which
/// until then read as opaque black.
///
/// GL state: blending and scissor test must be off. Leaves the depth test disabled.
///
/// Deliberate: framebuffer, textures and program are not deleted with the pass. A graph's resource scope
/// deletes them.
class QEL_RENDERPASSES_EXPORT ModelDeferredPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect in pixels; only the size counts.
        Viewport,
        /// QMatrix4x4; not used.
        ProjectionMatrix,
        /// QMatrix4x4; not used.
        CameraMatrix,
        /// Texture*: diffuse colour and dissolve.
        Diffuse,
        /// Texture*: specular colour and shininess.
        Specular,
        /// Texture*: eye-space normal.
        Normal,
        /// Texture*; not read.
        Depth
    };
    enum OutputPort
    {
        /// Texture*, GL_RGBA with 8 bits a channel.
        Frame
    };

    static const PassDescription& description();

    ModelDeferredPass();
    ~ModelDeferredPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    FramebufferObject* m_framebuffer = nullptr;
    ShaderProgram* m_program = nullptr;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    Texture* m_fallback = nullptr;
    int m_width = 0;
    int m_height = 0;
    Uniform m_samplerDiffuse{"u_SamplerDiffuse"};
    Uniform m_samplerSpecular{"u_SamplerSpecular"};
    Uniform m_samplerNormal{"u_SamplerNormal"};
};

} // namespace Morvane::Qel
