#pragma once

#include <QSharedPointer>

#include <vector>

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
};

/// \name Upload
/// Each creates the GL objects of one part of a model on the current context. Objects returned by plain
/// pointer, and the textures of materials, belong to `owner`.
/// @{
std::vector<GPUMesh> uploadMeshes(const std::vector<MeshData>& meshes);
std::vector<GPUMaterial> uploadMaterials(const ModelData& model, QObject* owner);
std::vector<InstanceDataCollection*> uploadInstances(const std::vector<InstanceData>& instances,
                                                     QObject* owner);
/// @}

} // namespace Morvane::Qel
