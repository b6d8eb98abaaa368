// Writes changed values into the text of a graph file; declared in GraphFile.h.

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>

#include <Qel/graph/GraphFile.h>
#include <Qel/graph/OutputFile.h>
#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/GraphDocument.h>
#include <Qel/graph/support/GraphInlining.h>
#include <Qel/graph/support/GraphReader.h>
#include <Qel/graph/support/GraphText.h>
#include <Qel/graph/support/GraphWriter.h>
#include <Qel/graph/support/ImageErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Without the order of what has none.
GraphDescription normalized(GraphDescription graph)
{
    std::sort(graph.parameters.begin(), graph.parameters.end(),
              [](const auto& a, const auto& b) { return a.name < b.name; });
    for (PassSetting& pass : graph.passes) {
        std::sort(pass.inputs.begin(), pass.inputs.end(),
                  [](const auto& a, const auto& b) { return a.port < b.port; });
    }
    graph.file.clear();
    graph.assignments.clear();
    return graph;
}

/// Values by name; undefined for a name that is not there.
QJsonObject inputsOf(const PassSetting& pass)
{
    QJsonObject inputs;
    for (const InputSetting& input : pass.inputs) {
        inputs.insert(input.port, input.value);
    }
    return inputs;
}

QJsonObject parametersOf(const GraphDescription& graph)
{
    QJsonObject parameters;
    for (const ParameterDescription& parameter : graph.parameters) {
        parameters.insert(parameter.name, parameter.value);
    }
    return parameters;
}

/// Brings the text of a file from the graph that it holds to another one.
class Update
{
public:
    Update(const QByteArray& text, QJsonObject root, const GraphDescription& before,
           const GraphDescription& after)
        : m_text(text)
        , m_root(std::move(root))
        , m_before(before)
        , m_after(after)
    {
    }

    /// The new text; nothing if the file alone cannot hold the change. Whether the text gives the graph is
    /// for the caller to check.
    std::optional<QByteArray> text()
    {
        const bool good = updateParameters() && updateScene() && updateModels() && updatePasses();
        return good ? std::optional(m_text.text()) : std::nullopt;
    }

private:
    /// The value in the file.
    QJsonValue valueAt(const QStringList& path) const
    {
        QJsonValue value = m_root;
        for (const QString& key : path) {
            value = value.isArray() ? value.toArray()[key.toLongLong()] : value[key];
        }
        return value;
    }

    bool update(const QStringList& path, const QJsonValue& before, const QJsonValue& after)
    {
        if (before == after) {
            return true;
        }
        const QJsonValue written = valueAt(path);
        if (before.isObject() && after.isObject() && written.isObject()) {
            return updateMembers(path, before.toObject(), after.toObject());
        }
        if (!after.isUndefined() && !after.isNull()) {
            return m_text.set(path, after);
        }
        m_text.remove(path);
        return !written.isUndefined();
    }

    bool updateMembers(const QStringList& path, const QJsonObject& before, const QJsonObject& after)
    {
        QStringList keys = before.keys() + after.keys();
        keys.removeDuplicates();
        return std::all_of(keys.begin(), keys.end(), [&](const QString& key) {
            return update(path + QStringList{key}, before[key], after[key]);
        });
    }

    /// Index in the file of the pass with a name; -1 if it stands in another one.
    qsizetype indexOfPass(const QString& name) const
    {
        const QJsonArray passes = m_root[u"passes"].toArray();
        const auto found = std::find_if(passes.begin(), passes.end(),
                                        [&](const QJsonValue& pass) { return pass[u"name"] == name; });
        return found == passes.end() ? -1 : found - passes.begin();
    }

    /// Where a parameter has its value, or would get one.
    QStringList placeOfParameter(const QString& name) const
    {
        const QJsonArray passes = m_root[u"passes"].toArray();
        for (qsizetype i = 0; i < passes.size(); ++i) {
            const QString prefix = passes[i][u"name"].toString() + u'-';
            if (passes[i][u"type"] == graphPassType && name.startsWith(prefix)) {
                return {u"passes"_s, QString::number(i), u"inputs"_s, name.sliced(prefix.size())};
            }
        }
        return {u"parameters"_s, name};
    }

    bool updateParameters()
    {
        const QJsonObject before = parametersOf(m_before);
        const QJsonObject after = parametersOf(m_after);
        if (before.keys() != after.keys()) {
            return false;
        }
        for (auto parameter = after.begin(); parameter != after.end(); ++parameter) {
            const QJsonValue value = parameter.value();
            const QStringList place = placeOfParameter(parameter.key());
            const bool isChanged = before[parameter.key()] != value;
            // In the file that sets a parameter, a path is relative to that file's folder.
            if (isChanged && valueAt(place).isUndefined() && value.isString() &&
                !value.toString().startsWith(u'#')) {
                return false;
            }
            if (isChanged && !m_text.set(place, value)) {
                return false;
            }
        }
        return true;
    }

    /// Whether a section follows parameters or keys, which then change in its place.
    bool isBound(const QString& section) const
    {
        const auto isOfSection = [&](const BoundValue& bound) { return bound.isOf(section); };
        return std::any_of(m_after.boundValues.begin(), m_after.boundValues.end(), isOfSection);
    }

    bool updateSection(const QString& section, const QStringList& path)
    {
        return isBound(section) ||
               update(path, sectionJson(m_before, section), sectionJson(m_after, section));
    }

