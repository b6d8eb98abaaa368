#pragma once

#include <QMatrix4x4>
#include <QRect>

#include <functional>
#include <optional>
#include <vector>

#include "support/Models.h"
#include "support/Passes.h"
#include "support/Pixels.h"

namespace Morvane::Qel::Test {

/// A camera with its projection and the size of the image that it takes.
struct View
{
    QMatrix4x4 projection;
    QMatrix4x4 camera;
    QSize size;

    /// A parallel projection of [-halfWidth, halfWidth] x [-halfHeight, halfHeight] along -z.
    static View orthographic(const QSize& size, float halfWidth = 1.0F, float halfHeight = 1.0F,
                             float nearPlane = -1.0F, float farPlane = 1.0F);
    /// A pinhole camera at the origin that looks along -z; the vertical field of view is in degrees.
    static View perspective(const QSize& size, float fieldOfView = 50.0F, float nearPlane = 0.5F,
                            float farPlane = 20.0F);
    /// The same view from another place.
    View from(const QVector3D& eye, const QVector3D& target = {}, const QVector3D& up = {0, 1, 0}) const;

    QRect viewport() const { return {QPoint(0, 0), size}; }
    /// The inputs with which most passes begin: viewport, projection, camera; then `more`.
    std::vector<Input> inputs(const std::vector<Input>& more = {}) const;
    /// World-space points on the near (z = -1) and far (z = 1) plane behind a place of the image, in pixels:
    /// the centre of pixel (0, 0) is (0.5, 0.5).
    QVector3D unproject(double x, double y, double z) const;
};

/// A point where a ray meets a surface.
struct Hit
{
    /// The instance, which is also the batch of the GPUModel.
    int object = 0;
    int material = 0;
    /// The triangle, from 0 in each mesh.
    int primitive = 0;
    /// From 0 at the start of the ray to 1 at its end.
    float distance = 0.0F;
    /// From 0 at the near plane to 1 at the far plane; set for rays of a view.
    float depth = 0.0F;
    /// In world space.
    QVector3D position;
    /// Interpolated and transformed to world space, of the length that results.
    QVector3D normal;
    QVector2D texCoord;
};

/// A ray caster for the triangles of a model, in double precision and without any GL.
class Scene
{
public:
    explicit Scene(ModelData data);

    const ModelData& data() const { return m_data; }
    const MaterialData& material(const Hit& hit) const
    {
        return m_data.materials[static_cast<size_t>(hit.material)];
    }

    /// All hits between two points, nearest first.
    std::vector<Hit> hits(const QVector3D& from, const QVector3D& to) const;
    /// Whether anything lies between two points. Pass an origin slightly off the surface it lies on.
    bool isBlocked(const QVector3D& from, const QVector3D& to) const { return !hits(from, to).empty(); }

    /// All hits between the near and the far plane at a place of the image, in pixels.
    std::vector<Hit> hits(const View& view, double x, double y) const;
    /// The nearest hit behind the centre of a pixel.
    std::optional<Hit> at(const View& view, int x, int y) const;
    /// Whether the edge of a triangle, seen or hidden, passes within a 64th of a pixel of the centre, where
    /// rasterisers may differ.
    bool isEdge(const View& view, int x, int y) const;
    /// The expected image: f of the nearest hit, null where there is none, and `anyPixel` at edges.
    Pixels image(const View& view, const std::function<QVector4D(const Hit*)>& f) const;
    /// The depth buffer of the view, exact at edges too, in all components.
    Pixels depths(const View& view) const;

private:
    struct Object
    {
        QMatrix4x4 normalMatrix;
        std::vector<QVector3D> positions;
        /// Of a sphere around the first position that holds the others.
        float radius = 0.0F;
    };
    ModelData m_data;
    std::vector<Object> m_objects;
};

/// A floor, a turned box and a sphere above it, each with a material of its own: dull and opaque, shiny and
/// opaque, shiny and translucent.
ModelData makeSceneData();
/// The view of that scene from above, in which all three are seen and partly hide each other.
View makeSceneView(const QSize& size);

} // namespace Morvane::Qel::Test
