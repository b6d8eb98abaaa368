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
enum class Sampling;

/// Fills the background of a frame with an environment: a cube map or, without one, a latitude-longitude
/// image.
///
/// Draws into the frame itself wherever its stencil is 0, and publishes it again. The environment is
/// infinitely far away: it is looked up by the world-space view direction of the pixel, so the position of
/// the camera does not matter. All four channels are written as the environment holds them, without blending.
/// Cube maps follow GL's convention, in which faces are seen from outside: images not made for it appear
/// mirrored. Latitude-longitude images have -z in the centre and +x a quarter of the width to the right; they
/// are minified linearly without mip levels, repeated horizontally and clamped vertically, whatever is set on
/// them.
///
/// If frame or depth is missing, pooled textures are used (RGBA16F cleared to opaque black; depth 1,
/// stencil 0). The consumers of the output own the frame's references.
///
/// Directions are interpolated from unit vectors at the corners of the screen. That is exact for projections
/// that are symmetric about the view axis, and approximate for others: with a field of view of 60 degrees at
/// 16:9, a projection that is off-centre by a twentieth of the width rotates the environment by up to 1.5
/// degrees relative to the scene, and a jitter of half a pixel by a fifth of a pixel.
///
/// GL state: leaves depth and stencil test disabled and the stencil mask 0.
class QEL_RENDERPASSES_EXPORT SkyboxRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect, pixels.
        Viewport,
        /// QMatrix4x4, eye space to clip space.
        ProjectionMatrix,
        /// QMatrix4x4, world space to eye space.
        CameraMatrix,
        /// GL_TEXTURE_CUBE_MAP.
        Cubemap,
        /// GL_TEXTURE_2D.
        LatLongMap,
        /// Colour texture, drawn into.
        InputFrame,
        /// Depth-stencil texture of the frame's size. Without a stencil, the environment replaces the whole
        /// frame, and a notice says so once; a colour texture counts as missing.
        Depth
    };
    enum OutputPort
    {
        /// The input frame, or a pooled RGBA16F.
        Frame
    };

    static const PassDescription& description();

    SkyboxRenderPass();
    ~SkyboxRenderPass() override;

    void setup(RenderCallbacks* callbacks) override;
    void start(RenderCallbacks* callbacks) override;
    void teardown(RenderCallbacks* callbacks) override;

private:
    Texture* usableDepth(Texture* depth);
    void clearNewTargets(bool newFrame, bool newDepth);
    void drawEnvironment(ShaderProgram& program, Texture* environment, Sampling sampling);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_cubeProgram;
    std::unique_ptr<ShaderProgram> m_latLongProgram;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    int m_width = 0;
    int m_height = 0;
    bool m_hasReportedDepth = false;
    Uniform m_envTexture{"u_EnvTexture"};
    Uniform m_invCameraMatrix{"u_InvCameraMatrix"};
    Uniform m_ndcCoordToDirection{"u_NDCCoordToDirection"};
};

} // namespace Morvane::Qel
