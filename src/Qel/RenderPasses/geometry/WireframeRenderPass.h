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

/// Draws the edges of primitives as an overlay, from an image of their numbers alone: a pixel is drawn the
/// stronger the more of its eight neighbours belong to another primitive.
///
/// Reads an Id image as the scene passes write it: the first component is the number of the primitive plus
/// one, 0 meaning background; a third one, where there is one, numbers the parts of a tessellated primitive,
/// whose edges count a third. Ids are rounded down after 0.1 is added. What lies beyond the border follows
/// the image's wrap mode.
///
/// Writes 26 / 255 in all four components, scaled by the fraction of differing neighbours: a premultiplied
/// colour, which composites as a faint white. The result is a pooled texture (RGBA8) of the viewport's size
/// whose references its consumers own. Neighbours are one pixel of the viewport apart, also where the Id
/// image is of another size. A viewport whose origin is not 0 shifts the drawing inside the result; what lies
/// outside keeps the clear colour in force.
///
/// GL state: relies on blending and scissor test being off; leaves the depth test off.
class QEL_RENDERPASSES_EXPORT WireframeRenderPass : public RenderPassHelper
{
public:
    static const PassDescription& description();

    WireframeRenderPass();
    ~WireframeRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    /// Where the ports that the pass knows by name are, -1 for one that is not there.
    struct Ports
    {
        int viewport = -1;
        int id = -1;
        int frame = -1;
    };
    void findPorts();
    void buildProgram();
    void draw(Texture* ids, const QRect& viewport);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    Ports m_ports;
    /// How many ports there were when they were looked up.
    size_t m_numInputsSeen = 0;
    size_t m_numOutputsSeen = 0;
    Uniform m_idSampler{"u_IdSampler"};
    Uniform m_idSamplerWidth{"u_IdSamplerWidth"};
    Uniform m_idSamplerHeight{"u_IdSamplerHeight"};
    Uniform m_wireframeColour{"u_WireframeColour"};
};

} // namespace Morvane::Qel
