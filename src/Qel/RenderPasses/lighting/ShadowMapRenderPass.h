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

/// Draws variance shadow maps (W. Donnelly, A. Lauritzen: Variance shadow maps, 2006) into an array texture
/// with one layer for each projector of each light, and blurs them with a separable Gaussian whose weights
/// are evaluated incrementally (K. Turkowski: Incremental computation of the Gaussian, GPU Gems 3, 2007).
///
/// Inputs are the model, the lights and what ShadowMapManager needs to fit the projectors. The output is the
/// record of lights, projectors and maps, ShadowMapManager::RenderData. A map holds the mean depth in red and
/// the mean squared depth in green. Depth runs from 0 at the projector's near plane to 1 at its far plane,
/// plus a bias of 0.0001, clamped to 1. Where a projector sees nothing between its planes, and outside of the
/// map, both values are 1e9: not in shadow.
///
/// Maps are redrawn only when the lights change, when the view changes and a projector depends on it, or when
/// the input Dirty is set; an unchanged frame costs no GL call. The pass does not notice by itself that the
/// model changed or became available: set Dirty then. If no batch casts a shadow, the maps are not redrawn
/// either: when the last caster is hidden, its shadow stays.
///
/// Instance transforms come from an instance-data plan. The default plan, "VeskInstance", reads the
/// collections of the input InstanceData and is the identity without any. Models whose instances carry their
/// own transforms, as those loaded by graph files may, need the plan "InstanceInfo".
///
/// Maps, framebuffer and programs are owned by the pass and deleted with it. A layer takes 4 MiB, half of
/// which is scratch memory for the blur.
///
/// GL state: expects depth function GL_LESS, culling of back faces, a full colour mask, and scissor and
/// stencil test disabled. A frame that draws leaves the clear colour at (1e9, 1e9, 1e9, 1), the front face
/// counter-clockwise, face culling, blending and depth clamping disabled, and the depth mask on.
class QEL_RENDERPASSES_EXPORT ShadowMapRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// GPUModel*.
        Geometry,
        /// List of InstanceDataCollection, as QObject*.
        InstanceData,
        /// List of ShadowMapManager::Light*.
        Lights,
        /// bool.
        Dirty,
        /// QMatrix4x4, eye space to clip space.
        ProjectionMatrix,
        /// QMatrix4x4, world space to eye space.
        CameraMatrix,
        /// QVector3D in world space.
        SceneBoundsMin,
        /// QVector3D in world space.
        SceneBoundsMax
    };
    enum OutputPort
    {
        /// ShadowMapManager::RenderData, as QObject*; valid as long as the pass.
        ShadowMapData
    };

    static const PassDescription& description();

    ShadowMapRenderPass();
    ~ShadowMapRenderPass() override;

    /// Sets the instance-data plan whose getModelMatrix() places the instances: "VeskInstance" (the default)
    /// or "InstanceInfo". Takes effect when the first start builds the program.
    void setInstanceDataPlanName(const QString& name);

    void start(RenderCallbacks* callbacks) override;

private:
    bool updateLights();
    bool provideResources();
    void clearMoments();
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
