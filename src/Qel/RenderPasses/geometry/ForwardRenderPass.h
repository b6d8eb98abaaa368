#pragma once

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class FramebufferObject;

/// Draws a whole model in one pass, lit by one directional light from (1, 1, 1) in eye space, with the
/// Blinn-Phong model (J. F. Blinn: Models of light reflection for computer synthesized pictures, 1977).
///
/// Writes the lit colour, with the material's dissolve as alpha (stored, not blended; 0 where nothing was
/// drawn), and an image of primitive numbers plus one, where 0 is the background. Both have the driver's
/// default precision for GL_RGBA, usually 8 bits, which clamps every Id to 1. The pass owns both textures
/// and replaces them when the size changes.
///
/// GL state: uses the depth function, depth mask and face culling in force. Blending and scissor test must be
/// off. Leaves the front face counter-clockwise and the clear colour 0.
///
/// Deliberate: framebuffer, textures and program are not deleted with the pass, since a program set from
/// outside may be shared. A graph's resource scope deletes those that the pass made.
class QEL_RENDERPASSES_EXPORT ForwardRenderPass : public RenderPassHelper
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
        /// Texture*, GL_RGBA: the lit colour.
        Frame,
        /// Texture*, GL_RGBA: primitive number plus one.
        Id
    };

    static const PassDescription& description();

    ForwardRenderPass();
    ~ForwardRenderPass() override;

    /// Sets the program to draw with; the caller keeps ownership. If one is set before the first start, the
    /// built-in program is never built; if later, it is no longer used. The program must have the uniforms
    /// "u_ProjectionMatrix" and "u_CameraMatrix" and the fragment outputs "out_FragColor" and
    /// "out_Id".
    void setShaderProgram(ShaderProgram* program);

    void start(RenderCallbacks* callbacks) override;

private:
    FramebufferObject* m_framebuffer = nullptr;
    ShaderProgram* m_program = nullptr;
    int m_width = 0;
    int m_height = 0;
    Uniform m_projectionMatrix{"u_ProjectionMatrix"};
    Uniform m_cameraMatrix{"u_CameraMatrix"};
};

} // namespace Morvane::Qel
