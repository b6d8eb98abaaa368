#pragma once

#include <QSharedPointer>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class Texture;

/// Estimates how much of the ambient light reaches each pixel: what lies close in front of a surface takes
/// light from it, so that corners, creases and contacts darken (M. McGuire, M. Mara, D. Luebke: Scalable
/// ambient obscurance, High Performance Graphics 2012). Taps on a spiral, turned from pixel to pixel, look
/// for such occluders within a radius in the units of the scene.
///
/// Reads positions either out of a depth texture (0 to 1; 1 is background), for a perspective projection, or
/// from a texture of eye-space positions with mip levels, as CameraSpaceZBufferRenderPass makes it, through
/// the filters that are set on it. An orthographic projection needs the latter; the spiral shrinks with the
/// distance all the same, so that far away it looks no further than a part of the radius. Normals come from a
/// texture, or without one from neighbouring positions, which makes curved surfaces faceted and silhouettes a
/// pixel rough.
///
/// Writes the visibility A as (A, A, A, 1), 1 being unoccluded and background, into a pooled texture (RGBA,
/// 16-bit floats) of the viewport's size over the divider, whose references its consumers own. It is as noisy
/// as its few taps make it: the published method ends with a blur that keeps edges, which is left to the
/// graph.
///
/// The depth texture must have the size of the result: its texels are looked up by the result's pixels, also
/// with a divider. Taps beyond its border read the border. Positions and normals may have any size.
///
/// GL state: relies on blending and scissor test being off; leaves depth mask, stencil test and stencil mask
/// off, the stencil function at "equal to 1" and the clear colour at 0. The depth texture is attached while
/// it is sampled, which is safe as nothing writes to it.
class QEL_RENDERPASSES_EXPORT ScalableAmbientObscuranceRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        ProjectionMatrix,
        CameraMatrix,
        NearPlane,
        FarPlane,
        Depth,
        SAORadius,
        SAOBias,
        SAOIntensity,
        CameraSpacePosition,
        Normal,
        SaoNumSamples,
        SaoNumLogMaxOffset,
        SaoNumSpiralTurns,
        ResolutionDivider
    };
    enum OutputPort
    {
        Frame
    };

    /// What the normal texture holds. The names are those of the shader's defines.
    enum NormalProcessing
    {
        /// World-space normals.
        NORMAL_TRANSPOSE_INVERT = 0,
        /// Eye-space normals; those with a negative z are turned around. A perspective projection also shows
        /// surfaces that face the camera with such a normal, such as a floor under a camera that looks up:
        /// for pictures that have them, use NORMAL_TRANSPOSE_INVERT with an identity as the camera matrix.
        NORMAL_SCREENSPACE = 1,
        /// Nothing: normals are calculated. Set beside a normal texture, the program fails to build.
        NORMAL_CALCULATE = 2
    };

    static const PassDescription& description();

    ScalableAmbientObscuranceRenderPass();
    ~ScalableAmbientObscuranceRenderPass() override;

    /// Takes effect when the program is built, on the first start; a later call is reported and has none.
    /// Normals are calculated, whatever was set, when that start finds no normal texture.
    void setNormalProcessing(NormalProcessing processing);

    void start(RenderCallbacks* callbacks) override;

private:
    void buildProgram(bool hasNormals);
    void clearTarget();
    void draw(Texture* depth, Texture* positions, Texture* normals);
    void setUniforms(Texture* depth, Texture* positions, Texture* normals);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_shaderProgram;
    QSharedPointer<DrawBuffers> m_fullScreenQuad;
    int m_width = 0;
    int m_height = 0;
    NormalProcessing m_normalProcessing = NORMAL_TRANSPOSE_INVERT;
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
    Uniform m_coarsestLevel{"u_CoarsestLevel"};
};

} // namespace Morvane::Qel
