#include <Qel/model/GPUModel.h>

#include <algorithm>
#include <array>
#include <vector>

#include <epoxy/gl.h>

#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/model/GPUModelUpload.h>
#include <Qel/model/WorldBounds.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

unsigned int frontFace(WindingType winding)
{
    return winding == WindingType::CounterClockwise ? GL_CCW : GL_CW;
}

} // namespace

struct GPUModel::Batch
{
    DrawBuffers* drawBuffers;
    InstanceDataCollection* object;
    InstanceDataCollection* material;
    unsigned long long flags;
    Opacity opacity;
    /// Whether the transform reverses the winding of triangles.
    bool isMirrored;
};

struct GPUModel::Private
{
    /// Caches the uniform "u_DrawID" of the programs that draw this model.
    class DrawIdUniforms
    {
    public:
        Uniform& of(const ShaderProgram* program)
        {
            for (Entry& entry : m_entries) {
                if (entry.program == program) {
                    return entry.uniform;
                }
            }
            m_next = (m_next + 1) % m_entries.size();
            m_entries[m_next].program = program;
            return m_entries[m_next].uniform;
        }

    private:
        struct Entry
        {
            const ShaderProgram* program = nullptr;
            Uniform uniform{"u_DrawID"};
        };
        // A frame draws a model with few programs; beyond eight, the uniform is looked up again.
        std::array<Entry, 8> m_entries;
        size_t m_next = 0;
    };

    static auto matching(unsigned long long value, unsigned long long mask)
    {
        return [=](const Batch& batch) { return (batch.flags & mask) == value; };
    }
    static auto ofOpacity(Opacity opacity)
    {
        return [=](const Batch& batch) { return batch.opacity == opacity; };
    }

    template<class IsSelected>
    void draw(ShaderProgram* program, TextureManager* textureManager, const IsSelected& isSelected,
              unsigned int winding);

    std::vector<Batch> batches;
    DrawIdUniforms drawIds;
    QPair<QVector3D, QVector3D> bounds;
    /// Of the batches of each opacity.
    std::array<std::vector<QPair<QVector3D, QVector3D>>, 2> partBounds;
    int numTriangles = 0;
};

