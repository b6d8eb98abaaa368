#include <Qel/graph/GraphFile.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSaveFile>

#include <algorithm>
#include <array>
#include <charconv>

#include <Qel/graph/PassRegistry.h>

#include "support/Constants.h"
#include "support/JsonKeys.h"
#include "support/Ports.h"
#include "support/Suggestions.h"

namespace Morvane::Qel {

namespace {

/// The keys of a light; all that there are for a type that does not exist.
QStringList lightKeys(const QString& type)
{
    const QStringList common{QStringLiteral("type"), QStringLiteral("color"), QStringLiteral("intensity")};
    if (type == QLatin1StringView("directional")) {
        return common + QStringList{QStringLiteral("direction"), QStringLiteral("cascades")};
    }
    if (type == QLatin1StringView("point")) {
        return common + QStringList{QStringLiteral("position"), QStringLiteral("range")};
    }
    const QStringList spot = common + QStringList{QStringLiteral("position"), QStringLiteral("direction"),
                                                  QStringLiteral("angle"), QStringLiteral("range")};
    return type == QLatin1StringView("spot") ? spot : spot + QStringList{QStringLiteral("cascades")};
}

/// Turns the JSON of a graph file into a description and collects what has the wrong form.
class Reader
{
public:
    Reader(const QString& file, const QByteArray& text, QStringList* faults)
        : m_file(file)
        , m_keys(text)
        , m_faults(faults)
    {
    }

    GraphDescription read(const QJsonValue& document)
    {
        GraphDescription graph;
        graph.file = m_file;
        const QJsonObject root =
            object(document, {}, {"viewport", "camera", "models", "lights", "passes", "output"});
        if (root.contains(u"viewport")) {
            graph.viewport =
                constant(root[u"viewport"], QStringLiteral("QSize"), QStringLiteral("viewport")).toSize();
        }
        if (root.contains(u"camera")) {
            graph.camera = readCamera(root[u"camera"]);
        }
        readModels(root[u"models"], &graph.models);
        readLights(root[u"lights"], &graph.lights);
        readPasses(root[u"passes"], &graph.passes);
        graph.output = text(root, {}, QStringLiteral("output"));
        reportRepeatedKeys();
        return graph;
    }

private:
    void fault(const QString& path, const QString& what)
    {
        m_faults->append(
            QStringLiteral("%1:%2: %3%4")
                .arg(m_file, m_keys.place(path), path.isEmpty() ? path : path + QStringLiteral(": "), what));
    }

    static QString memberPath(const QString& path, const QString& key)
    {
        return path.isEmpty() ? key : path + u'.' + key;
    }

    /// An object that has no other keys than these, empty when there are none.
    QJsonObject object(const QJsonValue& value, const QString& path, const QStringList& known)
    {
        if (!value.isObject() && !value.isUndefined()) {
            fault(path, QStringLiteral("must be an object {...}, not %1").arg(jsonText(value)));
        }
        QJsonObject result = value.toObject();
        for (const QString& key : value.toObject().keys()) {
            if (!known.isEmpty() && !known.contains(key)) {
                fault(memberPath(path, key), QStringLiteral("no such key%1").arg(suggestion(key, known)));
            }
        }
        return result;
    }

    QJsonArray array(const QJsonValue& value, const QString& path)
    {
        if (!value.isArray() && !value.isUndefined()) {
            fault(path, QStringLiteral("must be a list [...], not %1").arg(jsonText(value)));
        }
        return value.toArray();
    }

    QVariant constant(const QJsonValue& value, const QString& type, const QString& path)
    {
        QString error;
        const std::optional<QVariant> result = constantFromJson(value, type, &error);
        if (!result || !result->isValid()) {
            fault(path, result ? QStringLiteral("must not be null") : error);
            return {};
        }
        return *result;
    }

    /// A text member, empty when there is none.
    QString text(const QJsonObject& parent, const QString& path, const QString& key)
    {
        return parent.contains(key)
                   ? constant(parent[key], QStringLiteral("QString"), memberPath(path, key)).toString()
                   : QString();
    }

