#include "support/Scene.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace Morvane::Qel::Test {

namespace {

/// QVector3D in double precision.
struct Vector
{
    double x;
    double y;
    double z;

    Vector operator+(const Vector& b) const { return {x + b.x, y + b.y, z + b.z}; }
    Vector operator-(const Vector& b) const { return {x - b.x, y - b.y, z - b.z}; }
    Vector operator*(double s) const { return {s * x, s * y, s * z}; }
    double dot(const Vector& b) const { return x * b.x + y * b.y + z * b.z; }
    Vector cross(const Vector& b) const { return {y * b.z - z * b.y, z * b.x - x * b.z, x * b.y - y * b.x}; }
    QVector3D toFloats() const
    {
        return {static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)};
    }
};

Vector toDoubles(const QVector3D& v)
{
    return {static_cast<double>(v.x()), static_cast<double>(v.y()), static_cast<double>(v.z())};
}

/// A matrix times (v, 1), divided by w, in double precision.
Vector map(const QMatrix4x4& matrix, const Vector& v)
{
    std::array<double, 4> result{};
    for (int row = 0; row < 4; ++row) {
        const auto m = [&](int column) { return static_cast<double>(matrix(row, column)); };
        result[static_cast<size_t>(row)] = m(0) * v.x + m(1) * v.y + m(2) * v.z + m(3);
    }
    return {result[0] / result[3], result[1] / result[3], result[2] / result[3]};
}

} // namespace

View View::orthographic(const QSize& size, float halfWidth, float halfHeight, float nearPlane, float farPlane)
{
    View view{{}, {}, size};
    view.projection.ortho(-halfWidth, halfWidth, -halfHeight, halfHeight, nearPlane, farPlane);
    return view;
}

View View::perspective(const QSize& size, float fieldOfView, float nearPlane, float farPlane)
{
    View view{{}, {}, size};
    view.projection.perspective(fieldOfView,
                                static_cast<float>(size.width()) / static_cast<float>(size.height()),
                                nearPlane, farPlane);
    return view;
}

View View::from(const QVector3D& eye, const QVector3D& target, const QVector3D& up) const
{
    View view{projection, {}, size};
    view.camera.lookAt(eye, target, up);
    return view;
}

std::vector<Input> View::inputs(const std::vector<Input>& more) const
{
    std::vector<Input> result{viewport(), projection, camera};
    result.insert(result.end(), more.begin(), more.end());
    return result;
}

QVector3D View::unproject(double x, double y, double z) const
{
    const Vector ndc{2.0 * x / size.width() - 1.0, 2.0 * y / size.height() - 1.0, z};
    return map((projection * camera).inverted(), ndc).toFloats();
}

Scene::Scene(ModelData data)
    : m_data(std::move(data))
{
    for (const InstanceData& instance : m_data.instances) {
        const MeshData& mesh = m_data.meshes[static_cast<size_t>(instance.mesh)];
        Object& object = m_objects.emplace_back();
        object.normalMatrix = instance.transform.inverted().transposed();
        for (const QVector3D& position : mesh.positions) {
            object.positions.push_back(instance.transform.map(position));
            object.radius =
                std::max(object.radius, object.positions.back().distanceToPoint(object.positions[0]));
        }
    }
}

/// Intersects with every triangle by the method of Möller and Trumbore ("Fast, Minimum Storage Ray/Triangle
/// Intersection", 1997).
std::vector<Hit> Scene::hits(const QVector3D& from, const QVector3D& to) const
{
    const Vector origin = toDoubles(from);
    const Vector direction = toDoubles(to) - origin;
    std::vector<Hit> hits;
    for (size_t i = 0; i < m_objects.size(); ++i) {
        const Object& object = m_objects[i];
        if (object.positions[0].distanceToLine(from, (to - from).normalized()) > 1.01F * object.radius) {
            continue;
        }
        const MeshData& mesh = m_data.meshes[static_cast<size_t>(m_data.instances[i].mesh)];
        for (size_t first = 0; first + 2 < mesh.indices.size(); first += 3) {
            const std::array corners{mesh.indices[first], mesh.indices[first + 1], mesh.indices[first + 2]};
            const Vector a = toDoubles(object.positions[corners[0]]);
            const Vector ab = toDoubles(object.positions[corners[1]]) - a;
            const Vector ac = toDoubles(object.positions[corners[2]]) - a;
            const Vector p = direction.cross(ac);
            const double determinant = ab.dot(p);
            if (determinant == 0.0) {
                continue;
            }
            const Vector s = origin - a;
            const Vector q = s.cross(ab);
            const double u = s.dot(p) / determinant;
            const double v = direction.dot(q) / determinant;
            const double t = ac.dot(q) / determinant;
            if (u < 0.0 || v < 0.0 || u + v > 1.0 || t < 0.0 || t > 1.0) {
                continue;
            }
            const auto interpolate = [&](const auto& values) {
                return static_cast<float>(1.0 - u - v) * values[corners[0]] +
                       static_cast<float>(u) * values[corners[1]] +
                       static_cast<float>(v) * values[corners[2]];
            };
            Hit& hit = hits.emplace_back();
            hit.object = static_cast<int>(i);
            hit.material = mesh.material;
            hit.primitive = static_cast<int>(first / 3);
            hit.distance = static_cast<float>(t);
            hit.position = (origin + direction * t).toFloats();
            hit.normal = object.normalMatrix.mapVector(interpolate(mesh.normals));
            hit.texCoord = interpolate(mesh.texCoords);
        }
    }
    std::sort(hits.begin(), hits.end(), [](const Hit& a, const Hit& b) { return a.distance < b.distance; });
    return hits;
}

