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

/// Fills the background of a picture with an environment: a cube map or, where there is none, an image in
/// latitude and longitude.
///
/// Reads the frame and its depth-stencil texture, the matrices and the environment; draws into the frame
/// itself wherever the stencil is 0 and publishes it again. The environment is infinitely far away: it is
/// looked up by the direction in world space in which a pixel lies, so the camera's place does not matter.
/// Colours, alpha included, are written as the environment holds them, not blended. Cube maps are sampled as
/// GL defines them, whose faces are pictures seen from outside: from inside, writing on a face that was not
/// made for this reads mirrored. Images in latitude and longitude have -z in the middle, +x a quarter to the
/// right, and repeat around the vertical axis.
///
/// Where frame or depth are missing, pooled textures (RGBA16F, cleared to opaque black; depth 1, stencil 0)
/// stand in; the frame's consumers own its references.
///
/// Directions are interpolated from unit vectors at the corners of the screen. That is exact for projections
/// that are symmetric about the view axis. For others it is not: a shift of a twentieth of the width turns
/// the environment by up to 1.5 degrees against the scene (60 degrees of view, 16:9), half a pixel's jitter
/// by a fifth of a pixel.
///
/// GL state: leaves the depth and the stencil test disabled and the stencil mask 0; the environment in
/// latitude and longitude keeps the wrap modes and the filter that are set on it.
class QEL_RENDERPASSES_EXPORT SkyboxRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        ProjectionMatrix,
        CameraMatrix,
        Cubemap,
        LatLongMap,
        InputFrame,
        Depth
    };
    enum OutputPort
    {
        Frame
    };

    static const PassDescription& description();

    SkyboxRenderPass();
    ~SkyboxRenderPass() override;

    void setup(RenderCallbacks* callbacks) override;
    void start(RenderCallbacks* callbacks) override;
    void teardown(RenderCallbacks* callbacks) override;

private:
    void clearNewTargets(bool newFrame, bool newDepth);
    void drawEnvironment(ShaderProgram* program, Texture* environment);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_cubeProgram;
    std::unique_ptr<ShaderProgram> m_latLongProgram;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    int m_width = 0;
    int m_height = 0;
    Uniform m_envTexture{"u_EnvTexture"};
    Uniform m_invCameraMatrix{"u_InvCameraMatrix"};
    Uniform m_ndcCoordToDirection{"u_NDCCoordToDirection"};
};

} // namespace Morvane::Qel
