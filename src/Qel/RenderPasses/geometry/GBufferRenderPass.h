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
/// Reads one batch or a list of them (a QVariantList; other lists are converted in every frame), whose
/// vertices are in world space, and the matrices; writes 32-bit float images of the normal as the vertices
/// have it, interpolated and not normalised, of the texture coordinate, of the depth and of the primitive's
/// number in its batch plus one, 0 meaning background. All are owned by the pass and are replaced when the
/// size changes.
///
/// GL state: relies on depth function, depth mask and face culling as they are, and clears to the clear
/// colour in force, blending and scissor test being off; leaves the depth test enabled when there was
/// geometry.
///
/// Framebuffer, textures and program are deliberately not deleted with the pass: a program set from outside
/// may be shared. A graph's resource scope deletes those that the pass made.
class QEL_RENDERPASSES_EXPORT GBufferRenderPass : public RenderPassHelper
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
        Normal,
        TexCoord,
        Depth,
        Id
    };

    using FBOConfig = Qel::FBOConfig;

    static const PassDescription& description();

    GBufferRenderPass();
    ~GBufferRenderPass() override;

    /// Draws with a program of the caller's, who keeps it: before the first start in place of the built-in
    /// one, later instead of it. It must take the same uniforms ("u_ProjectionMatrix", "u_CameraMatrix") and
    /// write the same fragment outputs ("out_Normal", "out_TexCoord", "out_Id").
    void setShaderProgram(ShaderProgram* program);

    void start(RenderCallbacks* callbacks) override;

private:
    void resize(int width, int height);
    void buildProgram();
    void drawEntry(const QVariant& entry);
    void publish();

    FramebufferObject* m_framebuffer = nullptr;
    ShaderProgram* m_program = nullptr;
    std::vector<FBOConfig> m_attachments;
    int m_width = 0;
    int m_height = 0;
    bool m_saidWhatIsNoBatch = false;
    Uniform m_projectionMatrix{"u_ProjectionMatrix"};
    Uniform m_cameraMatrix{"u_CameraMatrix"};
};

} // namespace Morvane::Qel
