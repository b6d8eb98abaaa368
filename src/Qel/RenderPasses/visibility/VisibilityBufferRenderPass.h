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

/// Records, without shading, which primitives of a model cover each pixel: one list of fragments per pixel
/// (L. Carpenter: The A-buffer, an antialiased hidden surface method, 1984), linked on the GPU (J. C. Yang,
/// J. Hensley, H. Gruen, N. Thibieroz: Real-time concurrent linked list construction on the GPU, 2010).
///
/// A node is one texel of the node buffer, four unsigned integers: the next node of the list, the primitive's
/// index plus one, the bits of the depth as a float, and the index of the draw in the model. Head pointers
/// and next pointers hold a node's index plus one; 0 ends the list. Node n is the texel (n mod W, n div W),
/// where W is the published width. The nodes of a list are in no particular order.
///
/// The full mode records every fragment of every layer, up to 4096 x 4096 nodes. Later fragments are lost,
/// and with them what their pixels had recorded before: such a head pointer names a node that does not exist,
/// which readers must treat as the end of the list. The reduced mode, used without the extensions that
/// `description()` lists, keeps only the nearest fragment of each pixel, with 0 as the draw. Each start
/// logs the mode on the debug channel.
///
/// The outputs are owned by the pass; head pointers are replaced when the size changes, and the node buffer
/// of the full mode never is. In the full mode, the stencil of a texture that belongs to the head pointers
/// says which pixels have a list, and the passes that sort and shade the lists go by it. A pass may therefore
/// change lists in place, also empty them, but one that starts a list in an empty pixel must publish head
/// pointers of its own.
///
/// GL state: expects face culling as the model needs it, a full colour mask, scissor test and blending
/// disabled, and in the reduced mode a depth function and depth mask for nearest fragments. Leaves the clear
/// colour at 0 and, if a model was drawn, the front face counter-clockwise, the depth test enabled and, in
/// the full mode, the stencil function at GL_ALWAYS, reference 1. The full mode leaves the stencil mask full.
class QEL_RENDERPASSES_EXPORT VisibilityBufferRenderPass : public RenderPassHelper
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
        Geometry
    };
    enum OutputPort
    {
        /// Head pointers, R32UI.
        HeadPointers,
        /// Nodes, RGBA32UI.
        NodeBuffer,
        /// int, nodes in a row of the node buffer.
        NodeBufferWidth,
        /// Never set by the pass, deliberately: it keeps whatever value it has. Do not rely on it.
        Depth
    };

    using FBOConfig = Qel::FBOConfig;

    static const PassDescription& description();

    /// Makes a pass that draws the batches whose flags masked by `drawMask` equal `drawFlags`; 0, 0 draws
    /// all.
    explicit VisibilityBufferRenderPass(unsigned long long drawFlags = 0, unsigned long long drawMask = 0);
    ~VisibilityBufferRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void buildListProgram();
    void makeLists();
    void resize(const QSize& size);
    void clearLists();
    void clearNodes();
    void clearTargets();
    void draw(GPUModel* model);

    unsigned long long m_drawFlags;
    unsigned long long m_drawMask;
    /// Whether the full mode is in use.
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

    /// Counts the nodes that the current frame requested.
    std::unique_ptr<BufferObject> m_counter;
    /// The counts of the previous and the current frame, read by the vertex stage that clears the nodes which
    /// only the previous one had.
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
