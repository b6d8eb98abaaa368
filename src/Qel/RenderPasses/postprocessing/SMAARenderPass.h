#pragma once

#include <QPointer>
#include <QSharedPointer>
#include <QVector4D>

#include <array>
#include <memory>
#include <vector>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;

/// Smooths the staircases of a finished frame in three full-screen draws: finds edges by colour, works out
/// from their shape how much of each pixel they cut off, and blends neighbours by it (J. Jimenez, J. I.
/// Echevarria, T. Sousa, D. Gutierrez: SMAA: Enhanced subpixel morphological antialiasing, 2012).
///
/// Reads a colour texture, which it leaves with linear filters. Writes three pooled textures (RGBA, 8 bits):
/// the smoothed frame, whose alpha is blended like the colours; the edges, red to the left neighbour and
/// green to the one below, blue and alpha undefined; and the weights, red and green of the edge below and
/// blue and alpha of the one on the left.
///
/// Without a frame nothing is drawn and the outputs keep their textures. Deliberate: the pool may have given
/// them to others meanwhile, so what they show is undefined; one that the pool gave up leaves its output
/// empty.
///
/// GL state: all three draws clear with the clear colour in force, and the edges are right only if it is 0.
/// Leaves the stencil test disabled, the depth test enabled and the viewport at the frame's size.
///
/// The objects live from setup to teardown and are all made anew on a new size. The framebuffer of the result
/// stays alive until the pass is destroyed, every one that a new size replaced included. Deliberate.
class QEL_RENDERPASSES_EXPORT SMAARenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        Frame,
        Depth
    };
    enum OutputPort
    {
        AntiAliasedFrame,
        EdgeTexture,
        BlendTexture
    };

    static const PassDescription& description();

    SMAARenderPass();
    ~SMAARenderPass() override;

    void setup(RenderCallbacks* callbacks) override;
    void start(RenderCallbacks* callbacks) override;
    void teardown(RenderCallbacks* callbacks) override;

private:
    void keepOutputs();
    Texture* detectEdges(Texture* frame);
    Texture* calculateWeights(Texture* edges);
    Texture* blend(Texture* frame, Texture* weights);

    int m_width = 0;
    int m_height = 0;
    QVector4D m_metrics;
    std::unique_ptr<FramebufferObject> m_edgeFramebuffer;
    std::unique_ptr<FramebufferObject> m_weightFramebuffer;
    /// The last one is in use.
    std::vector<std::unique_ptr<FramebufferObject>> m_outputFramebuffers;
    std::unique_ptr<Texture> m_areaTexture;
    std::unique_ptr<Texture> m_searchTexture;
    std::unique_ptr<ShaderProgram> m_edgeProgram;
    std::unique_ptr<ShaderProgram> m_weightProgram;
    std::unique_ptr<ShaderProgram> m_blendProgram;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    /// What the outputs hold; null when the pool deleted it.
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
