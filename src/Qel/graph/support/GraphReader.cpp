#include <Qel/graph/support/GraphReader.h>

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>

#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/GraphDocument.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/GraphInlining.h>
#include <Qel/graph/support/JsonKeys.h>
#include <Qel/graph/support/Keys.h>
#include <Qel/graph/support/LightKeys.h>
#include <Qel/graph/support/Names.h>
#include <Qel/graph/support/Parameters.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// What the files of one graph share while they are read.
struct Files
{
    QStringList* errors;
    /// The files being read, each included by the one before it.
    QStringList open = {};
    qint64 numBytesLeft = largestGraphText;
    bool good = true;
};

constexpr qsizetype deepestInclude = 32;

/// A graph, while the files that include one another are read into it.
struct Scope
{
    GraphDescription graph = {};
    /// The files that were read, and names that their contents gave.
    QSet<QString> files = {};
    QSet<QString> parameters = {};
    QHash<QString, SourcePlace> passes = {};
    GraphPassOutputs graphPasses = {};
};

/// Reads the JSON of one file into a graph description and collects errors in its structure.
class Reader
{
public:
    /// `own` is the path of the file, empty for the graph's own.
    Reader(const GraphDocument& document, const QString& own, Scope* scope, Files* files)
        : m_file(document.file)
        , m_own(own)
        , m_root(document.root)
        , m_keys(document.text)
        , m_scope(*scope)
        , m_graph(scope->graph)
        , m_files(*files)
        , m_numIncludedLights(scope->graph.lights.size())
    {
    }

    void read()
    {
        const QJsonObject root = object(m_root, {},
                                        {"$schema", "viewport", "camera", "animation", "settle", "models",
                                         "lights", "passes", "output", "parameters", "include"});
        readParameters(root[u"parameters"]);
        readIncludes(root[u"include"]);
        m_parameters.emplace(m_graph);
        checkParameters();
        m_numIncludedLights = m_graph.lights.size();
        if (root.contains(u"viewport")) {
            unbind(u"viewport"_s);
            readViewport(root[u"viewport"]);
        }
        if (root.contains(u"camera")) {
            unbind(u"camera"_s);
            m_graph.camera = readCamera(root[u"camera"]);
        }
        if (root.contains(u"animation")) {
            m_graph.animation = readAnimation(root[u"animation"]);
        }
        if (root.contains(u"settle")) {
            m_graph.settle = constant(root[u"settle"], u"int"_s, u"settle"_s).toInt();
        }
        readModels(root[u"models"], &m_graph.models);
        readLights(root[u"lights"], &m_graph.lights);
        readPasses(root[u"passes"], &m_graph.passes);
        if (root.contains(u"output")) {
            m_graph.output = string(root, {}, u"output"_s);
        }
    }

    /// Replaces a part of the graph, see readSection.
    bool readPart(const QString& section, const QJsonValue& value, QString* what)
    {
        if (section == QLatin1StringView("viewport")) {
            readViewport(value);
        } else if (section == QLatin1StringView("camera")) {
            m_graph.camera = readCamera(value);
        } else if (section.startsWith(QLatin1StringView("lights["))) {
            const auto index = section.sliced(7).chopped(1).toULongLong();
            std::vector<LightDescription> lights;
            readLights(QJsonArray{value}, &lights);
            m_graph.lights[index] = lights.front();
        } else {
            std::vector<ModelDescription> models;
            readModel(section.sliced(7), value, &models);
            const auto same = [&](const ModelDescription& model) {
                return model.name == models.front().name;
            };
            *std::find_if(m_graph.models.begin(), m_graph.models.end(), same) = models.front();
        }
        *what = m_causes.value(0);
        return m_causes.isEmpty();
    }

