#include <Qel/graph/support/GraphReader.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/JsonKeys.h>
#include <Qel/graph/support/LightKeys.h>
#include <Qel/graph/support/Names.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Converts JSON into a graph description and collects errors in its structure.
class Reader
{
public:
    Reader(const QString& file, const QByteArray& text)
        : m_file(file)
        , m_keys(text)
    {
    }

    GraphDescription read(const QJsonValue& document)
    {
        GraphDescription graph;
        graph.file = m_file;
        const QJsonObject root =
            object(document, {},
                   {"viewport", "camera", "animation", "settle", "models", "lights", "passes", "output"});
        if (root.contains(u"viewport")) {
            graph.viewport = constant(root[u"viewport"], u"QSize"_s, u"viewport"_s).toSize();
        }
        if (root.contains(u"camera")) {
            graph.camera = readCamera(root[u"camera"]);
        }
        if (root.contains(u"animation")) {
            graph.animation = readAnimation(root[u"animation"]);
        }
        if (root.contains(u"settle")) {
            graph.settle = constant(root[u"settle"], u"int"_s, u"settle"_s).toInt();
        }
        readModels(root[u"models"], &graph.models);
        readLights(root[u"lights"], &graph.lights);
        readPasses(root[u"passes"], &graph.passes);
        graph.output = string(root, {}, u"output"_s);
        return graph;
    }

    /// Returns false if there were errors.
    bool report(QStringList* messages)
    {
        GraphErrors errors(m_file, messages);
        const QStringList places = m_paths.isEmpty() ? QStringList() : m_keys.places(m_paths);
        for (qsizetype i = 0; i < places.size(); ++i) {
            errors.addLine(u"%1:%2: %3%4"_s.arg(
                m_file, places[i], m_paths[i].isEmpty() ? QString() : m_paths[i] + u": "_s, m_causes[i]));
        }
        errors.addUnkept(m_numUnkept);
        for (const JsonKeys::Key& repeated : m_keys.repeatedKeys()) {
            errors.addLine(u"%1:%2: %3: duplicate key"_s.arg(m_file, repeated.place,
                                                             memberPath(repeated.object, repeated.key)));
        }
        errors.addUnkept(m_keys.numRepeatedKeys() - static_cast<qsizetype>(m_keys.repeatedKeys().size()));
        return errors.count() == 0;
    }

private:
    static QString memberPath(const QString& path, const QString& key)
    {
        return JsonKeys::memberPath(path, key);
    }

    void error(const QString& path, const QString& what)
    {
        if (m_paths.size() < GraphErrors::most) {
            m_paths.append(path);
            m_causes.append(what);
        } else {
            ++m_numUnkept;
        }
    }

    /// The value as an object that may have only the known keys, or any keys if none are given.
    QJsonObject object(const QJsonValue& value, const QString& path, const QStringList& known)
    {
        if (!value.isObject() && !value.isUndefined()) {
            error(path, u"must be an object {...}, not %1"_s.arg(shownValue(value)));
        }
        QJsonObject result = value.toObject();
        for (const QString& key : value.toObject().keys()) {
            if (!known.isEmpty() && !known.contains(key)) {
                error(memberPath(path, key), u"unknown key"_s + suggestion(key, known));
            }
        }
        return result;
    }

    QJsonArray array(const QJsonValue& value, const QString& path)
    {
        if (!value.isArray() && !value.isUndefined()) {
            error(path, u"must be an array [...], not %1"_s.arg(shownValue(value)));
        }
        return value.toArray();
    }

    QVariant constant(const QJsonValue& value, const QString& type, const QString& path)
    {
        QString message;
        const std::optional<QVariant> result = constantFromJson(value, type, &message);
        if (!result || !result->isValid()) {
            error(path, result ? u"must not be null"_s : message);
            return {};
        }
        return *result;
    }

    /// A string member, empty if it is missing.
    QString string(const QJsonObject& parent, const QString& path, const QString& key)
    {
        return parent.contains(key) ? constant(parent[key], u"QString"_s, memberPath(path, key)).toString()
                                    : QString();
    }

    QString requiredString(const QJsonObject& parent, const QString& path, const QString& key)
    {
        if (!parent.contains(key)) {
            error(path, u"\"%1\" is missing"_s.arg(key));
        }
        return string(parent, path, key);
    }

    /// Reads a member with its type, if it is there.
    template<class Value>
    void read(const QJsonObject& members, const QString& path, const QString& key, const char* type,
              Value* result)
    {
        if (members.contains(key)) {
            *result = constant(members[key], QLatin1StringView(type), memberPath(path, key)).value<Value>();
        }
    }

