#pragma once

#include <QHash>
#include <QJsonObject>
#include <QJsonValue>
#include <QSize>
#include <QString>
#include <QVector3D>

#include <optional>
#include <vector>

#include <Qel/graph/Export.h>

namespace Morvane::Qel {

class PassRegistry;

/// Where something is written. Descriptions that differ only in this are equal.
struct SourcePlace
{
    /// Path of a graph file, from whose folder relative paths start; empty for the file of the graph itself.
    QString file;
    /// Line in the file, from 1; 0 if it is not known.
    int line = 0;

    bool operator==(const SourcePlace&) const { return true; }
};

/// A camera that circles around a target, with y up. Its position depends on the frame number.
struct OrbitDescription
{
    /// The point that the camera looks at; if not set, the centre of the box around all models.
    std::optional<QVector3D> target;
    /// Turns over the frames of the animation, counter-clockwise seen from above; negative for clockwise.
    /// Frame 0 is at the start angle, and the frame after the last one would be the same as frame 0 after a
    /// whole number of turns. A graph without an animation shows the start angle.
    float turns = 1.0F;
    /// Angle of frame 0 in degrees: 0 looks along -z, 90 along -x.
    float startAngle = 0.0F;
    /// Angle of the camera above the horizontal plane through the target in degrees, above -90 and below 90.
    float elevation = 20.0F;
    /// Distance from the target, 0 or more; 0 for the smallest distance at which the models stay inside the
    /// image in every frame.
    float distance = 0.0F;

    bool operator==(const OrbitDescription&) const = default;
};

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
    /// Replaces `eye`, `target` and `up` by those of the frame. With an orbit, a clipping plane of 0 is
    /// fitted to the models.
    std::optional<OrbitDescription> orbit = {};

    bool operator==(const CameraDescription&) const = default;
};

/// The length of a graph's animation and its clock.
struct AnimationDescription
{
    /// Number of frames, 1 to 1000000.
    int frames = 1;
    /// Frames per second, above 0 and at most 1000.
    float fps = 30.0F;

    bool operator==(const AnimationDescription&) const = default;
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

/// A named value, which "$name" stands for in inputs, options, the camera, lights, models and the viewport.
struct ParameterDescription
{
    QString name;
    /// A JSON constant, "@pass.Port", "@model", "$name" of another parameter, or keyed values:
    /// {"keys": [[FRAME, VALUE], ...], "ease": "smooth", "linear" or "step"}.
    QJsonValue value;
    SourcePlace source = {};

    bool operator==(const ParameterDescription&) const = default;
};

/// A value outside the passes that is a parameter or keyed. The member of the description holds its value in
/// frame 0.
struct BoundValue
{
    /// As in messages, such as "camera.eye" or "lights[0].intensity".
    QString place;
    /// "$name" or keyed values.
    QJsonValue value;
    SourcePlace source = {};

    /// Whether this is a section, such as "camera" or "models.cat", or a member of it.
    bool isOf(const QString& section) const { return place == section || place.startsWith(section + u'.'); }

    bool operator==(const BoundValue&) const = default;
};

/// The value of a pass input: "@pass.Port", "@model", "@FrameValue", "$parameter" or a JSON constant.
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
    /// Any of the values, also inside of lists of objects, may be "$parameter".
    QJsonObject options;
    SourcePlace source = {};

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
    std::vector<ParameterDescription> parameters;
    std::vector<BoundValue> boundValues;
    /// If not set, the graph has one image, frame 0; the clock then runs at 30 frames per second.
    std::optional<AnimationDescription> animation;
    /// How many times a frame is rendered, with the clock standing, until its image counts, 1 to 10000: a
    /// temporal pass gathers samples in them. renderSequenceFrame does this; RenderGraph::renderFrame renders
    /// once.
    int settle = 1;
    std::vector<ModelDescription> models;
    std::vector<LightDescription> lights;
    std::vector<PassSetting> passes;
    /// "@pass.Port", the texture that holds the output image; empty for a graph that only draws to the
    /// screen.
    QString output;
    /// The assignments made with `set`, by the place in messages of what they set; errors in these values
    /// then name the assignment.
    QHash<QString, QString> assignments;

    bool operator==(const GraphDescription&) const = default;

    /// Name of the graph in messages: its file, or "graph" if it has none.
    QString displayName() const;
    /// Where a model comes from, for messages: "glow.json: models.cat", or its origin.
    QString placeOf(const ModelDescription& model) const;
    /// Makes a path absolute that is written in one of the graph's files (SourcePlace::file); an empty path
    /// stays empty.
    QString resolvePath(const QString& path, const QString& writtenIn = {}) const;

    /// The value in a frame that "$name" or keyed values stand for; other values stay. A name that no
    /// parameter has gives null.
    QJsonValue resolved(const QJsonValue& value, double frame = 0.0) const;

    /// Replaces the file of the first model that has one and keeps its placement, or adds a model named
    /// "model" if there is none. `modelFile` is relative to the current folder, `origin` see
    /// ModelDescription. Removes the camera, so that the view is fitted to the new model.
    void replaceModel(const QString& modelFile, const QString& origin = {});
    /// Removes the camera, so that the view is fitted to the models.
    void removeCamera();

    /// Sets the value of a parameter, and with it the members in `boundValues` that follow it. Returns false
    /// with what is wrong in `error`, and changes nothing, if the graph has no such parameter or the value
    /// does not fit such a member; planGraph checks the rest.
    bool setParameter(const QString& name, const QJsonValue& value, QString* error);
    /// Sets a value from "WHAT=VALUE", replacing the one in the graph. WHAT is the name of a parameter,
    /// "PASS.PORT", "PASS.OPTION", "viewport", a member of the camera such as "camera.eye", or of a light,
    /// such as "lights.0.intensity". VALUE is JSON, or else a string: 0.5, true, #ff8000, [1,2,3],
    /// @blur.Frame. A string that names an existing file relative to the current folder becomes the absolute
    /// path of that file. Returns false with one line in `error`, "--set WHAT=VALUE: what is wrong", if the
    /// assignment is malformed or the graph has no such parameter, pass or member; planGraph checks the rest.
    bool set(const QString& assignment, const PassRegistry& registry, QString* error);
    /// The same with the built-in passes.
    bool set(const QString& assignment, QString* error);
};

} // namespace Morvane::Qel