std::vector<Hit> Scene::hits(const View& view, double x, double y) const
{
    std::vector<Hit> result = hits(view.unproject(x, y, -1.0), view.unproject(x, y, 1.0));
    const QMatrix4x4 clipFromWorld = view.projection * view.camera;
    for (Hit& hit : result) {
        hit.depth = static_cast<float>(0.5 + 0.5 * map(clipFromWorld, toDoubles(hit.position)).z);
    }
    return result;
}

std::optional<Hit> Scene::at(const View& view, int x, int y) const
{
    const std::vector<Hit> all = hits(view, x + 0.5, y + 0.5);
    return all.empty() ? std::nullopt : std::optional(all.front());
}

bool Scene::isEdge(const View& view, int x, int y) const
{
    const auto surfaces = [&](double dx, double dy) {
        std::vector<std::pair<int, int>> result;
        for (const Hit& hit : hits(view, x + 0.5 + dx, y + 0.5 + dy)) {
            result.emplace_back(hit.object, hit.primitive);
        }
        std::sort(result.begin(), result.end());
        return result;
    };
    const auto centre = surfaces(0.0, 0.0);
    constexpr double reach = 1.0 / 64.0;
    return surfaces(-reach, -reach) != centre || surfaces(reach, -reach) != centre ||
           surfaces(-reach, reach) != centre || surfaces(reach, reach) != centre;
}

Pixels Scene::image(const View& view, const std::function<QVector4D(const Hit*)>& f) const
{
    return Pixels::generate(view.size.width(), view.size.height(), [&](int x, int y) {
        if (isEdge(view, x, y)) {
            return anyPixel;
        }
        const std::optional<Hit> hit = at(view, x, y);
        return f(hit ? &*hit : nullptr);
    });
}

Pixels Scene::depths(const View& view) const
{
    return Pixels::generate(view.size.width(), view.size.height(), [&](int x, int y) {
        const std::optional<Hit> hit = at(view, x, y);
        const float depth = hit ? hit->depth : 1.0F;
        return QVector4D(depth, depth, depth, depth);
    });
}

ModelData makeSceneData()
{
    MaterialData dull;
    dull.kd = {0.7F, 0.6F, 0.5F};
    MaterialData shiny;
    shiny.kd = {0.2F, 0.4F, 0.6F};
    shiny.ks = {0.3F, 0.3F, 0.3F};
    shiny.ns = 20.0F;
    MaterialData translucent = shiny;
    translucent.kd = {0.6F, 0.2F, 0.3F};
    translucent.d = 0.5F;

    ModelData data;
    QMatrix4x4 floor;
    floor.translate(0.0F, -0.6F, 0.0F);
    floor.scale(4.0F, 0.2F, 4.0F);
    addObject(data, makeCube(), dull, floor);
    QMatrix4x4 box;
    box.translate(-0.6F, 0.1F, -0.3F);
    box.rotate(30.0F, 0.0F, 1.0F, 0.0F);
    box.scale(0.8F, 1.2F, 0.6F);
    addObject(data, makeCube(), shiny, box);
    QMatrix4x4 sphere;
    sphere.translate(0.4F, 0.1F, 0.3F);
    sphere.scale(0.5F);
    addObject(data, makeSphere(), translucent, sphere);
    return data;
}

View makeSceneView(const QSize& size)
{
    return View::perspective(size).from({1.0F, 1.8F, 3.2F});
}

} // namespace Morvane::Qel::Test
