#pragma once

#include <memory>

#include <Qel/RenderPasses/framework/PassFrame.h>

/// Draws contour lines over a frame, where the depth jumps and where surfaces bend (T. Saito, T. Takahashi:
/// Comprehensible rendering of 3-D shapes, 1990).
///
/// Depth and normals are those of a G-buffer of the same view. A perspective depth buffer is linear in screen
/// space on every plane, so its second difference is 0 there, however steep the plane is seen, and large at
/// silhouettes and folds. It is compared relative to 1 - depth, which is nearly proportional to 1 / distance,
/// so that near and far objects get the same lines.
///
/// Alpha of the frame is kept, and 1 on lines. The output is a pooled texture (RGBA8) of the viewport's size
/// whose references its consumers own. Blending must be off.
class ContourRenderPass : public Morvane::Qel::RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect in pixels; only the size counts.
        Viewport,
        /// Texture*, the colours to draw over.
        Frame,
        /// Texture*, normals.
        Normal,
        /// Texture*, depth from 0 to 1.
        Depth,
        /// QColor.
        LineColor,
        /// float, half the width of a line in pixels, above 0.
        LineRadius,
        /// float in degrees, 0 to 180.
        CreaseAngle
    };
    enum OutputPort
    {
        /// Texture*, RGBA8.
        Result
    };

    static const Morvane::Qel::PassDescription& description();

    ContourRenderPass();
    ~ContourRenderPass() override;

    void start(Morvane::Qel::RenderCallbacks* callbacks) override;

private:
    std::unique_ptr<Morvane::Qel::FramebufferObject> m_framebuffer;
    std::unique_ptr<Morvane::Qel::ShaderProgram> m_program;
    QSharedPointer<Morvane::Qel::DrawBuffers> m_batch;
    std::unique_ptr<Morvane::Qel::Texture> m_transparent;

    using Uniform = Morvane::Qel::Uniform;
    Uniform m_frame{"u_Frame"};
    Uniform m_normal{"u_Normal"};
    Uniform m_depth{"u_Depth"};
    Uniform m_color{"u_LineColor"};
    Uniform m_step{"u_Step"};
    Uniform m_creaseCosine{"u_CreaseCosine"};
};
