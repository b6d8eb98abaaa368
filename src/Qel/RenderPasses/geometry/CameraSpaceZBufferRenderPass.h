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

/// Turns a depth image into an image of eye-space positions, by the inverse of the projection that made it.
///
/// Reads a depth texture, with or without stencil, of the viewport's size, whose values 0 to 1 are window
/// depth. Writes x, y, z in the units of the scene, the camera looking along -z, and an alpha of 1;
/// background lies on the far plane. The output is a pooled texture (RGBA, 32-bit floats) whose references
/// its consumers own, sampled at the nearest texel of the nearest level: a blend of two positions is no
/// position.
///
/// All mip levels are filled. A texel is one of the four below it, in a pattern that alternates from row to
/// row and column to column (the rotated grid of M. McGuire, M. Mara, D. Luebke: Scalable ambient obscurance,
/// HPG 2012). Their mean would lie in mid-air at a silhouette, between two surfaces or between a surface and
/// the far plane; so every texel of every level is a point that the camera sees, and background stays
/// background.
///
/// GL state: relies on depth test, blending and scissor test being off; leaves depth mask and stencil test
/// off. The depth texture is sampled while it is attached, which is safe as nothing writes to it.
class QEL_RENDERPASSES_EXPORT CameraSpaceZBufferRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        InputFrame,
        ProjectionMatrix
    };
    enum OutputPort
    {
        Frame
    };

    static const PassDescription& description();

    CameraSpaceZBufferRenderPass();
    ~CameraSpaceZBufferRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void buildPrograms();
    void draw(Texture* depth);
    void fillLevels(Texture* positions);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    int m_width = 0;
    int m_height = 0;
    std::unique_ptr<FramebufferObject> m_levelFramebuffer;
    std::unique_ptr<ShaderProgram> m_levelProgram;
    Uniform m_samplerDepth{"u_SamplerDepth"};
    Uniform m_invProjMatrix{"u_InvProjMatrix"};
    Uniform m_positions{"u_Positions"};
    Uniform m_finerLevel{"u_FinerLevel"};
};

} // namespace Morvane::Qel