    QString requiredText(const QJsonObject& parent, const QString& path, const QString& key)
    {
        if (!parent.contains(key)) {
            fault(path, QStringLiteral("needs a \"%1\"").arg(key));
        }
        return text(parent, path, key);
    }

    CameraDescription readCamera(const QJsonValue& value)
    {
        const QString path = QStringLiteral("camera");
        const QJsonObject members = object(value, path, {"eye", "target", "up", "fovY", "near", "far"});
        CameraDescription camera;
        const auto readVector = [&](const QString& key, QVector3D* result, bool required) {
            if (members.contains(key)) {
                *result = constant(members[key], QStringLiteral("QVector3D"), memberPath(path, key))
                              .value<QVector3D>();
            } else if (required) {
                fault(path, QStringLiteral("needs an \"%1\"").arg(key));
            }
        };
        const auto readNumber = [&](const QString& key, float* result) {
            if (members.contains(key)) {
                *result = constant(members[key], QStringLiteral("float"), memberPath(path, key)).toFloat();
            }
        };
        readVector(QStringLiteral("eye"), &camera.eye, true);
        readVector(QStringLiteral("target"), &camera.target, false);
        readVector(QStringLiteral("up"), &camera.up, false);
        readNumber(QStringLiteral("fovY"), &camera.fovY);
        readNumber(QStringLiteral("near"), &camera.nearPlane);
        readNumber(QStringLiteral("far"), &camera.farPlane);
        return camera;
    }

    void readModels(const QJsonValue& value, std::vector<ModelDescription>* models)
    {
        const QString path = QStringLiteral("models");
        const QJsonObject members = object(value, path, {});
        QStringList names = m_keys.keys(path);
        names.removeDuplicates();
        for (const QString& name : names) {
            models->push_back({name, text(members, path, name)});
        }
    }

    void readLights(const QJsonValue& value, std::vector<LightDescription>* lights)
    {
        const QJsonArray elements = array(value, QStringLiteral("lights"));
        for (qsizetype i = 0; i < elements.size(); ++i) {
            const QString path = QStringLiteral("lights[%1]").arg(i);
            const QStringList known = lightKeys(elements[i][u"type"].toString());
            const QJsonObject members = object(elements[i], path, known);
            LightDescription light;
            light.type = requiredText(members, path, QStringLiteral("type"));
            const auto read = [&]<class Value>(const QString& key, const char* type, Value* result) {
                if (members.contains(key)) {
                    *result =
                        constant(members[key], QLatin1StringView(type), memberPath(path, key)).value<Value>();
                }
            };
            read(QStringLiteral("position"), "QVector3D", &light.position);
            read(QStringLiteral("direction"), "QVector3D", &light.direction);
            read(QStringLiteral("color"), "QVector3D", &light.color);
            read(QStringLiteral("intensity"), "float", &light.intensity);
            read(QStringLiteral("angle"), "float", &light.angle);
            read(QStringLiteral("range"), "float", &light.range);
            read(QStringLiteral("cascades"), "int", &light.cascades);
            lights->push_back(light);
        }
    }

    void readPasses(const QJsonValue& value, std::vector<PassSetting>* passes)
    {
        const QJsonArray elements = array(value, QStringLiteral("passes"));
        for (qsizetype i = 0; i < elements.size(); ++i) {
            const QString path = QStringLiteral("passes[%1]").arg(i);
            const QJsonObject members = object(elements[i], path, {"name", "type", "inputs", "options"});
            PassSetting pass;
            pass.name = requiredText(members, path, QStringLiteral("name"));
            pass.type = requiredText(members, path, QStringLiteral("type"));
            const QString inputsPath = path + QStringLiteral(".inputs");
            const QJsonObject inputs = object(members[u"inputs"], inputsPath, {});
            // Repeated keys stay: the check of the graph reports them with the pass and the port.
            for (const QString& port : m_keys.keys(inputsPath)) {
                pass.inputs.push_back({port, inputs[port]});
            }
            pass.options = object(members[u"options"], path + QStringLiteral(".options"), {});
            passes->push_back(pass);
        }
    }

