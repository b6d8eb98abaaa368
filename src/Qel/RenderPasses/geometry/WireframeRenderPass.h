#pragma once

#include <QSharedPointer>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class Texture;

/// Draws the edges of primitives as an overlay, from an image of primitive numbers alone. The more of a
/// pixel's eight neighbours belong to another primitive, the stronger it is drawn.
///
/// Reads an Id image as the scene passes write it: the first component is the primitive's number plus one,
/// where 0 is the background; the third component, if there is one, numbers the parts of a tessellated
/// primitive, whose edges weigh a third. Ids are rounded down after 0.1 is added.
///
/// Deliberate: neighbours beyond the border follow the wrap mode of the Id texture. The Ids of the scene
/// passes repeat, so pixels at opposite borders count as neighbours, and the overlay draws the frame's
/// border.
///
/// Writes 26 / 255 in all four components, scaled by the weight of the differing neighbours: a premultiplied
/// faint white. The output is a pooled texture (RGBA8) of the viewport's size whose references its consumers
/// own. Neighbours are one pixel of the viewport apart, even if the Id image has another size. A viewport
/// whose origin is not 0 shifts the drawing inside the output; the rest keeps the clear colour in force.
///
/// GL state: blending and scissor test must be off. Leaves the depth test disabled.
class QEL_RENDERPASSES_EXPORT WireframeRenderPass : public RenderPassHelper
{
public:
    static const PassDescription& description();

    WireframeRenderPass();
    ~WireframeRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    /// Indices of the ports, -1 for one that does not exist.
    struct Ports
    {
        int viewport = -1;
        int id = -1;
        int frame = -1;
    };
    void findPorts();

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    Ports m_ports;
    /// The numbers of ports at the last look-up.
    size_t m_numInputsSeen = 0;
    size_t m_numOutputsSeen = 0;
    Uniform m_idSampler{"u_IdSampler"};
    Uniform m_idSamplerWidth{"u_IdSamplerWidth"};
    Uniform m_idSamplerHeight{"u_IdSamplerHeight"};
    Uniform m_wireframeColour{"u_WireframeColour"};
};

} // namespace Morvane::Qel