GPUModel::GPUModel(const ModelData& data, QObject* parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{
    ModelFaults faults;
    const std::vector<GPUMaterial> materials = uploadMaterials(data, faults, this);
    const std::vector<GPUMesh> meshes = uploadMeshes(data.meshes, faults);
    const std::vector<InstanceDataCollection*> objects = uploadInstances(data.instances, this);
    std::array<WorldBounds, 2> bounds;
    for (size_t i = 0; i < data.instances.size(); ++i) {
        const InstanceData& instance = data.instances[i];
        // A negative index becomes a large one.
        const auto meshIndex = static_cast<size_t>(instance.mesh);
        if (!faults.check(meshIndex < meshes.size(), [&] {
                return u"instance %1 is of mesh %2 of %3 and left out"_s.arg(i)
                    .arg(instance.mesh)
                    .arg(meshes.size());
            })) {
            continue;
        }
        const MeshData& mesh = data.meshes[meshIndex];
        const GPUMesh& buffers = meshes[meshIndex];
        auto materialIndex = static_cast<size_t>(mesh.material);
        if (!faults.check(materialIndex < data.materials.size(), [&] {
                return u"mesh \"%1\" has material %2 of %3; the default one is used"_s.arg(mesh.name)
                    .arg(mesh.material)
                    .arg(data.materials.size());
            })) {
            materialIndex = data.materials.size();
        }
        const GPUMaterial& material = materials[materialIndex];
        auto* drawBuffers = new DrawBuffers(this);
        drawBuffers->setVAO(buffers.vertexArray);
        drawBuffers->setPrimitiveType(GL_TRIANGLES);
        drawBuffers->setIndexedDraw(buffers.indices, buffers.numIndices, GL_UNSIGNED_INT);
        d->batches.push_back({drawBuffers, objects[i], material.data, material.flags, material.opacity,
                              instance.transform.determinant() < 0.0});
        d->numTriangles += buffers.numIndices / 3;
        bounds[static_cast<size_t>(material.opacity)].add(mesh.positions, instance.transform);
    }
    BoundingBox all;
    for (size_t i = 0; i < bounds.size(); ++i) {
        all.add(bounds[i].box());
        d->partBounds[i] = bounds[i].parts();
    }
    d->bounds = all.corners();
}

GPUModel::~GPUModel() = default;

void GPUModel::draw(ShaderProgram* program, unsigned long long value, unsigned long long mask,
                    WindingType winding)
{
    OpenGLDeviceContext::current()->setFrontFace(frontFace(winding));
    d->draw(program, nullptr, Private::matching(value, mask), frontFace(winding));
}

void GPUModel::draw(ShaderProgram* program, Opacity opacity, WindingType winding)
{
    OpenGLDeviceContext::current()->setFrontFace(frontFace(winding));
    d->draw(program, nullptr, Private::ofOpacity(opacity), frontFace(winding));
}

void GPUModel::draw(ShaderProgram* program, TextureManager* textureManager, unsigned long long value,
                    unsigned long long mask)
{
    d->draw(program, textureManager, Private::matching(value, mask),
            OpenGLDeviceContext::current()->frontFace());
}

template<class IsSelected>
void GPUModel::Private::draw(ShaderProgram* program, TextureManager* textureManager,
                             const IsSelected& isSelected, unsigned int winding)
{
    if (program == nullptr || !program->isValid()) {
        return;
    }
    const AutoBinder binder(program);
    Uniform& drawId = drawIds.of(program);
    const unsigned int oppositeWinding = winding == GL_CCW ? GL_CW : GL_CCW;
    const Batch* previous = nullptr;
    bool isMirrored = false;
    for (size_t i = 0; i < batches.size(); ++i) {
        const Batch& batch = batches[i];
        if (!isSelected(batch)) {
            continue;
        }
        if (batch.isMirrored != isMirrored) {
            isMirrored = batch.isMirrored;
            glFrontFace(isMirrored ? oppositeWinding : winding);
        }
        batch.object->bind(textureManager);
        if (previous == nullptr || batch.material != previous->material) {
            batch.material->bind(textureManager);
        }
        if (previous == nullptr) {
            batch.drawBuffers->bind();
        } else if (batch.drawBuffers->VAO() != previous->drawBuffers->VAO()) {
            // Released after binding the next one: releasing first would rebind the outer vertex array in
            // between.
            batch.drawBuffers->bind();
            previous->drawBuffers->release();
        }
        program->setUniform(drawId, static_cast<int>(i));
        batch.drawBuffers->draw();
        previous = &batch;
    }
    if (previous != nullptr) {
        previous->drawBuffers->release();
        previous->material->unbind(textureManager);
        previous->object->unbind(textureManager);
    }
    if (isMirrored) {
        glFrontFace(winding);
    }
}

bool GPUModel::isDrawEmpty(unsigned long long value, unsigned long long mask) const
{
    return std::none_of(d->batches.begin(), d->batches.end(), Private::matching(value, mask));
}

bool GPUModel::isDrawEmpty(Opacity opacity) const
{
    return std::none_of(d->batches.begin(), d->batches.end(), Private::ofOpacity(opacity));
}

int GPUModel::numBatches() const
{
    return static_cast<int>(d->batches.size());
}

DrawBuffers* GPUModel::drawBuffers(int batch) const
{
    return hasBatch(batch) ? d->batches[static_cast<size_t>(batch)].drawBuffers : nullptr;
}

InstanceDataCollection* GPUModel::materialData(int batch) const
{
    return hasBatch(batch) ? d->batches[static_cast<size_t>(batch)].material : nullptr;
}

InstanceDataCollection* GPUModel::objectData(int batch) const
{
    return hasBatch(batch) ? d->batches[static_cast<size_t>(batch)].object : nullptr;
}

unsigned long long GPUModel::drawFlags(int batch) const
{
    return hasBatch(batch) ? d->batches[static_cast<size_t>(batch)].flags : 0;
}

void GPUModel::setDrawFlags(int batch, unsigned long long flags)
{
    if (hasBatch(batch)) {
        d->batches[static_cast<size_t>(batch)].flags = flags;
    }
}

bool GPUModel::hasBatch(int batch) const
{
    return batch >= 0 && batch < numBatches();
}

QPair<QVector3D, QVector3D> GPUModel::bounds() const
{
    return d->bounds;
}

const std::vector<QPair<QVector3D, QVector3D>>& GPUModel::partBounds(Opacity opacity) const
{
    return d->partBounds[static_cast<size_t>(opacity)];
}

void GPUModel::setBounds(const QPair<QVector3D, QVector3D>& box)
{
    d->bounds = box;
    d->partBounds.fill({box});
}

int GPUModel::numTriangles() const
{
    return d->numTriangles;
}

} // namespace Morvane::Qel
