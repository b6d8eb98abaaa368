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
            object(document, {}, {"viewport", "camera", "models", "lights", "passes", "output"});
        if (root.contains(u"viewport")) {
            graph.viewport = constant(root[u"viewport"], u"QSize"_s, u"viewport"_s).toSize();
        }
        if (root.contains(u"camera")) {
            graph.camera = readCamera(root[u"camera"]);
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

    CameraDescription readCamera(const QJsonValue& value)
    {
        const QString path = u"camera"_s;
        const QJsonObject members =
            object(value, path, {"eye", "target", "up", "fovY", "height", "near", "far"});
        CameraDescription camera;
        const auto readVector = [&](const QString& key, QVector3D* result, bool required) {
            if (members.contains(key)) {
                *result = constant(members[key], u"QVector3D"_s, memberPath(path, key)).value<QVector3D>();
            } else if (required) {
                error(path, u"\"%1\" is missing"_s.arg(key));
            }
        };
        const auto readNumber = [&](const QString& key, float* result) {
            if (members.contains(key)) {
                *result = constant(members[key], u"float"_s, memberPath(path, key)).toFloat();
            }
        };
        readVector(u"eye"_s, &camera.eye, true);
        readVector(u"target"_s, &camera.target, false);
        readVector(u"up"_s, &camera.up, false);
        readNumber(u"fovY"_s, &camera.fovY);
        readNumber(u"near"_s, &camera.nearPlane);
        readNumber(u"far"_s, &camera.farPlane);
        if (members.contains(u"height")) {
            readNumber(u"height"_s, &camera.height.emplace());
            if (members.contains(u"fovY")) {
                error(memberPath(path, u"height"_s), u"excludes \"fovY\"; a height makes the camera "
                                                     "orthographic"_s);
            }
        }
        return camera;
    }

    void readModels(const QJsonValue& value, std::vector<ModelDescription>* models)
    {
        const QString path = u"models"_s;
        const QJsonObject members = object(value, path, {});
        QStringList names = m_keys.keys(path);
        names.removeDuplicates();
        for (const QString& name : names) {
            models->push_back(readModel(name, members[name], memberPath(path, name)));
        }
    }

    ModelDescription readModel(const QString& name, const QJsonValue& value, const QString& path)
    {
        ModelDescription model{name, {}};
        if (value.isString()) {
            model.file = value.toString();
            return model;
        }
        // Of a repeated "models", only the last is in the document.
        if (value.isUndefined()) {
            return model;
        }
        if (!value.isObject()) {
            error(path, u"must be a file name or an object {...}, not %1"_s.arg(shownValue(value)));
            return model;
        }
        const QJsonObject members =
            object(value, path, {"file", "merge", "upAxis", "scale", "fit", "rotate", "translate"});
        if (members.contains(u"file") == members.contains(u"merge")) {
            error(path, u"must have either \"file\" or \"merge\""_s);
        }
        model.file = string(members, path, u"file"_s);
        const QString mergePath = memberPath(path, u"merge"_s);
        const QJsonArray parts = array(members[u"merge"], mergePath);
        for (qsizetype i = 0; i < parts.size(); ++i) {
            model.merge.append(
                constant(parts[i], u"QString"_s, u"%1[%2]"_s.arg(mergePath).arg(i)).toString());
        }
        if (members[u"merge"].isArray() && parts.isEmpty()) {
            error(mergePath, u"must name at least one model"_s);
        }
        readPlacement(members, path, &model.placement);
        return model;
    }

    void readPlacement(const QJsonObject& members, const QString& path, ModelPlacement* placement)
    {
        const auto read = [&]<class Value>(const QString& key, const char* type, Value* result) {
            if (members.contains(key)) {
                *result =
                    constant(members[key], QLatin1StringView(type), memberPath(path, key)).value<Value>();
            }
        };
        read(u"upAxis"_s, "QString", &placement->upAxis);
        if (members[u"scale"].isDouble()) {
            float factor = 1.0F;
            read(u"scale"_s, "float", &factor);
            placement->scale = {factor, factor, factor};
        } else if (members.contains(u"scale") && !members[u"scale"].isArray()) {
            error(memberPath(path, u"scale"_s), u"must be a number or three numbers [x, y, z], not %1"_s.arg(
                                                    shownValue(members[u"scale"])));
        } else {
            read(u"scale"_s, "QVector3D", &placement->scale);
        }
        if (members.contains(u"fit")) {
            read(u"fit"_s, "float", &placement->fit);
            if (members[u"fit"].isDouble() && placement->fit <= 0.0F) {
                error(memberPath(path, u"fit"_s), u"must be above 0"_s);
            }
        }
        read(u"rotate"_s, "QVector3D", &placement->rotate);
        read(u"translate"_s, "QVector3D", &placement->translate);
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
            const auto read = [&]<class Value>(const QString& key, const char* type, Value* result) {
                if (members.contains(key)) {
                    *result =
                        constant(members[key], QLatin1StringView(type), memberPath(path, key)).value<Value>();
                }
            };
            read(u"position"_s, "QVector3D", &light.position);
            read(u"direction"_s, "QVector3D", &light.direction);
            read(u"color"_s, "QVector3D", &light.color);
            read(u"intensity"_s, "float", &light.intensity);
            read(u"angle"_s, "float", &light.angle);
            read(u"range"_s, "float", &light.range);
            read(u"cascades"_s, "int", &light.cascades);
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
