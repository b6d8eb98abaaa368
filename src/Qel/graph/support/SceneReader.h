#pragma once

#include <QJsonValue>

#include <vector>

#include <Qel/graph/support/ValueReader.h>

namespace Morvane::Qel {

/// Reads what a graph file says about the scene: everything but its passes.
class SceneReader : public ValueReader
{
public:
    using ValueReader::ValueReader;

    void readViewport(const QJsonValue& value);

    CameraDescription readCamera(const QJsonValue& value);

    AnimationDescription readAnimation(const QJsonValue& value);

    void readModels(const QJsonValue& value, std::vector<ModelDescription>* models);

    void readLights(const QJsonValue& value, std::vector<LightDescription>* lights);

    /// Replaces a part of the graph, see readSection.
    bool readPart(const QString& section, const QJsonValue& value, QString* what);

private:
    OrbitDescription readOrbit(const QJsonValue& value);

    void readModel(const QString& name, const QJsonValue& value, std::vector<ModelDescription>* models);

    void readPlacement(const QJsonObject& members, const QString& path, ModelPlacement* placement);

    /// The path of a model as it is from the graph's own file.
    QString modelPath(const QJsonValue& value, const QString& place);
};

/// Replaces a part of a graph that is no pass: "viewport", "camera", "lights[N]" or "models.NAME". On failure
/// the graph stays as it was; returns false with what is wrong in `error`.
bool readSection(GraphDescription* graph, const QString& section, const QJsonValue& value, QString* error);

} // namespace Morvane::Qel