    /// Call this once all files of a graph are read.
    void renameGraphPasses(Scope* scope)
    {
        GraphErrors errors(m_file, m_files.errors);
        renameOutputs(&scope->graph, scope->graphPasses, errors);
        m_files.good = m_files.good && errors.count() == 0;
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
        m_files.good = m_files.good && errors.count() == 0;
        return errors.count() == 0;
    }

private:
    static QString memberPath(const QString& path, const QString& key)
    {
        return JsonKeys::memberPath(path, key);
    }

    void error(const QString& path, const QString& what)
    {
        if (what.isEmpty()) {
            return;
        }
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
        if (path.startsWith(QLatin1StringView("camera")) || path.startsWith(QLatin1StringView("lights[")) ||
            path.startsWith(QLatin1StringView("models"))) {
            for (auto member = result.begin(); member != result.end(); ++member) {
                member.value() = bound(member.value(), memberPath(path, member.key()));
            }
        }
        return result;
    }

    /// The value, in frame 0, of a member outside the passes. Notes it if it is a parameter or has keys.
    QJsonValue bound(const QJsonValue& value, const QString& path)
    {
        if (!m_parameters || (!isParameterUse(value) && !isKeyed(value))) {
            return value;
        }
        if (isKeyed(value)) {
            if (const std::optional<KeysError> wrong = keysError(value)) {
                error(memberPath(path, wrong->path), wrong->what);
                m_unresolved.insert(path);
                return value;
            }
        }
        const ResolvedValue resolved = m_parameters->resolve(value, 0.0);
        if (!resolved.error.isEmpty()) {
            error(path, resolved.error);
            m_unresolved.insert(path);
            return value;
        }
        QString place = path;
        if (path.startsWith(QLatin1StringView("lights["))) {
            const QStringView index = QStringView(path).sliced(7, path.indexOf(u']') - 7);
            place = u"lights[%1]%2"_s.arg(index.toULongLong() + m_numIncludedLights)
                        .arg(path.sliced(path.indexOf(u']') + 1));
        }
        m_graph.boundValues.push_back({place, value, source(path.section(u'.', 0, 1))});
        m_bound.insert(path,
                       {resolved.parameter ? resolved.parameter->name : QString(), resolved.file({m_own})});
        return resolved.value;
    }

    /// Forgets what an included file has bound.
    void unbind(const QString& section)
    {
        std::erase_if(m_graph.boundValues,
                      [&](const BoundValue& bound) { return bound.place.section(u'.', 0, 0) == section; });
    }

    SourcePlace source(const QString& path) const { return {m_own, m_keys.line(path)}; }

    QJsonArray array(const QJsonValue& value, const QString& path)
    {
        if (!value.isArray() && !value.isUndefined()) {
            error(path, u"must be an array [...], not %1"_s.arg(shownValue(value)));
        }
        return value.toArray();
    }

    QVariant constant(const QJsonValue& value, const QString& type, const QString& path)
    {
        if (m_unresolved.contains(path)) {
            return {};
        }
        QString message;
        const std::optional<QVariant> result = constantFromJson(value, type, &message);
        if (!result || !result->isValid()) {
            error(path, (result ? u"must not be null"_s : message) + parameterNote(path));
            return {};
        }
        return *result;
    }

