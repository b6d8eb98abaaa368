#pragma once

#include <QSharedPointer>
#include <QString>

#include <vector>

#include <Qel/model/GPUModel.h>
#include <Qel/model/ModelImport.h>

class QObject;

namespace Morvane::Qel {

class BufferObject;
class InstanceDataCollection;
class VertexArrayObject;

/// The vertex array and index buffer of a mesh, shared by all its batches.
struct GPUMesh
{
    QSharedPointer<VertexArrayObject> vertexArray;
    QSharedPointer<BufferObject> indices;
    int numIndices = 0;
};

/// A material's block and textures, and the draw flags that follow from them.
struct GPUMaterial
{
    InstanceDataCollection* data = nullptr;
    unsigned long long flags = 0;
    Opacity opacity = Opacity::Opaque;
};

/// What is wrong with a model's data, reported in one line at the end.
class ModelFaults
{
public:
    ModelFaults() = default;
    ~ModelFaults();
    ModelFaults(const ModelFaults&) = delete;
    ModelFaults& operator=(const ModelFaults&) = delete;

    /// Returns the condition; where it does not hold, `fault` says what is wrong and what is done instead.
    template<class Fault>
    bool check(bool condition, const Fault& fault)
    {
        if (!condition && m_count++ == 0) {
            m_first = fault();
        }
        return condition;
    }

private:
    QString m_first;
    int m_count = 0;
};

/// \name Upload
/// Each creates the GL objects of one part of a model on the current context and leaves out what is
/// incomplete. Objects returned by plain pointer, and the textures of materials, belong to `owner`.
/// @{
std::vector<GPUMesh> uploadMeshes(const std::vector<MeshData>& meshes, ModelFaults& faults);
/// A default material, for meshes without one, follows those of the model.
std::vector<GPUMaterial> uploadMaterials(const ModelData& model, ModelFaults& faults, QObject* owner);
std::vector<InstanceDataCollection*> uploadInstances(const std::vector<InstanceData>& instances,
                                                     QObject* owner);
/// @}

} // namespace Morvane::Qel
