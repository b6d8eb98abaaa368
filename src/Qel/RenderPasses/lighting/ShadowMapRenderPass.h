#pragma once

#include <QString>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/model/ShadowMapManager.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class GLSLMacroProcessor;
class GPUModel;
class InstanceDataPlan;
class Texture;

/// Draws variance shadow maps (W. Donnelly, A. Lauritzen: Variance shadow maps, 2006), one layer of an array
/// texture for each projector of each light, and blurs them by a separable Gaussian that is evaluated
/// incrementally (K. Turkowski: Incremental computation of the Gaussian, GPU Gems 3, 2007).
///
/// Reads the model, the lights and what ShadowMapManager fits the projectors to; publishes the record of
/// lights, projectors and maps, ShadowMapManager::RenderData. The maps hold the mean of the depth in red,
/// from 0 at the projector's near plane to 1 at its far plane and 0.0001 more than where the surface lies, at
/// most 1, and the mean of its square in green. Where a projector sees nothing between its planes, and
/// outside of it, both are 1e9: not shadowed.
///
/// Maps are drawn again only when something changed: the lights, the view where they depend on it, or what
/// the input Dirty tells. A frame without change costs no GL call. That the model changed, or is there at
/// last, the pass does not see by itself: Dirty must say it.
///
/// The transforms of instances come from an instance-data plan. The initial one, "VeskInstance", reads the
/// collections of the input InstanceData, and identity without any: models whose instances carry transforms
/// of their own, as those of graph files may, need "InstanceInfo".
///
/// Maps, framebuffer and programs are owned by the pass and deleted with it; a layer takes 4 MiB, half of
/// them for the blur.
///
/// GL state: relies on the depth function GL_LESS, on culling back faces, on the colour mask being full and
/// on scissor and stencil test being off. When it drew it leaves the clear colour at (1e9, 1e9, 1e9, 1), the
/// front face counter-clockwise, face culling, blending and depth clamping disabled and the depth mask on.
class QEL_RENDERPASSES_EXPORT ShadowMapRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Geometry,
        InstanceData,
        Lights,
        Dirty,
        ProjectionMatrix,
        CameraMatrix,
        SceneBoundsMin,
        SceneBoundsMax
    };
    enum OutputPort
    {
        ShadowMapData
    };

    static const PassDescription& description();

    ShadowMapRenderPass();
    ~ShadowMapRenderPass() override;

    /// The plan whose getModelMatrix() places the instances: "VeskInstance", as initially, or "InstanceInfo".
    /// Takes effect when the program is built, on the first start.
    void setInstanceDataPlanName(const QString& name);

    void start(RenderCallbacks* callbacks) override;

private:
    bool updateLights();
    bool provideResources();
    void buildMomentsProgram();
    void drawMoments(GPUModel& model);
    void drawLayer(GPUModel& model, int layer);
    void provideBlurResources();
    void _gaussBlurShadowMapArray(int iterations);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<Texture> m_depth;
    std::unique_ptr<Texture> m_moments;
    std::unique_ptr<ShaderProgram> m_momentsProgram;
    int m_numLayers = 0;
    std::unique_ptr<Texture> m_blurScratch;
    std::unique_ptr<ShaderProgram> m_blurProgram;
    std::unique_ptr<DrawBuffers> m_quad;
    QString m_instanceDataPlanName;
    ShadowMapManager::RenderData m_renderData;
    std::unique_ptr<GLSLMacroProcessor> m_macroProcessor;

    Uniform m_modelViewProjectionMatrix{"modelViewProjectionMatrix"};
    Uniform m_frameSampler{"u_FrameSampler"};
    Uniform m_index{"u_Index"};
    Uniform m_step{"u_Step"};
    Uniform m_sigma{"u_Sigma"};
};

} // namespace Morvane::Qel
