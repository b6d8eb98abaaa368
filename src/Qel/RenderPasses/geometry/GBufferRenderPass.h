#pragma once

#include <vector>

#include <Qel/RenderPasses/Export.h>
#include <Qel/RenderPasses/framework/FBOConfig.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class FramebufferObject;

/// Draws batches of geometry into a G-buffer without materials, for a deferred pass to shade (T. Saito,
/// T. Takahashi: Comprehensible rendering of 3-D shapes, 1990).
///
/// The geometry is one batch or a list of batches with vertices in world space; give lists as a QVariantList,
/// because other lists are converted in every frame. All outputs hold 32-bit floats: the interpolated normal,
/// not normalised, the texture coordinate, the depth, and the primitive's number in its batch plus one, where
/// 0 is the background. The pass owns the textures and replaces them when the size changes.
///
/// GL state: uses the depth function, depth mask and face culling in force, and clears to the clear colour in
/// force. Blending and scissor test must be off. Leaves the depth test enabled if there was geometry.
///
/// Deliberate: framebuffer, textures and program are not deleted with the pass, since a program set from
/// outside may be shared. A graph's resource scope deletes those that the pass made.
class QEL_RENDERPASSES_EXPORT GBufferRenderPass : public RenderPassHelper
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
        /// DrawBuffers* or a list of them, vertices in world space.
        Geometry
    };
    enum OutputPort
    {
        /// Texture*, RGB32F: world-space normal.
        Normal,
        /// Texture*, RG32F: texture coordinate.
        TexCoord,
        /// Texture*, DEPTH_COMPONENT32F: 0 near, 1 far.
        Depth,
        /// Texture*, R32F: primitive number plus one.
        Id
    };

    using FBOConfig = Qel::FBOConfig;

    static const PassDescription& description();

    GBufferRenderPass();
    ~GBufferRenderPass() override;

    /// Sets the program to draw with; the caller keeps ownership. If one is set before the first start, the
    /// built-in program is never built; if later, it is no longer used. The program must have the uniforms
    /// "u_ProjectionMatrix" and "u_CameraMatrix" and the fragment outputs "out_Normal",
    /// "out_TexCoord" and "out_Id".
    void setShaderProgram(ShaderProgram* program);

    void start(RenderCallbacks* callbacks) override;

private:
    void buildProgram();
    void drawEntry(const QVariant& entry);

    FramebufferObject* m_framebuffer = nullptr;
    ShaderProgram* m_program = nullptr;
    std::vector<FBOConfig> m_attachments;
    int m_width = 0;
    int m_height = 0;
    bool m_hasReportedEntry = false;
    Uniform m_projectionMatrix{"u_ProjectionMatrix"};
    Uniform m_cameraMatrix{"u_CameraMatrix"};
};

} // namespace Morvane::Qel
