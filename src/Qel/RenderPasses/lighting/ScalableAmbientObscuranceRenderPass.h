#pragma once

#include <QSharedPointer>
#include <QSize>

#include <array>
#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class Texture;

/// Estimates ambient visibility: surfaces close in front of a pixel block ambient light, so corners, creases
/// and contacts darken (M. McGuire, M. Mara, D. Luebke: Scalable ambient obscurance, High Performance
/// Graphics 2012). Each pixel looks for occluders with a few taps on a spiral, which is rotated from pixel to
/// pixel.
///
/// Positions are either reconstructed from the depth texture, which needs a perspective projection, or read
/// from a texture of eye-space positions with mip levels, such as the output of CameraSpaceZBufferRenderPass.
/// An orthographic projection needs the position texture; the spiral still shrinks with distance, so far
/// surfaces are searched within less than the radius. Normals come from a texture or, without one, from
/// neighbouring positions, which makes curved surfaces look faceted and silhouettes one pixel rough.
///
/// The output is a pooled texture (RGBA, 16-bit floats) of the viewport's size divided by the divider. It
/// holds the visibility A as (A, A, A, 1); 1 is unoccluded, as is the background. It is noisy, because the
/// taps are few: the published method ends with an edge-preserving blur, which is left to the graph.
///
/// The depth texture must have the size of the output, also with a divider, because its texels are addressed
/// by the output's pixels. Position and normal textures may have any size. All inputs are read at their
/// nearest texel and clamped to the edge; taps beyond the border of the frame read the border.
///
/// GL state: expects blending and the scissor test to be disabled; leaves the depth mask, the stencil test
/// and the stencil mask off, the stencil function at GL_EQUAL with reference 1, and the clear colour at 0.
/// The depth texture is attached while it is sampled, which is safe because nothing writes to it.
class QEL_RENDERPASSES_EXPORT ScalableAmbientObscuranceRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect in pixels.
        Viewport,
        /// QMatrix4x4, eye space to clip space.
        ProjectionMatrix,
        /// QMatrix4x4, world space to eye space.
        CameraMatrix,
        /// float, distance in scene units.
        NearPlane,
        /// float, distance in scene units.
        FarPlane,
        /// Depth texture, 0 to 1.
        Depth,
        /// float, scene units.
        SAORadius,
        /// float, scene units.
        SAOBias,
        /// float, factor.
        SAOIntensity,
        /// Texture of eye-space positions in scene units, with mip levels.
        CameraSpacePosition,
        /// Texture of normals, see NormalProcessing.
        Normal,
        /// float, rounded down to a whole number of taps.
        SaoNumSamples,
        /// float, truncated to a number of mip levels.
        SaoNumLogMaxOffset,
        /// float, rounded down to whole turns.
        SaoNumSpiralTurns,
        /// float, divides the viewport's size.
        ResolutionDivider
    };
    enum OutputPort
    {
        /// Visibility 0 to 1 in red, green and blue; RGBA16F from the pool.
        Frame
    };

    /// What the normal texture holds. The enumerators are also the names of the shader's defines.
    enum NormalProcessing
    {
        /// World-space normals.
        NORMAL_TRANSPOSE_INVERT = 0,
        /// Eye-space normals; those with a negative z are flipped. In a perspective view a visible surface
        /// can have such a normal, for example the floor under a camera that looks up. For such scenes use
        /// NORMAL_TRANSPOSE_INVERT with the identity as camera matrix.
        NORMAL_SCREENSPACE = 1,
        /// No normals: they are computed from positions. If a normal texture is connected all the same, the
        /// program fails to build.
        NORMAL_CALCULATE = 2
    };

    static const PassDescription& description();

    ScalableAmbientObscuranceRenderPass();
    ~ScalableAmbientObscuranceRenderPass() override;

    /// Chooses how normals are read. Takes effect when the first start builds the program; a later call logs
    /// an error and has no effect. If that first start finds no normal texture, normals are computed from
    /// positions whatever was set.
    void setNormalProcessing(NormalProcessing processing);

    void start(RenderCallbacks* callbacks) override;

private:
    void updateSize();
    void fixNormalProcessing(bool hasNormals);
    ShaderProgram& provideProgram(bool isDepth, bool readsLevels);
    void clearTarget();
    void draw(ShaderProgram& program, Texture* depth, Texture* positions, Texture* normals, bool readsLevels);
    bool readsCoarseLevels() const;
    void setUniforms(ShaderProgram& program, const QSize& depthSize, bool hasPositions);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::array<std::unique_ptr<ShaderProgram>, 4> m_programs;
    QSharedPointer<DrawBuffers> m_fullScreenQuad;
    int m_width = 0;
    int m_height = 0;
    NormalProcessing m_normalProcessing = NORMAL_TRANSPOSE_INVERT;
    bool m_isNormalProcessingFixed = false;
    GLSLMacroProcessor m_macroProcessor;
    Uniform m_positionSampler{"CS_Z_buffer"};
    Uniform m_normalSampler{"u_Normals"};
    Uniform m_camera{"u_Camera"};
    Uniform m_projScale{"projScale"};
    Uniform m_radius{"radius"};
    Uniform m_radius2{"radius2"};
    Uniform m_invRadius2{"invRadius2"};
    Uniform m_bias{"bias"};
    Uniform m_intensity{"intensity"};
    Uniform m_clipInfo{"u_ClipInfo"};
    Uniform m_projInfo{"u_ProjInfo"};
    Uniform m_calculatePosition{"u_CalculateCSPosition"};
    Uniform m_numSamples{"u_NumSamples"};
    Uniform m_logMaxOffset{"u_LogMaxOffset"};
    Uniform m_numSpiralTurns{"u_NumSpiralTurns"};
    Uniform m_tapTangent{"u_TapTangent"};
    Uniform m_depthSize{"u_DepthSize"};
};

} // namespace Morvane::Qel
