#include <Qel/model/ModelAssembly.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <limits>

#include <Qel/model/AssimpTypes.h>
#include <Qel/model/BoundingBox.h>
#include <Qel/model/ShapeTransform.h>

namespace Morvane::Qel {

namespace {

using Vector = ShapeTransform::Vector;

/// What happens to the vertices of a mesh.
struct VertexChange
{
    ShapeTransform shape;
    QVector3D offset;

    bool isClose(const VertexChange& other) const
    {
        return shape.isClose(other.shape) && offset == other.offset;
    }
};

QVector3D toFloats(const Vector& v)
{
    return {static_cast<float>(v.x), static_cast<float>(v.y), static_cast<float>(v.z)};
}

MeshData changed(const MeshData& mesh, const VertexChange& change)
{
    MeshData result = mesh;
    for (QVector3D& p : result.positions) {
        p = toFloats(change.shape.position({p.x(), p.y(), p.z()})) + change.offset;
    }
    for (QVector3D& n : result.normals) {
        const Vector normal = change.shape.normal({n.x(), n.y(), n.z()});
        const double length = normal.Length();
        n = length > 0.0 ? toFloats(normal / length) : QVector3D(0.0F, 0.0F, 1.0F);
    }
    if (change.shape.isMirrored()) {
        for (size_t i = 0; i + 2 < result.indices.size(); i += 3) {
            std::swap(result.indices[i + 1], result.indices[i + 2]);
        }
    }
    return result;
}

/// Changes meshes, each once for every different change.
class ChangedMeshes
{
public:
    ChangedMeshes(const std::vector<MeshData>& sources, std::vector<MeshData>& results)
        : m_sources(sources)
        , m_results(results)
        , m_variants(sources.size())
    {
    }

    /// Returns the index of the result; -1 for a mesh that does not exist.
    int index(int source, const VertexChange& change)
    {
        // A negative index becomes a large one.
        const auto mesh = static_cast<size_t>(source);
        if (mesh >= m_sources.size()) {
            return -1;
        }
        for (const Variant& variant : m_variants[mesh]) {
            if (variant.change.isClose(change)) {
                return variant.index;
            }
        }
        const int index = static_cast<int>(m_results.size());
        m_results.push_back(change.isClose({}) ? m_sources[mesh] : changed(m_sources[mesh], change));
        m_variants[mesh].push_back({change, index});
        return index;
    }

private:
    struct Variant
    {
        VertexChange change;
        int index;
    };
    const std::vector<MeshData>& m_sources;
    std::vector<MeshData>& m_results;
    std::vector<std::vector<Variant>> m_variants;
};

/// Calls a function with the transformed world-space position of each vertex of each instance.
template<class Function>
void forEachVertex(const ModelData& model, const QMatrix4x4& transform, const Function& function)
{
    for (const InstanceData& instance : model.instances) {
        const auto mesh = static_cast<size_t>(instance.mesh);
        if (mesh >= model.meshes.size()) {
            continue;
        }
        const QMatrix4x4 placement = transform * instance.transform;
        const bool isPlaced = !placement.isIdentity();
        for (const QVector3D& position : model.meshes[mesh].positions) {
            function(isPlaced ? placement.map(position) : position);
        }
    }
}

template<class Element>
void append(std::vector<Element>& to, const std::vector<Element>& from)
{
    to.insert(to.end(), from.begin(), from.end());
}

} // namespace

ModelData transformed(const ModelData& model, const QMatrix4x4& transform)
{
    if (transform.isIdentity()) {
        return model;
    }
    ModelData result;
    result.materials = model.materials;
    result.images = model.images;
    result.imageSources = model.imageSources;
    result.warnings = model.warnings;
    result.source = model.source;
    ChangedMeshes meshes(model.meshes, result.meshes);
    for (const InstanceData& instance : model.instances) {
        if (instance.transform.isIdentity()) {
            const VertexChange change{ShapeTransform(transform), transform.column(3).toVector3D()};
            result.instances.push_back({meshes.index(instance.mesh, change), {}});
        } else {
            const SplitTransform parts = split(transform * instance.transform);
            result.instances.push_back({meshes.index(instance.mesh, {parts.shape, {}}), parts.motion});
        }
    }
    return result;
}

ModelData merged(const std::vector<const ModelData*>& models)
{
    ModelData result;
    for (const ModelData* model : models) {
        const auto numMeshes = static_cast<int>(result.meshes.size());
        const auto numMaterials = static_cast<int>(result.materials.size());
        const auto numImages = static_cast<int>(result.images.size());
        // An index of something that does not exist must not become one of another model's.
        const auto moved = [](int index, int offset, size_t size) {
            return static_cast<size_t>(index) < size ? index + offset : -1;
        };
        for (MeshData mesh : model->meshes) {
            mesh.material = moved(mesh.material, numMaterials, model->materials.size());
            result.meshes.push_back(std::move(mesh));
        }
        for (InstanceData instance : model->instances) {
            instance.mesh = moved(instance.mesh, numMeshes, model->meshes.size());
            result.instances.push_back(instance);
        }
        for (MaterialData material : model->materials) {
            material.mapKd = moved(material.mapKd, numImages, model->images.size());
            material.mapKs = moved(material.mapKs, numImages, model->images.size());
            result.materials.push_back(std::move(material));
        }
        append(result.images, model->images);
        append(result.imageSources, model->imageSources);
        result.imageSources.resize(result.images.size());
        result.warnings += model->warnings;
    }
    return result;
}

QPair<QVector3D, QVector3D> boundsOf(const ModelData& model, const QMatrix4x4& transform)
{
    BoundingBox box;
    forEachVertex(model, transform, [&](const QVector3D& p) { box.add(p); });
    return box.corners();
}

std::vector<QVector3D> outlineOf(const ModelData& model)
{
    // Of all vertices in a bar along x, with a small square as its cross-section, only the two at its ends
    // count.
    constexpr int numBars = 128;
    struct Bar
    {
        QVector3D low{std::numeric_limits<float>::infinity(), 0.0F, 0.0F};
        QVector3D high{-std::numeric_limits<float>::infinity(), 0.0F, 0.0F};
    };
    const auto [lower, upper] = boundsOf(model);
    std::vector<Bar> bars(size_t{numBars} * numBars);
    const auto barAlong = [&, lower = lower, upper = upper](float value, int axis) {
        // In double precision, because the side of a huge box overflows float.
        const double side = static_cast<double>(upper[axis]) - static_cast<double>(lower[axis]);
        const double offset = static_cast<double>(value) - static_cast<double>(lower[axis]);
        return static_cast<size_t>(side > 0.0 ? std::clamp(offset / side * numBars, 0.0, numBars - 1.0)
                                              : 0.0);
    };
    forEachVertex(model, {}, [&](const QVector3D& p) {
        if (!std::isfinite(p.x()) || !std::isfinite(p.y()) || !std::isfinite(p.z())) {
            return;
        }
        Bar& bar = bars[barAlong(p.y(), 1) * numBars + barAlong(p.z(), 2)];
        if (p.x() < bar.low.x()) {
            bar.low = p;
        }
        if (p.x() > bar.high.x()) {
            bar.high = p;
        }
    });
    std::vector<QVector3D> outline;
    for (const Bar& bar : bars) {
        if (bar.low.x() <= bar.high.x()) {
            outline.push_back(bar.low);
            if (bar.high != bar.low) {
                outline.push_back(bar.high);
            }
        }
    }
    return outline;
}

} // namespace Morvane::Qel