    bool updateScene()
    {
        const auto animation = [](const GraphDescription& graph) {
            return graph.animation ? QJsonObject{{u"frames"_s, graph.animation->frames},
                                                 {u"fps"_s, static_cast<double>(graph.animation->fps)}}
                                   : QJsonValue(QJsonValue::Undefined);
        };
        bool good = updateSection(u"viewport"_s, {u"viewport"_s}) &&
                    updateSection(u"camera"_s, {u"camera"_s}) &&
                    update({u"animation"_s}, animation(m_before), animation(m_after)) &&
                    update({u"settle"_s}, m_before.settle, m_after.settle) &&
                    update({u"output"_s}, m_before.output, m_after.output);
        // Lights of included files come first.
        const size_t numOwn = static_cast<size_t>(m_root[u"lights"].toArray().size());
        const size_t numOther = m_before.lights.size() - std::min(numOwn, m_before.lights.size());
        good = good && m_before.lights.size() == m_after.lights.size();
        for (size_t i = 0; good && i < m_after.lights.size(); ++i) {
            const bool isChanged = m_before.lights[i] != m_after.lights[i];
            good = !isChanged ||
                   (i >= numOther &&
                    updateSection(u"lights[%1]"_s.arg(i), {u"lights"_s, QString::number(i - numOther)}));
        }
        return good;
    }

    bool updateModels()
    {
        const auto section = [](const GraphDescription& graph, const QString& name) {
            const QJsonValue json = sectionJson(graph, u"models."_s + name);
            return json.isNull() ? QJsonValue(QJsonValue::Undefined) : json;
        };
        QStringList names;
        for (const GraphDescription* graph : {&m_before, &m_after}) {
            for (const ModelDescription& model : graph->models) {
                names.append(model.name);
            }
        }
        names.removeDuplicates();
        return std::all_of(names.begin(), names.end(), [&](const QString& name) {
            return isBound(u"models."_s + name) ||
                   update({u"models"_s, name}, section(m_before, name), section(m_after, name));
        });
    }

    bool updatePasses()
    {
        bool good = m_before.passes.size() == m_after.passes.size();
        for (size_t i = 0; good && i < m_after.passes.size(); ++i) {
            const PassSetting& before = m_before.passes[i];
            const PassSetting& after = m_after.passes[i];
            const qsizetype index = indexOfPass(after.name);
            good = before.name == after.name && before.type == after.type &&
                   (before == after || (index >= 0 &&
                                        updateMembers({u"passes"_s, QString::number(index), u"inputs"_s},
                                                      inputsOf(before), inputsOf(after)) &&
                                        updateMembers({u"passes"_s, QString::number(index), u"options"_s},
                                                      before.options, after.options)));
        }
        return good;
    }

    GraphText m_text;
    QJsonObject m_root;
    const GraphDescription& m_before;
    const GraphDescription& m_after;
};

/// The text of the graph's file with the graph's values; nothing if it cannot have them.
std::optional<QByteArray> updatedText(const GraphDescription& graph)
{
    QString what;
    QStringList errors;
    const std::optional<QByteArray> text = readGraphText(graph.file, largestGraphText, &what);
    const auto document = text ? GraphDocument::parse(*text, graph.file, &errors) : std::nullopt;
    const auto before = document ? readGraph(*text, graph.file, &errors) : std::nullopt;
    if (!before) {
        return {};
    }
    std::optional<QByteArray> updated = Update(*text, document->root.toObject(), *before, graph).text();
    const auto after = updated ? readGraph(*updated, graph.file, &errors) : std::nullopt;
    return after && normalized(*after) == normalized(graph) ? updated : std::nullopt;
}

void collectIncludes(const QByteArray& text, const QString& file, QStringList* includes)
{
    QStringList errors;
    const auto document = GraphDocument::parse(text, file, &errors);
    if (!document) {
        return;
    }
    const auto add = [&](const QJsonValue& name) {
        const QString path = QDir::cleanPath(QFileInfo(file).absoluteDir().absoluteFilePath(name.toString()));
        QString what;
        if (name.isString() && !includes->contains(path)) {
            if (const auto included = readGraphText(path, largestGraphText, &what)) {
                includes->append(path);
                collectIncludes(*included, path, includes);
            }
        }
    };
    const QJsonArray names = document->root[u"include"].toArray();
    std::for_each(names.begin(), names.end(), add);
    const QJsonArray passes = document->root[u"passes"].toArray();
    for (const QJsonValue pass : passes) {
        if (pass[u"type"] == graphPassType) {
            add(pass[u"file"]);
        }
    }
}

} // namespace

GraphUpdate updateGraph(const GraphDescription& graph, const QString& file, QString* error)
{
    const bool isSameFolder = QFileInfo(file).absolutePath() == QFileInfo(graph.file).absolutePath();
    const std::optional<QByteArray> text = isSameFolder ? updatedText(graph) : std::nullopt;
    if (!text) {
        return GraphUpdate::NeedsRewrite;
    }
    OutputFile device(file);
    const bool good = device.openForWriting(error) &&
                      (device.writeAll(*text) || writeError(error, file, device.errorString())) &&
                      device.commit(error);
    return good ? GraphUpdate::Written : GraphUpdate::Failed;
}

GraphFileExtras graphFileExtras(const QString& file)
{
    GraphFileExtras extras;
    QString what;
    if (const auto text = readGraphText(file, largestGraphText, &what)) {
        extras.hasComments = withoutComments(*text) != *text;
        collectIncludes(*text, file, &extras.includes);
    }
    return extras;
}

} // namespace Morvane::Qel
