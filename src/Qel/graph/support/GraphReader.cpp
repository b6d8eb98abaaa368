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
#include <Qel/graph/support/Keys.h>
#include <Qel/graph/support/Names.h>
#include <Qel/graph/support/Parameters.h>
#include <Qel/graph/support/SceneReader.h>

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
class Reader : public SceneReader
{
public:
    /// `own` is the path of the file, empty for the graph's own.
    Reader(const GraphDocument& document, const QString& own, Scope* scope, Files* files)
        : SceneReader(document, own, &scope->graph)
        , m_root(document.root)
        , m_scope(*scope)
        , m_files(*files)
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

    /// Like report, and notes whether there were errors.
    bool finish()
    {
        const bool isGood = report(m_files.errors);
        m_files.good = m_files.good && isGood;
        return isGood;
    }

    /// Call this once all files of a graph are read.
    void renameGraphPasses(Scope* scope)
    {
        GraphErrors errors(m_file, m_files.errors);
        renameOutputs(&scope->graph, scope->graphPasses, errors);
        m_files.good = m_files.good && errors.count() == 0;
    }

private:
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
        return reader.finish();
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

    QJsonValue m_root;
    Scope& m_scope;
    Files& m_files;
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
    reader.finish();
    if (files.good) {
        reader.renameGraphPasses(&scope);
    }
    // Whichever files they come from.
    std::stable_sort(scope.graph.boundValues.begin(), scope.graph.boundValues.end(),
                     [](const BoundValue& a, const BoundValue& b) { return a.place < b.place; });
    return files.good ? std::optional(std::move(scope.graph)) : std::nullopt;
}

} // namespace Morvane::Qel
