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
class Texture;
class VertexArrayObject;

/// Shades the lists of fragments of VisibilityBufferRenderPass: fetches each recorded primitive from the
/// model's buffers, rebuilds its attributes at the pixel and blends the layers in the order of the list (C.
/// A. Burns, W. A. Hunt: The visibility buffer: a cache-friendly approach to deferred shading, 2013). Lists
/// that were sorted give transparency in the right order.
///
/// Every fragment is shaded with material, transform and buffers of the model's first batch, whichever draw
/// it came from: a model of several batches is shaded as if it had that one. Deliberate. Light and colours
/// are those of ForwardRenderPass.
///
/// Layers are blended by a sequence of its own, which the fragment stage spells out. With it a layer of
/// dissolve d adds its colour twice, mixed with d over the layers before it and once more by d (d + (1 - d)
/// a), a being the alpha before, from 1 on: in a sorted list the farthest layer weighs most, and an opaque
/// first layer has double its brightness and an alpha of 0. Alpha becomes (1 - d) (d + (1 - d) a); pixels
/// without fragments keep the clear colour.
///
/// The output is GL_RGBA, owned by the pass and replaced when the size changes. GL state: relies on the clear
/// colour, on blending, face culling and scissor test being off and on the colour mask being full; the depth
/// test is put back as it was.
class QEL_RENDERPASSES_EXPORT VisibilityDeferredRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        ProjectionMatrix,
        CameraMatrix,
        HeadPointers,
        NodeBuffer,
        NodeBufferWidth,
        Geometry
    };
    enum OutputPort
    {
        Frame
    };

    static const PassDescription& description();

    VisibilityDeferredRenderPass();
    ~VisibilityDeferredRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void makeObjects();
    void resize(int width, int height);
    void showBuffers(DrawBuffers* batch);
    void shade(Texture* headPointers, Texture* nodes, GPUModel* model);
    void setMatrices();

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<Texture> m_frame;
    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    /// The model's buffers as texels.
    std::unique_ptr<Texture> m_positions;
    std::unique_ptr<Texture> m_texCoords;
    std::unique_ptr<Texture> m_normals;
    std::unique_ptr<Texture> m_indices;
    /// Whose buffers they show; null once the model is gone.
    QPointer<DrawBuffers> m_shownBatch;
    QWeakPointer<VertexArrayObject> m_shownVertexArray;
    QWeakPointer<BufferObject> m_shownIndices;
    bool m_hasReportedLists = false;
    /// Stands in for a buffer that the model does not have: zeroes for one vertex.
    QSharedPointer<BufferObject> m_zeroes;
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
    Uniform m_normalMatrix{"u_NormalMatrix"};
    Uniform m_inverseProjection{"u_InvProjMatrix"};
    Uniform m_inverseCamera{"u_InvCameraMatrix"};
};

} // namespace Morvane::Qel
