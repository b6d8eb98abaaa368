#pragma once

#include <QPair>
#include <QSize>
#include <QStringList>
#include <QVariant>
#include <QVector3D>

#include <array>
#include <memory>
#include <optional>
#include <vector>

#include <Qel/gl/MemoryAccount.h>
#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/support/FrameValues.h>
#include <Qel/graph/support/ModelMerges.h>
#include <Qel/model/GPUModel.h>
#include <Qel/model/ModelImport.h>
#include <Qel/model/ShadowMapManager.h>

namespace Morvane::Qel {

class GraphErrors;

/// Reads, places and merges the models of a graph, in its order. On failure returns nothing and adds a line
/// to `errors` for each model that cannot be made. Logs the warnings of the import.
std::optional<std::vector<ModelData>> importModels(const GraphDescription& graph,
                                                   const ImportOptions& options, GraphErrors& errors);

/// The models of a graph on the GPU, and its frame values. A model that is a part of another and that no pass
/// takes by its name is not shown: it is not on the GPU and does not count for the bounds.
class Scene
{
public:
    Scene(const GraphPlan& plan, std::vector<ModelData> models);
    /// Shares the models of another scene, which has those of the plan.
    Scene(const GraphPlan& plan, const Scene& other);
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    /// Whether this scene has the models that a plan describes, and shows those that the plan shows.
    bool hasModelsOf(const GraphPlan& plan) const;
    /// Null for a model that is not shown.
    GPUModel* model(size_t index) const { return m_models[index].get(); }
    /// The bytes of the models on the GPU, also of those that are shared with other scenes.
    qint64 modelBytes() const { return m_memory.numBytes(); }
    /// Corners of the box around all models; both zero without geometry.
    const QPair<QVector3D, QVector3D>& bounds() const { return m_bounds; }

    /// Vertices of all models that a view is fitted to (outlineOf).
    std::vector<QVector3D> outline() const;

    /// Replaces a model, which gets its placement, and renews those that it is merged into. Returns the old
    /// ones.
    std::vector<std::shared_ptr<GPUModel>> replaceModel(size_t index, const ModelData& data);
    void setLights(const std::vector<LightDescription>& lights);
    /// Updates the frame values that depend on the camera and the viewport.
    void setView(const CameraDescription& camera, const QSize& viewport);

    /// Updates the frame values of the clock.
    void setClock(int frameNumber, float fps);
    /// Updates the frame value NewFrame.
    void setNewFrame(bool isNew);

    const QVariant& frameValue(FrameValue value) const { return m_frameValues[static_cast<size_t>(value)]; }
    /// Whether a frame value was set since the last markUnchanged.
    bool isChanged(FrameValue value) const { return m_isChanged[static_cast<size_t>(value)]; }
    void markUnchanged() { m_isChanged.fill(false); }

private:
    std::shared_ptr<GPUModel> show(size_t index, ModelData data);
    void updateBounds();
    void setFrameValue(FrameValue value, const QVariant& content);

    std::vector<ModelDescription> m_descriptions;
    ModelMerges m_merges;
    std::vector<bool> m_isShown;
    std::vector<std::shared_ptr<GPUModel>> m_models;
    MemoryAccount m_memory;
    std::vector<std::vector<QVector3D>> m_outlines;
    /// The models that are parts of others; empty for others.
    std::vector<ModelData> m_parts;
    /// The frame value Lights points to these.
    std::vector<ShadowMapManager::Light> m_lights;
    QPair<QVector3D, QVector3D> m_bounds;
    std::array<QVariant, numFrameValues> m_frameValues;
    std::array<bool, numFrameValues> m_isChanged{};
};

} // namespace Morvane::Qel
