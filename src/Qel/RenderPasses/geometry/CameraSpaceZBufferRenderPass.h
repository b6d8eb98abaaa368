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

/// Turns a depth texture into eye-space positions, using the inverse of the projection that it was drawn
/// with.
///
/// Reads window depths from 0 to 1, with or without stencil, of the viewport's size, sampled at nearest.
/// Writes x, y and z in scene units, the camera looking along -z, and an alpha of 1; the background
/// lies on the far plane. The output is a pooled texture (RGBA32F) whose references its consumers own. Its
/// filter is nearest texel of the nearest mip level, because a blend of two positions is not a position.
///
/// All mip levels are filled. Each texel is a copy of one of the four that it covers in the next finer level,
/// chosen in a pattern that alternates from row to row and column to column (the rotated grid of M. McGuire,
/// M. Mara, D. Luebke: Scalable ambient obscurance, HPG 2012). Every texel of every level is therefore a
/// point that the camera sees. An average would lie in mid-air at silhouettes, between two surfaces or
/// between a surface and the far plane.
///
/// GL state: depth test, blending and scissor test must be off. Leaves the depth mask off and the stencil
/// test disabled. The depth texture is sampled while it is attached, which is safe because nothing writes to
/// it.
class QEL_RENDERPASSES_EXPORT CameraSpaceZBufferRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect in pixels; only the size counts.
        Viewport,
        /// Texture*: depth from 0 to 1.
        InputFrame,
        /// QMatrix4x4, eye space to clip space.
        ProjectionMatrix
    };
    enum OutputPort
    {
        /// Texture*, RGBA32F with mip levels: eye-space positions.
        Frame
    };

    static const PassDescription& description();

    CameraSpaceZBufferRenderPass();
    ~CameraSpaceZBufferRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void buildPrograms();
    void draw(Texture* depth);
    void fillLevels(Texture& positions);

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
    Uniform m_texelSize{"u_TexelSize"};
};

} // namespace Morvane::Qel
