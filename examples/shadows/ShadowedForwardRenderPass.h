#pragma once

#include <QVector>

#include <memory>

#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {
class FramebufferObject;
class GPUModel;
class ShadowMapRenderData;
} // namespace Morvane::Qel

/// Draws a model lit by the lights of a shadow map record, and by an even ambient light, with the Blinn-Phong
/// model. Shadows come from the moments in the record's maps by Chebyshev's inequality (W. Donnelly,
/// A. Lauritzen: Variance shadow maps, 2006); the light that leaks in where shadows overlap is cut off
/// (A. Lauritzen: Summed-area variance shadow maps, GPU Gems 3, 2007).
///
/// Light falls off with the square of the distance and ends at the range of its lamp. Texels of diffuse maps
/// with an alpha below one half are left out. Colours in textures and in the frame are sRGB, for which a
/// power of 2.2 stands in; brightness approaches white by 1 - exp(-x). The frame's alpha is 1 where something
/// was drawn and 0 elsewhere. It is a pooled texture whose references its consumers own.
///
/// At most maxLights lights with maxLayers shadow maps together are shaded; those beyond are left out.
class ShadowedForwardRenderPass : public Morvane::Qel::RenderPassHelper
{
public:
    static constexpr int maxLights = 8;
    static constexpr int maxLayers = 32;

    enum InputPort
    {
        Viewport,
        ProjectionMatrix,
        CameraMatrix,
        Geometry,
        ShadowMapData,
        Ambient,
        LightBleedingReduction
    };
    enum OutputPort
    {
        Frame
    };

    static const Morvane::Qel::PassDescription& description();

    ShadowedForwardRenderPass();
    ~ShadowedForwardRenderPass() override;

    void start(Morvane::Qel::RenderCallbacks* callbacks) override;

private:
    void build();
    void setLights(const Morvane::Qel::ShadowMapRenderData* data);
    void draw(Morvane::Qel::GPUModel& model, const Morvane::Qel::ShadowMapRenderData* data);

    std::unique_ptr<Morvane::Qel::FramebufferObject> m_framebuffer;
    std::unique_ptr<Morvane::Qel::ShaderProgram> m_program;

    int m_numLights = 0;
    /// As the shader's arrays take them: vectors of four and two, matrices, numbers.
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