    void reportRepeatedKeys()
    {
        static const QRegularExpression inputs(QStringLiteral(R"(^passes\[\d+\]\.inputs$)"));
        for (const JsonKeys::Key& repeated : m_keys.repeatedKeys()) {
            if (!inputs.match(repeated.object).hasMatch()) {
                m_faults->append(QStringLiteral("%1:%2: %3: written twice")
                                     .arg(m_file, repeated.place, memberPath(repeated.object, repeated.key)));
            }
        }
    }

    QString m_file;
    JsonKeys m_keys;
    QStringList* m_faults;
};

/// The shortest text that reads back as the same float.
QString number(float value)
{
    std::array<char, 32> text;
    const auto result = std::to_chars(text.begin(), text.end(), value);
    return QString::fromLatin1(text.data(), result.ptr - text.data());
}

QString vectorText(const QVector3D& vector)
{
    return QStringLiteral("[%1, %2, %3]").arg(number(vector.x()), number(vector.y()), number(vector.z()));
}

/// A graph as the text of a file.
class Writer
{
public:
    Writer(const GraphDescription& graph, const QString& file, const PassRegistry& registry)
        : m_graph(graph)
        , m_registry(registry)
        , m_folder(QFileInfo(file).absolutePath())
        , m_moves(m_folder != QFileInfo(graph.resolvePath(QStringLiteral("."))).absoluteFilePath())
    {
    }

    QString text() const
    {
        QStringList parts;
        parts.append(QStringLiteral("\"viewport\": [%1, %2]")
                         .arg(m_graph.viewport.width())
                         .arg(m_graph.viewport.height()));
        if (m_graph.camera) {
            const CameraDescription& camera = *m_graph.camera;
            parts.append(
                QStringLiteral(
                    R"("camera": {"eye": %1, "target": %2, "up": %3, "fovY": %4, "near": %5, "far": %6})")
                    .arg(vectorText(camera.eye), vectorText(camera.target), vectorText(camera.up),
                         number(camera.fovY), number(camera.nearPlane), number(camera.farPlane)));
        }
        QStringList models;
        for (const ModelDescription& model : m_graph.models) {
            models.append(member(model.name, pathText(model.file)));
        }
        if (!models.isEmpty()) {
            parts.append(QStringLiteral("\"models\": {%1}").arg(models.join(QStringLiteral(", "))));
        }
        QStringList lights;
        for (const LightDescription& light : m_graph.lights) {
            lights.append(lightText(light));
        }
        if (!lights.isEmpty()) {
            parts.append(QStringLiteral("\"lights\": [%1]").arg(lights.join(QStringLiteral(", "))));
        }
        QStringList passes;
        for (const PassSetting& pass : m_graph.passes) {
            passes.append(QStringLiteral("\n    ") + passText(pass));
        }
        parts.append(QStringLiteral("\"passes\": [%1\n  ]").arg(passes.join(u',')));
        if (!m_graph.output.isEmpty()) {
            parts.append(member(QStringLiteral("output"), m_graph.output));
        }
        return QStringLiteral("{\n  %1\n}\n").arg(parts.join(QStringLiteral(",\n  ")));
    }

private:
    static QString member(const QString& name, const QJsonValue& value)
    {
        return jsonText(name) + QStringLiteral(": ") + jsonText(value);
    }

    /// With the keys of its type, those that may be left out only where they say something.
    static QString lightText(const LightDescription& light)
    {
        const LightDescription initial;
        QStringList members{member(QStringLiteral("type"), light.type)};
        const auto write = [&](const QString& key, const QString& text, bool isNeeded) {
            if (isNeeded && lightKeys(light.type).contains(key)) {
                members.append(QStringLiteral("%1: %2").arg(jsonText(key), text));
            }
        };
        write(QStringLiteral("position"), vectorText(light.position), true);
        write(QStringLiteral("direction"), vectorText(light.direction), true);
        write(QStringLiteral("color"), vectorText(light.color), light.color != initial.color);
        write(QStringLiteral("intensity"), number(light.intensity), light.intensity != initial.intensity);
        write(QStringLiteral("angle"), number(light.angle), light.angle != initial.angle);
        write(QStringLiteral("range"), number(light.range), light.range != initial.range);
        write(QStringLiteral("cascades"), QString::number(light.cascades),
              light.cascades != initial.cascades);
        return QStringLiteral("{%1}").arg(members.join(QStringLiteral(", ")));
    }

