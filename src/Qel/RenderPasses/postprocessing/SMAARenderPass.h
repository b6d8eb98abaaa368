#pragma once

#include <QPointer>
#include <QSharedPointer>

#include <array>
#include <initializer_list>
#include <memory>
#include <vector>

#include <Qel/RenderPasses/Export.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/core/RenderPassHelper.h>

namespace Morvane::Qel {

/// Anti-aliases a finished frame in three full-screen draws: detects edges by colour, computes from their
/// shape how much of each pixel they cover, and blends neighbouring pixels by it (J. Jimenez, J. I.
/// Echevarria, T. Sousa, D. Gutierrez: SMAA: Enhanced subpixel morphological antialiasing, 2012).
///
/// Reads a display-encoded colour texture, sampled with linear filters and clamped to its edge. Writes three
/// pooled textures (RGBA8): the anti-aliased frame, whose alpha is blended like the colours; the edges, red
/// to the left neighbour and green to the one below, blue and alpha undefined; and the weights, red and green
/// of the edge below, blue and alpha of the edge on the left.
///
/// Deliberate: without a frame nothing is drawn and the outputs keep their textures. The pool may have lent
/// them to others meanwhile, so their contents are undefined. An output whose texture the pool has deleted
/// becomes empty.
///
/// A stencil keeps the second draw, which is the most expensive, to the texels with an edge.
///
/// GL state: the first and the third draw clear with the current clear colour; the edges are right only if
/// its red and green are 0. Leaves the stencil test disabled, its function at GL_EQUAL with reference 1 and
/// its mask full, the depth test enabled and the viewport at the frame's size.
///
/// The GL objects exist from setup to teardown and are all rebuilt when the size changes. Deliberate: the
/// output framebuffers, including those replaced on a change of size, live until the pass is destroyed.
class QEL_RENDERPASSES_EXPORT SMAARenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect, pixels.
        Viewport,
        /// Display-encoded colour texture.
        Frame,
        /// Not read.
        Depth
    };
    enum OutputPort
    {
        /// RGBA8, pooled.
        AntiAliasedFrame,
        /// RGBA8 data, pooled.
        EdgeTexture,
        /// RGBA8 data, 0 to 1, pooled.
        BlendTexture
    };

    static const PassDescription& description();

    SMAARenderPass();
    ~SMAARenderPass() override;

    void setup(RenderCallbacks* callbacks) override;
    void start(RenderCallbacks* callbacks) override;
    void teardown(RenderCallbacks* callbacks) override;

private:
    struct SamplerInput
    {
        Uniform& sampler;
        Texture* texture;
        Sampling sampling = Sampling::Linear;
    };
    /// Draws one stage full-screen into a pooled texture. Takes at most three inputs. `prepare` clears the
    /// targets and sets the stencil test.
    PooledTexture draw(FramebufferObject& framebuffer, ShaderProgram& program, Uniform& metrics,
                       void (*prepare)(), std::initializer_list<SamplerInput> inputs);
    void publish(OutputPort port, const PooledTexture& texture);
    void keepOutputs();

    int m_width = 0;
    int m_height = 0;
    std::unique_ptr<FramebufferObject> m_edgeFramebuffer;
    std::unique_ptr<FramebufferObject> m_weightFramebuffer;
    /// Only the last one is in use.
    std::vector<std::unique_ptr<FramebufferObject>> m_outputFramebuffers;
    /// The stencil of the first two stages: 1 where there is an edge. It is not pooled, because the pass
    /// takes just its outputs from the pool.
    std::unique_ptr<Texture> m_marks;
    std::unique_ptr<Texture> m_areaTexture;
    std::unique_ptr<Texture> m_searchTexture;
    std::unique_ptr<ShaderProgram> m_edgeProgram;
    std::unique_ptr<ShaderProgram> m_weightProgram;
    std::unique_ptr<ShaderProgram> m_blendProgram;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    /// The published textures; null once the pool has deleted them.
    std::array<QPointer<Texture>, 3> m_published;
    Uniform m_edgeMetrics{"u_smaaMetrics"};
    Uniform m_edgeFrame{"u_FrameSampler"};
    Uniform m_weightMetrics{"u_smaaMetrics"};
    Uniform m_weightEdges{"u_EdgeTex"};
    Uniform m_weightAreas{"u_AreaTex"};
    Uniform m_weightSearches{"u_SearchTex"};
    Uniform m_blendMetrics{"u_smaaMetrics"};
    Uniform m_blendFrame{"u_ColorTex"};
    Uniform m_blendWeights{"u_BlendTex"};
};

} // namespace Morvane::Qel
