#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QSize>
#include <QString>
#include <QVector3D>

#include <optional>
#include <vector>

#include <Qel/graph/Export.h>

namespace Morvane::Qel {

/// A perspective view in world space.
struct CameraDescription
{
    QVector3D eye;
    QVector3D target;
    QVector3D up{0.0F, 1.0F, 0.0F};
    /// Vertical field of view in degrees, above 0 and below 180.
    float fovY = 45.0F;
    /// Distances of the clipping planes from the eye, 0 < nearPlane < farPlane.
    float nearPlane = 0.1F;
    float farPlane = 100.0F;

    bool operator==(const CameraDescription&) const = default;
};

/// A light of the scene, in world space: "directional", with direction and cascades; "spot", with position,
/// direction, angle and range; "point", with position and range. What a type does not have is ignored.
struct LightDescription
{
    QString type;
    QVector3D position = {};
    /// The direction in which it shines, not zero.
    QVector3D direction = {};
    /// Linear red, green and blue, 0 or more, and a factor of it, 0 or more.
    QVector3D color{1.0F, 1.0F, 1.0F};
    float intensity = 1.0F;
    /// The whole opening angle of a spot light in degrees, above 0 and at most 170.
    float angle = 45.0F;
    /// The distance at which the light ends; 0 stands for the farthest corner of the scene.
    float range = 0.0F;
    /// Shadow maps of a directional light along the view, 1 to 8.
    int cascades = 1;

    bool operator==(const LightDescription&) const = default;
};

/// A model by the name that inputs use for it.
struct ModelDescription
{
    QString name;
    /// Path of the model file, relative to the graph file.
    QString file;

    bool operator==(const ModelDescription&) const = default;
};

/// What an input of a pass is set to: "@pass.Port", "@model", "@FrameValue" or a constant as JSON.
struct InputSetting
{
    /// Own name or full name of the port.
    QString port;
    QJsonValue value;

    bool operator==(const InputSetting&) const = default;
};

/// One pass of a graph.
struct PassSetting
{
    QString name;
    QString type;
    std::vector<InputSetting> inputs;
    QJsonObject options;

    bool operator==(const PassSetting&) const = default;
};

/// What a graph file says, as plain data that nobody checked yet. Fill it by hand to make a graph in code.
struct QEL_GRAPH_EXPORT GraphDescription
{
    /// Path of the graph file: relative paths in the graph start from its folder, and messages name it. Empty
    /// for a graph made in code, whose paths start from the current folder.
    QString file;
    /// Size of the picture in pixels.
    QSize viewport{1280, 720};
    /// Without one the view fits the models' bounds.
    std::optional<CameraDescription> camera;
    /// In the order of the file.
    std::vector<ModelDescription> models;
    std::vector<LightDescription> lights;
    std::vector<PassSetting> passes;
    /// "@pass.Port", the texture that is the graph's picture; empty for a graph that only draws to the
    /// screen.
    QString output;

    bool operator==(const GraphDescription&) const = default;

    /// How messages name the graph: its file, or "graph" without one.
    QString displayName() const;
    /// A path of the graph made absolute; empty stays empty.
    QString resolvePath(const QString& path) const;

    /// Replaces the file of the first model and drops the camera, which was placed for the old one, so that
    /// the view fits the new one. A graph without models gets one named "model". `modelFile` is relative to
    /// the current folder.
    void replaceModel(const QString& modelFile);

    /// Sets an input from a text "PASS.PORT=VALUE", replacing what the graph says. VALUE is read as JSON when
    /// it is JSON, otherwise as a text: 0.5, true, #ff8000, [1,2,3], @blur.Frame. A text that is the path of
    /// a file from the current folder stands for that file. False with one line in `error` when the
    /// assignment has another form or names no pass of the graph; port and value are checked with the rest of
    /// the graph by planGraph.
    bool set(const QString& assignment, QString* error);
};

} // namespace Morvane::Qel
