#pragma once

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class FramebufferObject;

/// Draws a whole model in one pass, lit by one directional light that stands still relative to the camera, by
/// the Blinn-Phong model (J. F. Blinn: Models of light reflection for computer synthesized pictures, 1977).
///
/// Reads the model and the matrices; writes the lit colours, whose alpha is the material's dissolve (stored,
/// not blended; 0 where nothing was drawn), and an image of primitive numbers plus one, 0 meaning background.
/// Both are of the driver's default precision for GL_RGBA, which as a rule is 8 bits and clamps Ids to 1.
/// Both are owned by the pass and are replaced when the size changes.
///
/// GL state: relies on depth function, depth mask and face culling as they are; leaves the front face
/// counter-clockwise and the clear colour 0.
///
/// Framebuffer, textures and program are deliberately not deleted with the pass: a program set from outside
/// may be shared. A graph's resource scope deletes those that the pass made.
class QEL_RENDERPASSES_EXPORT ForwardRenderPass : public RenderPassHelper
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
        Frame,
        Id
    };

    static const PassDescription& description();

    ForwardRenderPass();
    ~ForwardRenderPass() override;

    /// Draws with a program of the caller's, who keeps it: before the first start in place of the built-in
    /// one, later instead of it. It must take the same uniforms ("u_ProjectionMatrix", "u_CameraMatrix") and
    /// write the same fragment outputs ("out_FragColor", "out_Id").
    void setShaderProgram(ShaderProgram* program);

    void start(RenderCallbacks* callbacks) override;

private:
    void resize(int width, int height);
    void buildProgram();

    FramebufferObject* m_framebuffer = nullptr;
    ShaderProgram* m_program = nullptr;
    int m_width = 0;
    int m_height = 0;
    Uniform m_projectionMatrix{"u_ProjectionMatrix"};
    Uniform m_cameraMatrix{"u_CameraMatrix"};
};

} // namespace Morvane::Qel
