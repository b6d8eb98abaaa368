#pragma once

#include <QSharedPointer>

#include <memory>
#include <vector>

#include <Qel/RenderPasses/Export.h>
#include <Qel/RenderPasses/framework/FBOConfig.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class BufferObject;
class DrawBuffers;
class FramebufferObject;
class GPUModel;
class Texture;

/// Draws a model once and records, without shading, which primitives cover each pixel: a list of fragments
/// for each pixel (L. Carpenter: The A-buffer, an antialiased hidden surface method, 1984), linked on the GPU
/// (J. C. Yang, J. Hensley, H. Gruen, N. Thibieroz: Real-time concurrent linked list construction on the GPU,
/// 2010).
///
/// A node is a texel of the node buffer, four unsigned integers: the next node of the list, the primitive's
/// number plus one, the bits of the depth as a float and the draw's number in the model. Head pointers and
/// next pointers are a node's number plus one, 0 ends the list; node n is the texel (n mod W, n div W), W
/// being the published width. Nodes stand in their lists in no particular order.
///
/// In its full mode every fragment of every layer is recorded, up to 4096 x 4096 nodes. What comes after is
/// lost, and with it what its pixel had: the head pointer then names a node that does not exist, which
/// readers must take for the end of the list. In the reduced mode, without the extensions that
/// `description()` lists, each pixel keeps the nearest fragment alone, with 0 for the draw. The pass says on
/// the debug channel, each time it runs, in which mode.
///
/// GL state: relies on face culling as it is, on the colour mask being full and scissor test and blending
/// being off, and in the reduced mode on depth function and depth mask; leaves the clear colour 0 and, when a
/// model was drawn, the front face counter-clockwise and the depth test enabled. Outputs are owned by the
/// pass; head pointers are replaced when the size changes, the node buffer of the full mode never.
class QEL_RENDERPASSES_EXPORT VisibilityBufferRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        ProjectionMatrix,
        CameraMatrix,
        Geometry
    };
    enum OutputPort
    {
        HeadPointers,
        NodeBuffer,
        NodeBufferWidth,
        /// Never set by the pass: it keeps what it holds. Deliberate; nobody may rely on it.
        Depth
    };

    using FBOConfig = Qel::FBOConfig;

    static const PassDescription& description();

    /// Draws the batches whose flags masked by `drawMask` equal `drawFlags`; 0, 0 draws all.
    explicit VisibilityBufferRenderPass(unsigned long long drawFlags = 0, unsigned long long drawMask = 0);
    ~VisibilityBufferRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void makeObjects();
    void makeLists();
    void resize(int width, int height);
    void clearLists();
    void clearNodes();
    void draw(GPUModel* model);

    unsigned long long m_drawFlags;
    unsigned long long m_drawMask;
    /// Whether whole lists are built.
    bool m_gl4 = false;
    std::vector<FBOConfig> m_attachments;
    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<FramebufferObject> m_headFramebuffer;
    std::unique_ptr<FramebufferObject> m_nodeFramebuffer;
    std::unique_ptr<Texture> m_headPointers;
    std::unique_ptr<Texture> m_nodes;
    std::unique_ptr<Texture> m_depth;
    std::unique_ptr<ShaderProgram> m_program;
    int m_width = 0;
    int m_height = 0;
    int m_nodeBufferWidth = 0;

    /// How many nodes the frame asked for so far.
    std::unique_ptr<BufferObject> m_counter;
    /// The same of the frame before, for the vertex stage of the program that clears its nodes.
    std::unique_ptr<BufferObject> m_previousCount;
    std::unique_ptr<Texture> m_previousCountTexel;
    std::unique_ptr<ShaderProgram> m_clearProgram;
    QSharedPointer<DrawBuffers> m_clearBatch;
    bool m_nodesAreUndefined = true;

    Uniform m_projectionMatrix{"u_ProjectionMatrix"};
    Uniform m_cameraMatrix{"u_CameraMatrix"};
    Uniform m_imageWidth{"u_NodeBufferImageWidth"};
    Uniform m_headPointerImage{"u_HeadPointerImage"};
    Uniform m_nodeBufferImage{"u_NodeBufferImage"};
    Uniform m_clearCount{"u_NumNodes"};
};

} // namespace Morvane::Qel
