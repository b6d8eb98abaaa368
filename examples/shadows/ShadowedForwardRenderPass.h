#pragma once

#include <QVector>

#include <memory>

#include <Qel/RenderPasses/framework/PassFrame.h>

namespace Morvane::Qel {
class GPUModel;
class ShadowMapRenderData;
} // namespace Morvane::Qel

/// Draws a model with the Blinn-Phong model, lit by the lights of a shadow map record and by constant
/// ambient light. Shadows come from the moments in the record's maps by Chebyshev's inequality (W. Donnelly,
/// A. Lauritzen: Variance shadow maps, 2006); light bleeding is cut off (A. Lauritzen: Summed-area variance
/// shadow maps, GPU Gems 3, 2007).
///
/// Light falls off with the square of the distance and ends at the light's range. Texels of diffuse maps with
/// an alpha below one half are discarded. Colours in textures and in the output are sRGB, approximated by a
/// gamma of 2.2; radiance x is tone-mapped to 1 - exp(-x). Alpha is 1 where something was drawn, else 0. The
/// output is a pooled texture (RGBA8) whose references its consumers own.
///
/// At most maxLights lights with maxLayers shadow maps in total are used; the rest are ignored.
class ShadowedForwardRenderPass : public Morvane::Qel::RenderPassHelper
{
public:
    static constexpr int maxLights = 8;
    static constexpr int maxLayers = 32;

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

    static const Morvane::Qel::PassDescription& description();

    ShadowedForwardRenderPass();
    ~ShadowedForwardRenderPass() override;

    void start(Morvane::Qel::RenderCallbacks* callbacks) override;

private:
    void setLights(const Morvane::Qel::ShadowMapRenderData* data);
    void draw(Morvane::Qel::GPUModel& model, Morvane::Qel::Texture* shadowMaps);

    std::unique_ptr<Morvane::Qel::FramebufferObject> m_framebuffer;
    std::unique_ptr<Morvane::Qel::ShaderProgram> m_program;

    int m_numLights = 0;
    /// Contents of the uniform arrays: vec4 each, then vec2, mat4 and float.
    QVector<float> m_colors;
    QVector<float> m_positions;
    QVector<float> m_directions;
    QVector<float> m_layers;
    QVector<float> m_transforms;
    QVector<float> m_cascadeEnds;

    using Uniform = Morvane::Qel::Uniform;
    Uniform m_projectionMatrix{"u_ProjectionMatrix"};
    Uniform m_cameraMatrix{"u_CameraMatrix"};
    Uniform m_cameraPosition{"u_CameraPosition"};
    Uniform m_ambient{"u_Ambient"};
    Uniform m_bleedingReduction{"u_BleedingReduction"};
    Uniform m_shadowMaps{"u_ShadowMaps"};
    Uniform m_numLightsUniform{"u_NumLights"};
    Uniform m_lightColors{"u_LightColors"};
    Uniform m_lightPositions{"u_LightPositions"};
    Uniform m_lightDirections{"u_LightDirections"};
    Uniform m_lightLayers{"u_LightLayers"};
    Uniform m_layerTransforms{"u_LayerTransforms"};
    Uniform m_layerCascadeEnds{"u_CascadeEnds"};
};
