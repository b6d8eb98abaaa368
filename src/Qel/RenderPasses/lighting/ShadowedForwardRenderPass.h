#pragma once

#include <array>
#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/model/ShadowMapManager.h>

namespace Morvane::Qel {

class BufferObject;
class FramebufferObject;
class GPUModel;
class Texture;

/// Draws a model with shadows, lit by the lights of a shadow map record and by ambient light, with the
/// Blinn-Phong model (J. F. Blinn: Models of light reflection for computer synthesized pictures, 1977).
///
/// The record is the output of ShadowMapRenderPass, with lights of all types and any number of cascades. The
/// fraction of a light that arrives is an upper bound, computed from the mean and the mean square of the
/// depths in its map by Chebyshev's inequality (W. Donnelly, A. Lauritzen: Variance shadow maps, 2006). Low
/// fractions are cut off to reduce light bleeding (A. Lauritzen: Summed-area variance shadow maps, GPU Gems
/// 3, 2007). The edges of shadows are as soft as the blur of the maps, a few of their texels. Each cascade of
/// a directional light fades into the next one.
///
/// Light of spot and point lights falls off with the square of the distance, and smoothly to 0 at the light's
/// range. The outer fifth of a spot light's cone, by the cosine of the angle, fades out. A light that has no
/// map casts no shadow. Of more than maxLights lights, the first ones are used and a message is logged.
///
/// Colours in textures and in the output are sRGB, approximated by a gamma of 2.2; a radiance x is
/// tone-mapped to 1 - exp(-x). Texels of diffuse maps with an alpha below one half are discarded; all else is
/// opaque: the material's dissolve is ignored. Both sides of a surface are lit. Alpha is 1 where something
/// was drawn, otherwise 0. The output is a pooled texture (RGBA8) whose references its consumers own.
///
/// GL state: expects depth function GL_LESS, the depth mask and a full colour mask on, and blending, face
/// culling, scissor and stencil test disabled. Leaves the front face counter-clockwise and the clear colour
/// 0.
class QEL_RENDERPASSES_EXPORT ShadowedForwardRenderPass : public RenderPassHelper
{
public:
    /// Largest number of lights in use. The block with this many and the block of the maps' transforms fit
    /// the 16 KiB that every driver allows.
    static constexpr int maxLights = 128;

    enum InputPort
    {
        /// QRect in pixels; only the size counts.
        Viewport,
        /// QMatrix4x4, eye space to clip space.
        ProjectionMatrix,
        /// QMatrix4x4, world space to eye space.
        CameraMatrix,
        /// GPUModel*.
        Geometry,
        /// ShadowMapManager::RenderData*.
        ShadowMapData,
        /// float, 0 or more.
        Ambient,
        /// float, 0 to 0.99.
        LightBleedingReduction
    };
    enum OutputPort
    {
        /// Texture*, RGBA8.
        Frame
    };

    static const PassDescription& description();

    ShadowedForwardRenderPass();
    ~ShadowedForwardRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    using Vec4 = std::array<float, 4>;
    /// The std140 layout of a light in the uniform block.
    struct LightBlock
    {
        /// w: type.
        Vec4 color;
        /// w: range.
        Vec4 position;
        /// w: cosine of half the opening angle.
        Vec4 direction;
        /// First layer, number of layers, unused, unused.
        Vec4 layers;

        bool operator==(const LightBlock&) const = default;
    };
    /// The std140 layout of the uniform block ShadowedLights.
    struct LightsBlock
    {
        std::array<LightBlock, maxLights> lights;
        /// Of each layer, four to a vector.
        std::array<float, ShadowMapManager::maxLayers> cascadeEnds;

        bool operator==(const LightsBlock&) const = default;
    };
    /// The std140 layout of the uniform block ShadowTransforms: column-major, one for each layer.
    using TransformsBlock = std::array<std::array<float, 16>, ShadowMapManager::maxLayers>;

    int updateLights(const ShadowMapRenderData& data);
    void draw(GPUModel& model, const ShadowMapRenderData* data);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_program;
    std::unique_ptr<BufferObject> m_lightsBuffer;
    std::unique_ptr<BufferObject> m_transformsBuffer;
    /// Contents of the buffers.
    LightsBlock m_lights{};
    TransformsBlock m_transforms{};
    /// In the last frame.
    size_t m_numIgnoredLights = 0;

    Uniform m_projectionMatrix{"u_ProjectionMatrix"};
    Uniform m_cameraMatrix{"u_CameraMatrix"};
    Uniform m_cameraPosition{"u_CameraPosition"};
    Uniform m_ambient{"u_Ambient"};
    Uniform m_bleedingReduction{"u_BleedingReduction"};
    Uniform m_shadowMaps{"u_ShadowMaps"};
    Uniform m_numLights{"u_NumLights"};
};

} // namespace Morvane::Qel
