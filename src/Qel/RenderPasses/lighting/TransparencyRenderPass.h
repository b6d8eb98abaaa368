#pragma once

#include <QSharedPointer>
#include <QSize>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class GPUModel;
class Texture;

/// Draws a model with transparent materials in any order of its batches, lit by one directional light that
/// stands still relative to the camera: weighted blended order-independent transparency (M. McGuire,
/// L. Bavoil: Weighted blended order-independent transparency, Journal of Computer Graphics Techniques 2(2),
/// 2013).
///
/// Batches whose material has a dissolve of 1 are opaque and drawn first, with depth. All others are then
/// accumulated in front of them, in one unordered pass: each fragment with the weight z^-5 of its window
/// depth z, into sums of colour and of coverage and a product of what shines through, the revealage. The
/// last step lays the weighted mean, as far as something covers, over the opaque picture. One layer comes
/// out exactly, but for the bounds below; of several, the mean stands for the sorted result: it covers the
/// opaque picture to the same degree and differs in the mixture of the layers' colours alone.
///
/// A lit colour counts as multiplied by its dissolve already: a pane adds all of it, however thin it is. Only
/// the dissolve makes a surface transparent; the alpha of its maps is not read.
///
/// Reads the model, the matrices and, for materials that lack a map, a texture to sample instead. Writes the
/// picture, linear and unclamped, and the depth of the opaque surfaces, both owned by the pass and replaced
/// when the size changes. The picture's alpha is 1 on opaque surfaces and 0 on the background; behind layers
/// that let r through it becomes r times that plus r (1 - r), which is no coverage.
///
/// The weights are made for depths of perspective views, which are near 1. Where the sum of the weighted
/// coverages exceeds 5e4 it is cut off and the layers come out too bright, as a single one does at depths
/// below 0.115; below 1e-4 it is raised, and the layers come out too dark.
///
/// GL state: relies on blending being off, on the depth mask being on, on the depth function, which must not
/// pass equal depths, and on face culling as it is. Leaves the front face counter-clockwise, the depth mask
/// on, the clear colour 0 and the blend function (GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA); depth test and
/// blending as they were.
class QEL_RENDERPASSES_EXPORT TransparencyRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        ProjectionMatrix,
        CameraMatrix,
        Geometry,
        MapStandIn
    };
    enum OutputPort
    {
        Frame,
        Depth
    };

    static const PassDescription& description();

    TransparencyRenderPass();
    ~TransparencyRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    /// A program that draws the model.
    struct ModelProgram
    {
        std::unique_ptr<ShaderProgram> program;
        Uniform projectionMatrix{"u_ProjectionMatrix"};
        Uniform cameraMatrix{"u_CameraMatrix"};
    };

    void build();
    void resize(const QSize& size);
    void drawOpaque(GPUModel* model);
    void accumulate(GPUModel* model);
    void drawModel(GPUModel* model, ModelProgram& modelProgram);
    void resolve();

    std::unique_ptr<FramebufferObject> m_opaqueFramebuffer;
    std::unique_ptr<FramebufferObject> m_accumulationFramebuffer;
    ModelProgram m_opaque;
    ModelProgram m_accumulation;
    std::unique_ptr<ShaderProgram> m_resolveProgram;
    QSharedPointer<DrawBuffers> m_screenQuad;
    std::unique_ptr<Texture> m_white;
    QSize m_size{0, 0};
    Uniform m_samplerA{"u_SamplerA"};
    Uniform m_samplerB{"u_SamplerB"};
};

} // namespace Morvane::Qel
