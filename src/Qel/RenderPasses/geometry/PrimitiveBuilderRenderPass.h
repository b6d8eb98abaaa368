#pragma once

#include <QVector3D>

#include <vector>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>

namespace Morvane::Qel {

class DrawBuffers;

/// Makes geometry without a model file: cubes and quads of given sizes and places, all in one batch.
///
/// Writes the batch, of triangles with positions ("va_Vertex") in world space, normals ("va_Normal") and
/// texture coordinates ("va_TexCoord"). It is built anew at the first start after a change, which deletes the
/// one before. No pixels are drawn and no GL state is changed.
///
/// Cubes span 1 x size around their place; face f of them has texture coordinates from f to f + 1 in both
/// directions, so that a shader can tell the faces (z-, z+, x-, x+, y-, y+) apart. Quads span 2 x size in x
/// and y and face -z, with texture coordinates from 0 to 1. The triangles of both wind either way: do not
/// cull.
///
/// The last batch is deliberately not deleted with the pass. A graph's resource scope deletes it.
class QEL_RENDERPASSES_EXPORT PrimitiveBuilderRenderPass : public RenderPassHelper
{
public:
    enum OutputPort
    {
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
        /// What the unit shape is scaled by.
        float size;
        /// Where its centre goes.
        QVector3D position;
    };

    static const PassDescription& description();

    PrimitiveBuilderRenderPass();
    ~PrimitiveBuilderRenderPass() override;

    void addQuad(float size, const QVector3D& position);
    void addCube(float size, const QVector3D& position);
    /// Whether the batch also gets one indirect command for each primitive, which is the initial setting. The
    /// batch is built anew even when the setting stays the same.
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