    /// What a message about a value adds if it is that of a parameter.
    QString parameterNote(const QString& path) const
    {
        const QString parameter = m_bound.value(path).parameter;
        return parameter.isEmpty() ? QString() : u", the value of the parameter \"%1\""_s.arg(parameter);
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

    void readParameters(const QJsonValue& value)
    {
        const QString path = u"parameters"_s;
        const QJsonObject members = object(value, path, {});
        for (const QString& name : m_keys.keys(path)) {
            const QString place = memberPath(path, name);
            const QJsonValue given = members[name];
            if (const QString wrong = nameError(name); !wrong.isEmpty()) {
                error(place, wrong);
            } else if (isKeyed(given)) {
                if (const std::optional<KeysError> keys = keysError(given)) {
                    error(memberPath(place, keys->path), keys->what);
                    continue;
                }
            }
            // What an including file says counts.
            const qsizetype numKnown = m_scope.parameters.size();
            m_scope.parameters.insert(name);
            if (m_scope.parameters.size() > numKnown) {
                m_graph.parameters.push_back({name, given, source(place)});
            }
        }
    }

    /// Checks what the parameters of this file stand for; those of included files may be among them.
    void checkParameters()
    {
        for (const ParameterDescription& parameter : m_graph.parameters) {
            if (isParameterUse(parameter.value) && parameter.source.file == m_own) {
                error(memberPath(u"parameters"_s, parameter.name),
                      m_parameters->resolve(parameter.value, 0.0).error);
            }
        }
    }

    void readIncludes(const QJsonValue& value)
    {
        const QJsonArray elements = array(value, u"include"_s);
        for (qsizetype i = 0; i < elements.size(); ++i) {
            const QString path = u"include[%1]"_s.arg(i);
            const QString file = constant(elements[i], u"QString"_s, path).toString();
            const QString canonical = QFileInfo(beside(file)).canonicalFilePath();
            const bool isRead = m_scope.files.contains(canonical) && !m_files.open.contains(canonical);
            if (elements[i].isString() && (file.isEmpty() || !isRead)) {
                readFile(file, path, &m_scope);
            }
        }
    }

    /// A path of this file as it appears in messages.
    QString beside(const QString& path) const
    {
        return QDir::isRelativePath(path) ? QDir::cleanPath(QFileInfo(m_file).path() + u'/' + path) : path;
    }

    /// Reads another file into a graph; `path` is the place here that names it. Returns false on errors.
    bool readFile(const QString& name, const QString& path, Scope* scope)
    {
        const qsizetype before = m_paths.size();
        const QString file = beside(name);
        const QString canonical = QFileInfo(file).canonicalFilePath();
        QString what;
        std::optional<QByteArray> text;
        if (name.isEmpty() || canonical.isEmpty()) {
            error(path, u"no file \"%1\""_s.arg(name.isEmpty() ? name : file));
        } else if (m_files.open.contains(canonical)) {
            error(path, u"\"%1\" is being read already: a file cannot be part of itself"_s.arg(file));
        } else if (m_files.open.size() >= deepestInclude) {
            error(path,
                  u"is nested too deep; at most %1 files may include one another"_s.arg(deepestInclude));
        } else if (!(text = readGraphText(file, m_files.numBytesLeft, &what))) {
            error(path, u"\"%1\" %2"_s.arg(file, what));
        }
        if (!text || m_paths.size() > before) {
            return false;
        }
        m_files.numBytesLeft -= text->size();
        scope->files.insert(canonical);
        const std::optional<GraphDocument> document = GraphDocument::parse(*text, file, m_files.errors);
        if (!document) {
            m_files.good = false;
            return false;
        }
        m_files.open.append(canonical);
        Reader reader(*document, file, scope, &m_files);
        reader.read();
        m_files.open.removeLast();
        return reader.report(m_files.errors);
    }

    void readViewport(const QJsonValue& value)
    {
        const QString path = u"viewport"_s;
        m_graph.viewport = constant(bound(value, path), u"QSize"_s, path).toSize();
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
            object(value, path, {"eye", "target", "up", "orbit", "fovY", "height", "near", "far"});
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
        if (members.contains(u"height")) {
            read(members, path, u"height"_s, "float", &camera.height.emplace());
            if (members.contains(u"fovY")) {
                error(memberPath(path, u"height"_s), u"excludes \"fovY\"; a height makes the camera "
                                                     "orthographic"_s);
            }
        }
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
            // Of an object that is there twice, the last one counts.
            if (members.contains(name)) {
                readModel(name, members[name], models);
            }
        }
    }

