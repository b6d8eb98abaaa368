#pragma once

#include <QPointer>
#include <QSharedPointer>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class GPUModel;
class ListMask;
class Texture;
class VertexArrayObject;

/// Shades the fragment lists of VisibilityBufferRenderPass: fetches each recorded primitive from the model's
/// buffers, reconstructs its attributes at the pixel and blends the layers in list order (C. A. Burns, W. A.
/// Hunt: The visibility buffer: a cache-friendly approach to deferred shading, 2013). Sorted lists give
/// transparency in the right order.
///
/// Deliberate: every fragment is shaded with the material, transform and buffers of the model's first batch,
/// whichever draw it came from. A model of several batches is shaded as if it had only that one. Lighting and
/// colours are those of ForwardRenderPass.
///
/// Deliberate: layers are blended by the sequence in the fragment stage, in which a layer of dissolve d adds
/// its colour twice: it is mixed with weight d over the previous layers, and then added again with weight d
/// (d + (1 - d) a), where a is the previous alpha, initially 1. In a sorted list the farthest layer therefore
/// weighs most, and an opaque first layer has twice its brightness and an alpha of 0. Alpha becomes (1 - d)
/// (d + (1 - d) a). Pixels without fragments keep the clear colour.
///
/// The output is owned by the pass and replaced when the size changes. GL state: uses the clear colour in
/// force; expects blending, face culling and scissor test disabled and a full colour mask; restores the depth
/// test and the stencil test. Where it shades, leaves the stencil function at GL_EQUAL, reference 1, and a
/// full stencil mask.
class QEL_RENDERPASSES_EXPORT VisibilityDeferredRenderPass : public RenderPassHelper
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
        /// Head pointers, R32UI.
        HeadPointers,
        /// Nodes, RGBA32UI.
        NodeBuffer,
        /// int, nodes in a row of the node buffer.
        NodeBufferWidth,
        /// GPUModel*.
        Geometry
    };
    enum OutputPort
    {
        /// GL_RGBA, 0 to 1.
        Frame
    };

    static const PassDescription& description();

    VisibilityDeferredRenderPass();
    ~VisibilityDeferredRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void provideProgram();
    void updateBufferTextures(DrawBuffers* batch);
    void shade(Texture* headPointers, Texture* nodes, GPUModel* model);
    void setMatrices();

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ListMask> m_listMask;
    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    /// Buffer textures over the model's buffers.
    std::unique_ptr<Texture> m_positions;
    std::unique_ptr<Texture> m_texCoords;
    std::unique_ptr<Texture> m_normals;
    std::unique_ptr<Texture> m_indices;
    /// The batch whose buffers they show; null once the model is deleted.
    QPointer<DrawBuffers> m_shownBatch;
    QWeakPointer<VertexArrayObject> m_shownVertexArray;
    int m_numUploadsShown = 0;
    QWeakPointer<BufferObject> m_shownIndices;
    bool m_hasReportedLists = false;
    /// Zeroes for one vertex, in place of a buffer that the model does not have.
    QSharedPointer<BufferObject> m_zeroes;
    /// Whether buffer textures may have three components.
    bool m_hasThreeComponents = false;
    int m_width = 0;
    int m_height = 0;

    Uniform m_headPointerSampler{"u_SamplerHeadPointer"};
    Uniform m_nodeSampler{"u_SamplerNodeBuffer"};
    Uniform m_nodeBufferWidth{"u_SamplerNodeBufferWidth"};
    Uniform m_positionSampler{"u_VertexBuffer"};
    Uniform m_texCoordSampler{"u_texCoordBuffer"};
    Uniform m_normalSampler{"u_NormalBuffer"};
    Uniform m_indexSampler{"u_IndexBuffer"};
    Uniform m_isIndexed{"u_indexedDraw"};
    Uniform m_cameraMatrix{"u_CameraMatrix"};
    Uniform m_projectionMatrix{"u_ProjectionMatrix"};
    Uniform m_viewProjection{"u_ViewProjectionMatrix"};
    Uniform m_normalMatrix{"u_NormalMatrix"};
    Uniform m_inverseProjection{"u_InvProjMatrix"};
    Uniform m_inverseCamera{"u_InvCameraMatrix"};
};

} // namespace Morvane::Qel
