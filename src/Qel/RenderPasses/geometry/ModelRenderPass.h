#pragma once

#include <vector>

#include <Qel/RenderPasses/Export.h>
#include <Qel/RenderPasses/framework/FBOConfig.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class FramebufferObject;

/// Draws a whole model, with its instances and materials, into a G-buffer for a deferred pass to shade
/// (T. Saito, T. Takahashi: Comprehensible rendering of 3-D shapes, 1990).
///
/// All outputs hold 32-bit floats: the diffuse colour with the dissolve as alpha, the specular colour with
/// the shininess as alpha, not clamped, the eye-space normal of unit length, the depth, and the primitive's
/// number plus one, where 0 is the background. The pass owns the textures and replaces them when the size
/// changes.
///
/// GL state: uses the depth function, depth mask and face culling in force. Blending and scissor test must be
/// off. Leaves the front face counter-clockwise, the clear colour 0 and, if a model was drawn, the depth test
/// enabled.
///
/// Deliberate: framebuffer, textures and program are not deleted with the pass, since a program set from
/// outside may be shared. A graph's resource scope deletes those that the pass made.
class QEL_RENDERPASSES_EXPORT ModelRenderPass : public RenderPassHelper
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
        /// GPUModel*.
        Geometry
    };
    enum OutputPort
    {
        /// Texture*, RGBA32F: diffuse colour and dissolve.
        Diffuse,
        /// Texture*, RGBA32F: specular colour and shininess.
        Specular,
        /// Texture*, RGB32F: eye-space normal.
        Normal,
        /// Texture*, DEPTH_COMPONENT32F: 0 near, 1 far.
        Depth,
        /// Texture*, R32F: primitive number plus one.
        Id
    };

    using FBOConfig = Qel::FBOConfig;

    static const PassDescription& description();

    ModelRenderPass();
    ~ModelRenderPass() override;

    /// Sets the program to draw with; the caller keeps ownership. If one is set before the first start, the
    /// built-in program is never built; if later, it is no longer used. The program must have the uniforms
    /// "u_ProjectionMatrix", "u_CameraMatrix" and "u_NormalMatrix" and the fragment outputs
    /// "out_Kd", "out_Ks", "out_Normal" and "out_Id".
    void setShaderProgram(ShaderProgram* program);
    /// Sets whether to discard fragments whose diffuse map has an alpha of 0.01 or less. Takes effect when
    /// the built-in program is built, on the first start; later changes have no effect.
    void setDiscardOnDiffuseAlpha(bool discard);

    void start(RenderCallbacks* callbacks) override;

private:
    void buildProgram();

    FramebufferObject* m_framebuffer = nullptr;
    ShaderProgram* m_program = nullptr;
    std::vector<FBOConfig> m_attachments;
    int m_width = 0;
    int m_height = 0;
    bool m_discardOnDiffuseAlpha = false;
    Uniform m_projectionMatrix{"u_ProjectionMatrix"};
    Uniform m_cameraMatrix{"u_CameraMatrix"};
    Uniform m_normalMatrix{"u_NormalMatrix"};
};

} // namespace Morvane::Qel