    QString passText(const PassSetting& pass) const
    {
        QStringList members{member(QStringLiteral("name"), pass.name),
                            member(QStringLiteral("type"), pass.type)};
        QStringList inputs;
        for (const InputSetting& input : pass.inputs) {
            inputs.append(member(input.port, isPathInput(pass, input)
                                                 ? QJsonValue(pathText(input.value.toString()))
                                                 : input.value));
        }
        if (!inputs.isEmpty()) {
            members.append(QStringLiteral("\"inputs\": {%1}").arg(inputs.join(QStringLiteral(", "))));
        }
        QStringList options;
        for (auto option = pass.options.begin(); option != pass.options.end(); ++option) {
            options.append(member(option.key(), isPathOption(pass, option.key())
                                                    ? QJsonValue(pathText(option.value().toString()))
                                                    : QJsonValue(option.value())));
        }
        if (!options.isEmpty()) {
            members.append(QStringLiteral("\"options\": {%1}").arg(options.join(QStringLiteral(", "))));
        }
        return QStringLiteral("{%1}").arg(members.join(QStringLiteral(", ")));
    }

    /// A path of the graph as it must be written at the new place.
    QString pathText(const QString& path) const
    {
        return m_moves && !path.isEmpty() && QDir::isRelativePath(path)
                   ? QDir(m_folder).relativeFilePath(m_graph.resolvePath(path))
                   : path;
    }

    bool isPathInput(const PassSetting& pass, const InputSetting& input) const
    {
        const PassDescription* description = m_registry.description(pass.type);
        if (!description || !input.value.isString() || input.value.toString().startsWith(u'@')) {
            return false;
        }
        const Ports ports = portsOf(*description, pass.options[u"inputs"].toVariant().toStringList(), {});
        const QList<int> found = findPorts(ports.inputs, input.port);
        return found.size() == 1 &&
               PortName::parse(ports.inputs[found[0]]).type == QLatin1StringView("QString");
    }

    bool isPathOption(const PassSetting& pass, const QString& name) const
    {
        const PassDescription* description = m_registry.description(pass.type);
        return description && std::any_of(description->options.begin(), description->options.end(),
                                          [&](const OptionDescription& option) {
                                              return option.isFile && option.name == name;
                                          });
    }

    const GraphDescription& m_graph;
    const PassRegistry& m_registry;
    QString m_folder;
    bool m_moves;
};

} // namespace

std::optional<GraphDescription> loadGraph(const QString& file, QStringList* faults)
{
    QFile device(file);
    if (QFileInfo(file).isDir() || !device.open(QIODevice::ReadOnly)) {
        faults->append(QStringLiteral("%1: cannot be read: %2")
                           .arg(file, QFileInfo(file).isDir() ? QStringLiteral("it is a folder")
                                                              : device.errorString()));
        return {};
    }
    const QByteArray text = device.readAll();
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text, &error);
    if (error.error != QJsonParseError::NoError) {
        faults->append(QStringLiteral("%1:%2: is not JSON: %3")
                           .arg(file, JsonKeys::placeOf(text, error.offset), error.errorString()));
        return {};
    }
    const qsizetype faultsBefore = faults->size();
    const QJsonValue root = document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
    GraphDescription graph = Reader(file, text, faults).read(root);
    if (faults->size() > faultsBefore) {
        return {};
    }
    return graph;
}

bool saveGraph(const GraphDescription& graph, const QString& file, const PassRegistry& registry,
               QString* error)
{
    const QByteArray text = Writer(graph, file, registry).text().toUtf8();
    QSaveFile device(file);
    if (!device.open(QIODevice::WriteOnly) || device.write(text) != text.size() || !device.commit()) {
        *error = QStringLiteral("%1: cannot be written: %2").arg(file, device.errorString());
        return false;
    }
    return true;
}

} // namespace Morvane::Qel
