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

#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/JsonKeys.h>
#include <Qel/graph/support/Ports.h>
#include <Qel/graph/support/Suggestions.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// The keys of a light; all that there are for a type that does not exist.
QStringList lightKeys(const QString& type)
{
    const QStringList common{u"type"_s, u"color"_s, u"intensity"_s};
    if (type == QLatin1StringView("directional")) {
        return common + QStringList{u"direction"_s, u"cascades"_s};
    }
    if (type == QLatin1StringView("point")) {
        return common + QStringList{u"position"_s, u"range"_s};
    }
    const QStringList spot = common + QStringList{u"position"_s, u"direction"_s, u"angle"_s, u"range"_s};
    return type == QLatin1StringView("spot") ? spot : spot + QStringList{u"cascades"_s};
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
            graph.viewport = constant(root[u"viewport"], u"QSize"_s, u"viewport"_s).toSize();
        }
        if (root.contains(u"camera")) {
            graph.camera = readCamera(root[u"camera"]);
        }
        readModels(root[u"models"], &graph.models);
        readLights(root[u"lights"], &graph.lights);
        readPasses(root[u"passes"], &graph.passes);
        graph.output = text(root, {}, u"output"_s);
        reportRepeatedKeys();
        return graph;
    }

private:
    void fault(const QString& path, const QString& what)
    {
        m_faults->append(
            u"%1:%2: %3%4"_s.arg(m_file, m_keys.place(path), path.isEmpty() ? path : path + u": "_s, what));
    }

    static QString memberPath(const QString& path, const QString& key)
    {
        return path.isEmpty() ? key : path + u'.' + key;
    }

    /// An object that has no other keys than these, empty when there are none.
    QJsonObject object(const QJsonValue& value, const QString& path, const QStringList& known)
    {
        if (!value.isObject() && !value.isUndefined()) {
            fault(path, u"must be an object {...}, not %1"_s.arg(jsonText(value)));
        }
        QJsonObject result = value.toObject();
        for (const QString& key : value.toObject().keys()) {
            if (!known.isEmpty() && !known.contains(key)) {
                fault(memberPath(path, key), u"no such key%1"_s.arg(suggestion(key, known)));
            }
        }
        return result;
    }

    QJsonArray array(const QJsonValue& value, const QString& path)
    {
        if (!value.isArray() && !value.isUndefined()) {
            fault(path, u"must be a list [...], not %1"_s.arg(jsonText(value)));
        }
        return value.toArray();
    }

    QVariant constant(const QJsonValue& value, const QString& type, const QString& path)
    {
        QString error;
        const std::optional<QVariant> result = constantFromJson(value, type, &error);
        if (!result || !result->isValid()) {
            fault(path, result ? u"must not be null"_s : error);
            return {};
        }
        return *result;
    }

    /// A text member, empty when there is none.
    QString text(const QJsonObject& parent, const QString& path, const QString& key)
    {
        return parent.contains(key) ? constant(parent[key], u"QString"_s, memberPath(path, key)).toString()
                                    : QString();
    }

    QString requiredText(const QJsonObject& parent, const QString& path, const QString& key)
    {
        if (!parent.contains(key)) {
            fault(path, u"needs a \"%1\""_s.arg(key));
        }
        return text(parent, path, key);
    }

    CameraDescription readCamera(const QJsonValue& value)
    {
        const QString path = u"camera"_s;
        const QJsonObject members = object(value, path, {"eye", "target", "up", "fovY", "near", "far"});
        CameraDescription camera;
        const auto readVector = [&](const QString& key, QVector3D* result, bool required) {
            if (members.contains(key)) {
                *result = constant(members[key], u"QVector3D"_s, memberPath(path, key)).value<QVector3D>();
            } else if (required) {
                fault(path, u"needs an \"%1\""_s.arg(key));
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
        return camera;
    }

    void readModels(const QJsonValue& value, std::vector<ModelDescription>* models)
    {
        const QString path = u"models"_s;
        const QJsonObject members = object(value, path, {});
        QStringList names = m_keys.keys(path);
        names.removeDuplicates();
        for (const QString& name : names) {
            models->push_back({name, text(members, path, name)});
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
            light.type = requiredText(members, path, u"type"_s);
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
            pass.name = requiredText(members, path, u"name"_s);
            pass.type = requiredText(members, path, u"type"_s);
            const QString inputsPath = path + u".inputs"_s;
            const QJsonObject inputs = object(members[u"inputs"], inputsPath, {});
            // Repeated keys stay: the check of the graph reports them with the pass and the port.
            for (const QString& port : m_keys.keys(inputsPath)) {
                pass.inputs.push_back({port, inputs[port]});
            }
            pass.options = object(members[u"options"], path + u".options"_s, {});
            passes->push_back(pass);
        }
    }

    void reportRepeatedKeys()
    {
        static const QRegularExpression inputs(uR"(^passes\[\d+\]\.inputs$)"_s);
        for (const JsonKeys::Key& repeated : m_keys.repeatedKeys()) {
            if (!inputs.match(repeated.object).hasMatch()) {
                m_faults->append(u"%1:%2: %3: written twice"_s.arg(
                    m_file, repeated.place, memberPath(repeated.object, repeated.key)));
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
    return u"[%1, %2, %3]"_s.arg(number(vector.x()), number(vector.y()), number(vector.z()));
}

/// A graph as the text of a file.
class Writer
{
public:
    Writer(const GraphDescription& graph, const QString& file, const PassRegistry& registry)
        : m_graph(graph)
        , m_registry(registry)
        , m_folder(QFileInfo(file).absolutePath())
        , m_moves(m_folder != QFileInfo(graph.resolvePath(u"."_s)).absoluteFilePath())
    {
    }

    QString text() const
    {
        QStringList parts;
        parts.append(
            u"\"viewport\": [%1, %2]"_s.arg(m_graph.viewport.width()).arg(m_graph.viewport.height()));
        if (m_graph.camera) {
            const CameraDescription& camera = *m_graph.camera;
            parts.append(
                uR"("camera": {"eye": %1, "target": %2, "up": %3, "fovY": %4, "near": %5, "far": %6})"_s.arg(
                    vectorText(camera.eye), vectorText(camera.target), vectorText(camera.up),
                    number(camera.fovY), number(camera.nearPlane), number(camera.farPlane)));
        }
        QStringList models;
        for (const ModelDescription& model : m_graph.models) {
            models.append(member(model.name, pathText(model.file)));
        }
        if (!models.isEmpty()) {
            parts.append(u"\"models\": {%1}"_s.arg(models.join(u", "_s)));
        }
        QStringList lights;
        for (const LightDescription& light : m_graph.lights) {
            lights.append(lightText(light));
        }
        if (!lights.isEmpty()) {
            parts.append(u"\"lights\": [%1]"_s.arg(lights.join(u", "_s)));
        }
        QStringList passes;
        for (const PassSetting& pass : m_graph.passes) {
            passes.append(u"\n    "_s + passText(pass));
        }
        parts.append(u"\"passes\": [%1\n  ]"_s.arg(passes.join(u',')));
        if (!m_graph.output.isEmpty()) {
            parts.append(member(u"output"_s, m_graph.output));
        }
        return u"{\n  %1\n}\n"_s.arg(parts.join(u",\n  "_s));
    }

private:
    static QString member(const QString& name, const QJsonValue& value)
    {
        return jsonText(name) + u": "_s + jsonText(value);
    }

    /// With the keys of its type, those that may be left out only where they say something.
    static QString lightText(const LightDescription& light)
    {
        const LightDescription initial;
        QStringList members{member(u"type"_s, light.type)};
        const auto write = [&](const QString& key, const QString& text, bool isNeeded) {
            if (isNeeded && lightKeys(light.type).contains(key)) {
                members.append(u"%1: %2"_s.arg(jsonText(key), text));
            }
        };
        write(u"position"_s, vectorText(light.position), true);
        write(u"direction"_s, vectorText(light.direction), true);
        write(u"color"_s, vectorText(light.color), light.color != initial.color);
        write(u"intensity"_s, number(light.intensity), light.intensity != initial.intensity);
        write(u"angle"_s, number(light.angle), light.angle != initial.angle);
        write(u"range"_s, number(light.range), light.range != initial.range);
        write(u"cascades"_s, QString::number(light.cascades), light.cascades != initial.cascades);
        return u"{%1}"_s.arg(members.join(u", "_s));
    }

    QString passText(const PassSetting& pass) const
    {
        QStringList members{member(u"name"_s, pass.name), member(u"type"_s, pass.type)};
        QStringList inputs;
        for (const InputSetting& input : pass.inputs) {
            inputs.append(member(input.port, isPathInput(pass, input)
                                                 ? QJsonValue(pathText(input.value.toString()))
                                                 : input.value));
        }
        if (!inputs.isEmpty()) {
            members.append(u"\"inputs\": {%1}"_s.arg(inputs.join(u", "_s)));
        }
        QStringList options;
        for (auto option = pass.options.begin(); option != pass.options.end(); ++option) {
            options.append(member(option.key(), isPathOption(pass, option.key())
                                                    ? QJsonValue(pathText(option.value().toString()))
                                                    : QJsonValue(option.value())));
        }
        if (!options.isEmpty()) {
            members.append(u"\"options\": {%1}"_s.arg(options.join(u", "_s)));
        }
        return u"{%1}"_s.arg(members.join(u", "_s));
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
        faults->append(u"%1: cannot be read: %2"_s.arg(file, QFileInfo(file).isDir() ? u"it is a folder"_s
                                                                                     : device.errorString()));
        return {};
    }
    const QByteArray text = device.readAll();
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text, &error);
    if (error.error != QJsonParseError::NoError) {
        faults->append(u"%1:%2: is not JSON: %3"_s.arg(file, JsonKeys::placeOf(text, error.offset),
                                                       error.errorString()));
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
        *error = u"%1: cannot be written: %2"_s.arg(file, device.errorString());
        return false;
    }
    return true;
}

} // namespace Morvane::Qel
