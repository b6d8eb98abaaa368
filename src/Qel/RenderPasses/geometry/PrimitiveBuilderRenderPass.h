#pragma once

#include <QVector3D>

#include <vector>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>

namespace Morvane::Qel {

class DrawBuffers;

/// Makes geometry without a model file: cubes and quads of given sizes and positions, all in one batch.
///
/// The batch consists of triangles with world-space positions ("va_Vertex"), normals ("va_Normal") and
/// texture coordinates ("va_TexCoord"). The first start after a change builds a new batch and deletes the
/// old one. The pass draws nothing and changes no GL state.
///
/// Cubes have edges of length size. Face f has texture coordinates from f to f + 1 in both directions, so
/// that a shader can tell the faces (z-, z+, x-, x+, y-, y+) apart. Quads span 2 x size in x and y and face
/// -z, with texture coordinates from 0 to 1. The triangles of both have mixed winding: draw them without face
/// culling.
///
/// Deliberate: the last batch is not deleted with the pass. A graph's resource scope deletes it.
class QEL_RENDERPASSES_EXPORT PrimitiveBuilderRenderPass : public RenderPassHelper
{
public:
    enum OutputPort
    {
        /// DrawBuffers*; null until a primitive is added or an option is set.
        Geometry
    };
    enum PrimitiveType
    {
        Cube,
        Quad
    };
    struct PrimitiveInfo
    {
        PrimitiveInfo(PrimitiveType primitiveType, float scale, const QVector3D& offset)
            : type(primitiveType)
            , size(scale)
            , position(offset)
        {
        }
        PrimitiveType type;
        /// Scale of the unit shape.
        float size;
        /// Its centre, in world space.
        QVector3D position;
    };

    static const PassDescription& description();

    PrimitiveBuilderRenderPass();
    ~PrimitiveBuilderRenderPass() override;

    /// Appends a quad, 2 x size wide and high, centred on a world-space position.
    void addQuad(float size, const QVector3D& position);
    /// Appends a cube with edges of length size, centred on a world-space position.
    void addCube(float size, const QVector3D& position);
    /// Sets whether the batch also gets one indirect draw command for each primitive, which is the default.
    /// The batch is rebuilt even if the setting stays the same.
    void setUseIndirectDrawCommands(bool use);

    void start(RenderCallbacks* callbacks) override;

private:
    void rebuild();

    DrawBuffers* m_batch = nullptr;
    std::vector<PrimitiveInfo> m_primitives;
    bool m_dirty = false;
    bool m_useIndirectDrawCommands = true;
};

} // namespace Morvane::Qel
