#pragma once

#include <QSharedPointer>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class Texture;

/// Shades a G-buffer without materials by one point light at (100, 100, 100), as diffuse grey (J. H. Lambert:
/// Photometria, 1760).
///
/// Reads the normal and the depth of GBufferRenderPass and the matrices it was drawn with; writes the cosine
/// between normal and light as an opaque grey of 8 bits, black where the surface faces away and where there
/// is none. The texture is owned by the pass and is replaced when the size changes.
///
/// The cosine is that of another place than the pixel shows, on purpose: the depth is taken for one from -1
/// to 1, and the inverse projection is transposed. Under a perspective projection with its near plane at 0.3
/// or less, all places end up close to the origin, so that the light comes from (1, 1, 1) everywhere; with it
/// at 0.5 and the far plane far away, they end up at twice the eye-space coordinates of what the pixel shows.
/// Who wants the light where it is said to be gives this pass matrices of its own: the identity as camera
/// matrix and transpose(D x projection x camera) as projection, D taking depths from -1..1 to 0..1.
///
/// GL state: relies on blending and scissor test being off; leaves the depth test disabled.
///
/// Framebuffer, textures and program are deliberately not deleted with the pass. A graph's resource scope
/// deletes them.
class QEL_RENDERPASSES_EXPORT DeferredRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        ProjectionMatrix,
        CameraMatrix,
        Normal,
        TexCoord,
        Depth
    };
    enum OutputPort
    {
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