    void readModel(const QString& name, const QJsonValue& value, std::vector<ModelDescription>* models)
    {
        const QString path = memberPath(u"models"_s, name);
        ModelDescription& model = models->emplace_back(ModelDescription{name, {}});
        // Of a repeated "models", only the last is in the document.
        if (value.isUndefined()) {
            return;
        }
        if (!value.isObject()) {
            model.file = modelPath(value, path);
            return;
        }
        const QJsonObject members =
            object(value, path, {"file", "merge", "upAxis", "scale", "fit", "rotate", "translate"});
        if (members.contains(u"file") == members.contains(u"merge")) {
            error(path, u"must have either \"file\" or \"merge\""_s);
        }
        if (members.contains(u"file")) {
            model.file = modelPath(members[u"file"], memberPath(path, u"file"_s));
        }
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
    }

    void readPlacement(const QJsonObject& members, const QString& path, ModelPlacement* placement)
    {
        read(members, path, u"upAxis"_s, "QString", &placement->upAxis);
        if (members[u"scale"].isDouble()) {
            float factor = 1.0F;
            read(members, path, u"scale"_s, "float", &factor);
            placement->scale = {factor, factor, factor};
        } else if (members.contains(u"scale") && !members[u"scale"].isArray()) {
            error(memberPath(path, u"scale"_s), u"must be a number or three numbers [x, y, z], not %1"_s.arg(
                                                    shownValue(members[u"scale"])));
        } else {
            read(members, path, u"scale"_s, "QVector3D", &placement->scale);
        }
        if (members.contains(u"fit")) {
            read(members, path, u"fit"_s, "float", &placement->fit);
            if (members[u"fit"].isDouble() && placement->fit <= 0.0F) {
                error(memberPath(path, u"fit"_s), u"must be above 0"_s);
            }
        }
        read(members, path, u"rotate"_s, "QVector3D", &placement->rotate);
        read(members, path, u"translate"_s, "QVector3D", &placement->translate);
    }

