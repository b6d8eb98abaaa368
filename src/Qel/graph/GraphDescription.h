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

/// A view in world space, perspective unless it has a height.
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
    /// The height of an orthographic view in world units, above 0, which makes fovY unused.
    std::optional<float> height = {};

    bool operator==(const CameraDescription&) const = default;
};

/// A light in world space. Its type is "directional", which uses direction and cascades, "spot", which uses
/// position, direction, angle and range, or "point", which uses position and range; members that the type
/// does not use are ignored.
struct LightDescription
{
    QString type;
    QVector3D position = {};
    /// Direction in which the light travels, not zero.
    QVector3D direction = {};
    /// Linear RGB, 0 or more, which `intensity`, 0 or more, scales.
    QVector3D color{1.0F, 1.0F, 1.0F};
    float intensity = 1.0F;
    /// Full cone angle of a spot light in degrees, above 0 and at most 170.
    float angle = 45.0F;
    /// Distance at which the light ends; 0 extends it to the farthest corner of the scene.
    float range = 0.0F;
    /// Number of shadow map cascades of a directional light, 1 to 8.
    int cascades = 1;

    bool operator==(const LightDescription&) const = default;
};

/// Where a model stands and how large it is. The members are applied in their order.
struct ModelPlacement
{
    /// The axis of the model, "x", "y" or "z", that is turned to +y.
    QString upAxis = QStringLiteral("y");
    /// Factors along x, y and z, not 0.
    QVector3D scale{1.0F, 1.0F, 1.0F};
    /// If above 0, the model is scaled so that the largest side of its bounds has this length, and moved so
    /// that it stands on the origin: its bounds begin at y = 0 and are centred in x and z.
    float fit = 0.0F;
    /// Degrees about the world's x axis, then its y axis, then its z axis.
    QVector3D rotate = {};
    QVector3D translate = {};

    bool operator==(const ModelPlacement&) const = default;
};

/// A named model: a file, or several models of the graph merged into one.
struct ModelDescription
{
    QString name;
    /// Path of the model file, relative to the graph file; empty for a merged model.
    QString file;
    ModelPlacement placement = {};
    /// Names of the models that are merged, each with its placement; empty for a file.
    QStringList merge = {};
    /// What messages name as the place of this model, such as "--model cat.obj"; empty for its place in the
    /// graph file.
    QString origin = {};

    bool operator==(const ModelDescription&) const = default;
};

/// The value of a pass input: "@pass.Port", "@model", "@FrameValue" or a JSON constant.
struct InputSetting
{
    /// Short or full name of the port.
    QString port;
    QJsonValue value;

    bool operator==(const InputSetting&) const = default;
};

/// A pass of a graph.
struct PassSetting
{
    QString name;
    QString type;
    std::vector<InputSetting> inputs;
    QJsonObject options;

    bool operator==(const PassSetting&) const = default;
};

/// The contents of a graph file as plain, unchecked data. To build a graph in code, fill it in yourself.
struct QEL_GRAPH_EXPORT GraphDescription
{
    /// Path of the graph file, from whose folder relative paths in the graph start. Empty for a graph built
    /// in code, whose paths start from the current folder.
    QString file;
    /// Size in pixels.
    QSize viewport{1280, 720};
    /// If not set, the view is fitted to the models.
    std::optional<CameraDescription> camera;
    std::vector<ModelDescription> models;
    std::vector<LightDescription> lights;
    std::vector<PassSetting> passes;
    /// "@pass.Port", the texture that holds the output image; empty for a graph that only draws to the
    /// screen.
    QString output;

    bool operator==(const GraphDescription&) const = default;

    /// Name of the graph in messages: its file, or "graph" if it has none.
    QString displayName() const;
    /// Where a model comes from, for messages: "glow.json: models.cat", or its origin.
    QString placeOf(const ModelDescription& model) const;
    /// Makes a path of the graph absolute; an empty path stays empty.
    QString resolvePath(const QString& path) const;

    /// Replaces the file of the first model that has one and keeps its placement, or adds a model named
    /// "model" if there is none. `modelFile` is relative to the current folder, `origin` see
    /// ModelDescription. Removes the camera, so that the view is fitted to the new model.
    void replaceModel(const QString& modelFile, const QString& origin = {});

    /// Sets an input from "PASS.PORT=VALUE", replacing its value in the graph. VALUE is JSON, or else a
    /// string: 0.5, true, #ff8000, [1,2,3], @blur.Frame. A string that names an existing file relative to the
    /// current folder becomes the absolute path of that file. Returns false with one line in `error` if the
    /// assignment is malformed or the graph has no such pass; planGraph checks the port and the value.
    bool set(const QString& assignment, QString* error);
};

} // namespace Morvane::Qel
