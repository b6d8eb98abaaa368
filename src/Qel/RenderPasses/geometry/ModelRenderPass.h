#pragma once

#include <vector>

#include <Qel/RenderPasses/Export.h>
#include <Qel/RenderPasses/framework/FBOConfig.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class FramebufferObject;

/// Draws a whole model, with its instances and materials, into a material G-buffer, for a deferred pass to
/// shade (T. Saito, T. Takahashi: Comprehensible rendering of 3-D shapes, 1990).
///
/// Reads the model and the matrices; writes 32-bit float images of the diffuse colour (alpha: dissolve), the
/// specular colour (alpha: shininess, unclamped), the eye-space normal of unit length, the depth and the
/// primitive's number plus one, 0 meaning background. All are owned by the pass and are replaced when the
/// size changes.
///
/// GL state: relies on depth function, depth mask and face culling as they are; leaves the front face
/// counter-clockwise and the clear colour 0
/// and, when a model was drawn, the depth test enabled.
///
/// Framebuffer, textures and program are deliberately not deleted with the pass: a program set from outside
/// may be shared. A graph's resource scope deletes those that the pass made.
class QEL_RENDERPASSES_EXPORT ModelRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        ProjectionMatrix,
        CameraMatrix,
        Geometry
    };
    enum OutputPort
    {
        Diffuse,
        Specular,
        Normal,
        Depth,
        Id
    };

    using FBOConfig = Qel::FBOConfig;

    static const PassDescription& description();

    ModelRenderPass();
    ~ModelRenderPass() override;

    /// Draws with a program of the caller's, who keeps it: before the first start in place of the built-in
    /// one, later instead of it. It must take the same uniforms and write the same fragment outputs.
    void setShaderProgram(ShaderProgram* program);
    /// Whether fragments whose diffuse map has an alpha of 0.01 or less are discarded. Takes effect when the
    /// built-in program is built, on the first start; later changes have none.
    void setDiscardOnDiffuseAlpha(bool discard);

    void start(RenderCallbacks* callbacks) override;

private:
    void resize(int width, int height);
    void buildProgram();
    void publish();

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