    CameraDescription readCamera(const QJsonValue& value)
    {
        const QString path = u"camera"_s;
        const QJsonObject members =
            object(value, path, {"eye", "target", "up", "orbit", "fovY", "near", "far"});
        CameraDescription camera;
        const bool hasOrbit = members.contains(u"orbit");
        if (hasOrbit) {
            camera.orbit = readOrbit(members[u"orbit"]);
            camera.nearPlane = 0.0F;
            camera.farPlane = 0.0F;
        } else if (!members.contains(u"eye")) {
            error(path, u"\"eye\" is missing"_s);
        }
        for (const QString& key : {u"eye"_s, u"target"_s, u"up"_s}) {
            if (hasOrbit && members.contains(key)) {
                error(memberPath(path, key),
                      u"cannot be combined with \"orbit\", which sets it; remove one of them"_s);
            }
        }
        read(members, path, u"eye"_s, "QVector3D", &camera.eye);
        read(members, path, u"target"_s, "QVector3D", &camera.target);
        read(members, path, u"up"_s, "QVector3D", &camera.up);
        read(members, path, u"fovY"_s, "float", &camera.fovY);
        read(members, path, u"near"_s, "float", &camera.nearPlane);
        read(members, path, u"far"_s, "float", &camera.farPlane);
        return camera;
    }

    OrbitDescription readOrbit(const QJsonValue& value)
    {
        const QString path = u"camera.orbit"_s;
        const QJsonObject members =
            object(value, path, {"target", "turns", "startAngle", "elevation", "distance"});
        OrbitDescription orbit;
        if (members.contains(u"target")) {
            read(members, path, u"target"_s, "QVector3D", &orbit.target.emplace());
        }
        read(members, path, u"turns"_s, "float", &orbit.turns);
        read(members, path, u"startAngle"_s, "float", &orbit.startAngle);
        read(members, path, u"elevation"_s, "float", &orbit.elevation);
        read(members, path, u"distance"_s, "float", &orbit.distance);
        return orbit;
    }

    AnimationDescription readAnimation(const QJsonValue& value)
    {
        const QString path = u"animation"_s;
        const QJsonObject members = object(value, path, {"frames", "fps"});
        AnimationDescription animation;
        if (!members.contains(u"frames")) {
            error(path, u"\"frames\" is missing"_s);
        }
        read(members, path, u"frames"_s, "int", &animation.frames);
        read(members, path, u"fps"_s, "float", &animation.fps);
        return animation;
    }

    void readModels(const QJsonValue& value, std::vector<ModelDescription>* models)
    {
        const QString path = u"models"_s;
        const QJsonObject members = object(value, path, {});
        QStringList names = m_keys.keys(path);
        names.removeDuplicates();
        for (const QString& name : names) {
            models->push_back({name, string(members, path, name)});
        }
    }

    void readLights(const QJsonValue& value, std::vector<LightDescription>* lights)
    {
        const QJsonArray elements = array(value, u"lights"_s);
        for (qsizetype i = 0; i < elements.size(); ++i) {
            const QString path = u"lights[%1]"_s.arg(i);
            const QStringList known = lightKeys(elements[i][u"type"].toString());
            const QJsonObject members = object(elements[i], path, known);
            LightDescription light;
            light.type = requiredString(members, path, u"type"_s);
            read(members, path, u"position"_s, "QVector3D", &light.position);
            read(members, path, u"direction"_s, "QVector3D", &light.direction);
            read(members, path, u"color"_s, "QVector3D", &light.color);
            read(members, path, u"intensity"_s, "float", &light.intensity);
            read(members, path, u"angle"_s, "float", &light.angle);
            read(members, path, u"range"_s, "float", &light.range);
            read(members, path, u"cascades"_s, "int", &light.cascades);
            lights->push_back(light);
        }
    }

    void readPasses(const QJsonValue& value, std::vector<PassSetting>* passes)
    {
        const QJsonArray elements = array(value, u"passes"_s);
        for (qsizetype i = 0; i < elements.size(); ++i) {
            const QString path = u"passes[%1]"_s.arg(i);
            const QJsonObject members = object(elements[i], path, {"name", "type", "inputs", "options"});
            PassSetting pass;
            pass.name = requiredString(members, path, u"name"_s);
            pass.type = requiredString(members, path, u"type"_s);
            const QString inputsPath = path + u".inputs"_s;
            const QJsonObject inputs = object(members[u"inputs"], inputsPath, {});
            // planGraph reports duplicate keys here, with the pass and the port.
            for (const QString& port : m_keys.keys(inputsPath)) {
                pass.inputs.push_back({port, inputs[port]});
            }
            pass.options = object(members[u"options"], path + u".options"_s, {});
            passes->push_back(pass);
        }
    }

    QString m_file;
    JsonKeys m_keys;
    /// The errors that are kept; their places in the text are looked up together.
    QStringList m_paths;
    QStringList m_causes;
    qsizetype m_numUnkept = 0;
};

} // namespace

std::optional<GraphDescription> readGraph(const QByteArray& text, const QString& file, QStringList* errors)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text, &error);
    if (error.error != QJsonParseError::NoError) {
        GraphErrors(file, errors)
            .addLine(u"%1:%2: not valid JSON: %3"_s.arg(file, JsonKeys::placeOf(text, error.offset),
                                                        error.errorString()));
        return {};
    }
    const QJsonValue root = document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
    Reader reader(file, text);
    GraphDescription graph = reader.read(root);
    return reader.report(errors) ? std::optional(std::move(graph)) : std::nullopt;
}

} // namespace Morvane::Qel
