#pragma once

#include <QSharedPointer>

#include <memory>
#include <optional>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class GPUModel;
class Texture;
enum class Opacity;

/// Draws a model with transparent materials without sorting, lit by one directional light that is fixed
/// relative to the camera: weighted blended order-independent transparency (M. McGuire, L. Bavoil: Weighted
/// blended order-independent transparency, Journal of Computer Graphics Techniques 2(2), 2013).
///
/// Batches whose material has a dissolve of 1 are opaque and are drawn first, with depth. All others are then
/// accumulated in one unordered pass, tested against that depth: each fragment is weighted by z^-5, where z
/// is its window depth, and added to sums of colour and of coverage; the product of (1 - dissolve) is the
/// revealage. Finally the weighted mean colour is composited over the opaque image. A single layer is exact,
/// within the bounds below. With several layers the mean replaces the sorted result: the opaque image shows
/// through to the same degree, and only the mixture of the layers' colours differs.
///
/// Lit colours are taken as premultiplied by dissolve: a layer adds its full colour however transparent it
/// is. Only dissolve makes a surface transparent; the alpha of its maps is ignored.
///
/// Outputs are the image, linear and unclamped, and the depth of the opaque surfaces. Both are owned by the
/// pass and replaced when the size changes. The image's alpha is 1 on opaque surfaces and 0 on the
/// background; behind layers with revealage r it becomes r times that plus r (1 - r), which is not coverage.
///
/// The weights suit perspective views, whose depths are close to 1. In an orthographic view, the near plane
/// should be so far in front of the model that its depths are 0.115 or more. A sum of weighted coverages
/// above 5e4 is clamped, which makes the layers too bright; a single layer reaches that bound at depths below
/// 0.115. A sum below 1e-4 is raised to it, which makes the layers too dark.
///
/// GL state: expects blending and scissor test disabled, the depth mask on, the depth function GL_LESS, and
/// face culling as the model needs it. With a depth function that passes equal depths, opaque fragments set
/// the revealage to 0. Leaves the front face counter-clockwise, the depth mask on, the clear colour at 0, the
/// blend function at (GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA) and the scissor box at the pixels that
/// transparent batches can cover; restores depth test, blending and scissor test.
class QEL_RENDERPASSES_EXPORT TransparencyRenderPass : public RenderPassHelper
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
        /// GPUModel*.
        Geometry,
        /// Texture sampled in place of missing material maps, linear RGB.
        MapStandIn
    };
    enum OutputPort
    {
        /// Linear, unclamped RGBA32F.
        Frame,
        /// DEPTH_COMPONENT32F, 0 to 1.
        Depth
    };

    static const PassDescription& description();

    TransparencyRenderPass();
    ~TransparencyRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    /// A program that draws the model, with its uniforms.
    struct ModelProgram
    {
        std::unique_ptr<ShaderProgram> program;
        Uniform projectionMatrix{"u_ProjectionMatrix"};
        Uniform cameraMatrix{"u_CameraMatrix"};
    };

    void provideAllTargets(const QRect& viewport);
    void providePrograms();
    void drawOpaque(GPUModel* model);
    void addTransparent(GPUModel& model);
    void accumulate(GPUModel* model, std::optional<Opacity> batches);
    /// Draws the batches of an opacity, or all.
    void drawModel(GPUModel* model, ModelProgram& modelProgram, std::optional<Opacity> batches);
    void resolve();

    std::unique_ptr<FramebufferObject> m_opaqueFramebuffer;
    std::unique_ptr<FramebufferObject> m_accumulationFramebuffer;
    ModelProgram m_opaque;
    ModelProgram m_accumulation;
    std::unique_ptr<ShaderProgram> m_resolveProgram;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    std::unique_ptr<Texture> m_white;
    int m_width = 0;
    int m_height = 0;
    Uniform m_samplerA{"u_SamplerA"};
    Uniform m_samplerB{"u_SamplerB"};
};

} // namespace Morvane::Qel
