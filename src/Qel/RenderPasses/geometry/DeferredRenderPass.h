#pragma once

#include <QSharedPointer>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class Texture;

/// Shades a G-buffer without materials with one point light at (100, 100, 100) in world space, as diffuse
/// grey (J. H. Lambert: Photometria, 1760).
///
/// Reads the normal and the depth of GBufferRenderPass and the matrices that it drew with. Writes the cosine
/// of the angle between normal and light direction as opaque grey with 8 bits a channel: black where the
/// surface faces away and on the background. Normal and depth are sampled at nearest. The pass owns the
/// texture and replaces it when the size changes.
///
/// Deliberate: the position is not that of the pixel, because the depth is read as if it ran from -1 to 1 and
/// the inverse projection is transposed. Under a perspective projection with its near plane at 0.3 or less,
/// all positions end up close to the origin, so the light comes from (1, 1, 1) everywhere. With the near
/// plane at 0.5 and a distant far plane, they are the eye-space positions scaled by 2. To get the light at
/// its documented position, pass these matrices: the identity as camera matrix and
/// transpose(D x projection x camera) as projection, where D maps depths from -1..1 to 0..1.
///
/// GL state: blending and scissor test must be off. Leaves the depth test disabled.
///
/// Deliberate: framebuffer, textures and program are not deleted with the pass. A graph's resource scope
/// deletes them.
class QEL_RENDERPASSES_EXPORT DeferredRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect in pixels; only the size counts.
        Viewport,
        /// QMatrix4x4, eye space to clip space.
        ProjectionMatrix,
        /// QMatrix4x4, world space to eye space.
        CameraMatrix,
        /// Texture*: world-space normal.
        Normal,
        /// Texture*; not used.
        TexCoord,
        /// Texture*: depth from 0 to 1.
        Depth
    };
    enum OutputPort
    {
        /// Texture*, GL_RGBA with 8 bits a channel.
        Frame
    };

    static const PassDescription& description();

    DeferredRenderPass();
    ~DeferredRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    FramebufferObject* m_framebuffer = nullptr;
    ShaderProgram* m_program = nullptr;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    Texture* m_fallback = nullptr;
    int m_width = 0;
    int m_height = 0;
    Uniform m_samplerNormal{"u_SamplerNormal"};
    Uniform m_samplerDepth{"u_SamplerDepth"};
    Uniform m_cameraMatrix{"u_CameraMatrix"};
    Uniform m_normalMatrix{"u_NormalMatrix"};
    Uniform m_invProjMatrix{"u_InvProjMatrix"};
};

} // namespace Morvane::Qel
