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

#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/support/FrameValues.h>
#include <Qel/model/GPUModel.h>
#include <Qel/model/ModelImport.h>
#include <Qel/model/ShadowMapManager.h>

namespace Morvane::Qel {

class GraphErrors;

/// Reads the model files of a graph whose place in `models`, in the graph's order, is null, and uploads them.
/// On failure returns false and adds a line to `errors` for each file that cannot be read. Logs the warnings
/// of the import.
bool loadModels(const GraphDescription& graph, const ImportOptions& options,
                std::vector<std::shared_ptr<GPUModel>>& models, GraphErrors& errors);

/// The models of a graph on the GPU, and its frame values.
class Scene
{
public:
    Scene(const GraphDescription& graph, std::vector<std::shared_ptr<GPUModel>> models);
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    const std::shared_ptr<GPUModel>& model(size_t index) const { return m_models[index]; }
    /// Corners of the box around all models; both zero without geometry.
    const QPair<QVector3D, QVector3D>& bounds() const { return m_bounds; }

    /// Replaces a model and returns the old one.
    std::shared_ptr<GPUModel> replaceModel(size_t index, std::shared_ptr<GPUModel> model);
    void setLights(const std::vector<LightDescription>& lights);
    /// Updates the frame values that depend on the camera and the viewport.
    void setView(const CameraDescription& camera, const QSize& viewport);

    const QVariant& frameValue(FrameValue value) const { return m_frameValues[static_cast<size_t>(value)]; }
    /// Whether a frame value was set since the last markUnchanged.
    bool isChanged(FrameValue value) const { return m_isChanged[static_cast<size_t>(value)]; }
    void markUnchanged() { m_isChanged.fill(false); }

private:
    void updateBounds();
    void setFrameValue(FrameValue value, const QVariant& content);

    std::vector<std::shared_ptr<GPUModel>> m_models;
    /// The frame value Lights points to these.
    std::vector<ShadowMapManager::Light> m_lights;
    QPair<QVector3D, QVector3D> m_bounds;
    std::array<QVariant, numFrameValues> m_frameValues;
    std::array<bool, numFrameValues> m_isChanged{};
};

} // namespace Morvane::Qel