    /// The path of a model as it is from the graph's own file.
    QString modelPath(const QJsonValue& value, const QString& place)
    {
        if (!value.isString()) {
            error(place, u"must be a file name or an object {...}, not %1%2"_s.arg(shownValue(value),
                                                                                   parameterNote(place)));
        }
        const QString path = value.toString();
        const QString file = m_bound.value(place, {{}, m_own}).file;
        return file.isEmpty() || path.isEmpty() || !QDir::isRelativePath(path)
                   ? path
                   : QDir(m_graph.resolvePath(u"."_s)).relativeFilePath(m_graph.resolvePath(path, file));
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
            const bool isGraph = elements[i][u"type"].toString() == graphPassType;
            const QJsonObject members = object(elements[i], path,
                                               isGraph ? QStringList{"name", "type", "inputs", "file"}
                                                       : QStringList{"name", "type", "inputs", "options"});
            PassSetting pass;
            pass.name = requiredString(members, path, u"name"_s);
            pass.type = requiredString(members, path, u"type"_s);
            pass.source = source(path);
            const SourcePlace other = m_scope.passes.value(pass.name, pass.source);
            if (other.file != pass.source.file) {
                error(memberPath(path, u"name"_s),
                      u"%1:%2 has a pass \"%3\" too; rename one of them"_s.arg(other.file)
                          .arg(other.line)
                          .arg(pass.name));
            }
            m_scope.passes.insert(pass.name, pass.source);
            const QString inputsPath = path + u".inputs"_s;
            const QJsonObject inputs = object(members[u"inputs"], inputsPath, {});
            // planGraph reports duplicate keys here, with the pass and the port.
            for (const QString& port : m_keys.keys(inputsPath)) {
                const QString place = memberPath(inputsPath, port);
                checkUses(inputs[port], place);
                if (const auto wrong = isKeyed(inputs[port]) ? keysError(inputs[port]) : std::nullopt) {
                    error(memberPath(place, wrong->path), wrong->what);
                }
                pass.inputs.push_back({port, inputs[port]});
            }
            pass.options = object(members[u"options"], path + u".options"_s, {});
            checkUses(pass.options, path + u".options"_s);
            if (isGraph) {
                readGraphPass(pass, requiredString(members, path, u"file"_s), path);
            } else {
                passes->push_back(pass);
            }
        }
    }

    /// Puts the passes of another graph in the place of a pass.
    void readGraphPass(const PassSetting& pass, const QString& file, const QString& path)
    {
        if (file.isEmpty()) {
            return;
        }
        Scope inner;
        inner.graph.file = m_graph.file;
        const QString place = memberPath(path, u"file"_s);
        if (!readFile(file, place, &inner)) {
            return;
        }
        renameGraphPasses(&inner);
        const InliningError wrong = inlineGraph(std::move(inner.graph), pass, &m_graph, &m_scope.graphPasses);
        error(wrong.input.isEmpty() ? place : memberPath(path + u".inputs"_s, wrong.input), wrong.what);
    }

    /// Reports the parameters in an input or in options that do not exist.
    void checkUses(const QJsonValue& value, const QString& path)
    {
        if (isParameterUse(value)) {
            error(path, m_parameters->resolve(value, 0.0).error);
        } else if (value.isObject()) {
            const QJsonObject members = value.toObject();
            for (auto member = members.begin(); member != members.end(); ++member) {
                checkUses(member.value(), memberPath(path, member.key()));
            }
        } else if (value.isArray()) {
            const QJsonArray elements = value.toArray();
            for (qsizetype i = 0; i < elements.size(); ++i) {
                checkUses(elements[i], u"%1[%2]"_s.arg(path).arg(i));
            }
        }
    }

    QString m_file;
    QString m_own;
    QJsonValue m_root;
    JsonKeys m_keys;
    Scope& m_scope;
    GraphDescription& m_graph;
    Files& m_files;
    size_t m_numIncludedLights;
    std::optional<Parameters> m_parameters;
    struct BoundTo
    {
        QString parameter;
        /// The file in which the value is written.
        QString file;
    };
    /// What the places outside the passes follow that follow something.
    QHash<QString, BoundTo> m_bound;
    /// Those of which the value cannot be found.
    QSet<QString> m_unresolved;
    /// The errors that are kept; their places in the text are looked up together.
    QStringList m_paths;
    QStringList m_causes;
    qsizetype m_numUnkept = 0;
};

} // namespace

std::optional<GraphDescription> readGraph(const QByteArray& text, const QString& file, QStringList* errors)
{
    const std::optional<GraphDocument> document = GraphDocument::parse(text, file, errors);
    if (!document) {
        return {};
    }
    Scope scope;
    scope.graph.file = file;
    Files files{errors};
    files.open.append(QFileInfo(file).canonicalFilePath());
    files.numBytesLeft -= text.size();
    Reader reader(*document, {}, &scope, &files);
    reader.read();
    reader.report(errors);
    if (files.good) {
        reader.renameGraphPasses(&scope);
    }
    // Whichever files they come from.
    std::stable_sort(scope.graph.boundValues.begin(), scope.graph.boundValues.end(),
                     [](const BoundValue& a, const BoundValue& b) { return a.place < b.place; });
    return files.good ? std::optional(std::move(scope.graph)) : std::nullopt;
}

bool readSection(GraphDescription* graph, const QString& section, const QJsonValue& value, QString* error)
{
    const GraphDocument document{{}, "{}", {}};
    Scope scope;
    scope.graph.viewport = graph->viewport;
    scope.graph.camera = graph->camera;
    scope.graph.lights = graph->lights;
    scope.graph.models = graph->models;
    Files files{nullptr};
    if (!Reader(document, {}, &scope, &files).readPart(section, value, error)) {
        return false;
    }
    graph->viewport = scope.graph.viewport;
    graph->camera = scope.graph.camera;
    graph->lights = std::move(scope.graph.lights);
    graph->models = std::move(scope.graph.models);
    return true;
}

} // namespace Morvane::Qel
