#include "Document.h"

#include <QElapsedTimer>
#include <QFileInfo>

#include <algorithm>
#include <utility>

#include <Qel/graph/PassRegistry.h>

#include "GraphEdits.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

/// Carries the inputs and parameters that differ between `base` and `mine` over to `graph`.
void applyChangedValues(const GraphDescription& base, const GraphDescription& mine, GraphDescription& graph)
{
    for (const ParameterDescription& parameter : mine.parameters) {
        const ParameterDescription* before = findParameter(base, parameter.name);
        QString error;
        if (before && before->value != parameter.value && findParameter(graph, parameter.name)) {
            graph.setParameter(parameter.name, parameter.value, &error);
        }
    }
    const auto passOf = [](const GraphDescription& owner, const QString& name) {
        return std::find_if(owner.passes.begin(), owner.passes.end(),
                            [&](const PassSetting& pass) { return pass.name == name; });
    };
    for (PassSetting& pass : graph.passes) {
        const auto before = passOf(base, pass.name);
        const auto now = passOf(mine, pass.name);
        if (before == base.passes.end() || now == mine.passes.end()) {
            continue;
        }
        for (const InputSetting& input : now->inputs) {
            if (std::find(before->inputs.begin(), before->inputs.end(), input) != before->inputs.end()) {
                continue;
            }
            const auto existing = std::find_if(pass.inputs.begin(), pass.inputs.end(),
                                               [&](const auto& other) { return other.port == input.port; });
            if (existing != pass.inputs.end()) {
                *existing = input;
            } else {
                pass.inputs.push_back(input);
            }
        }
    }
}

} // namespace

/// A step of the history: the graph before and after.
class Document::Edit : public QUndoCommand
{
public:
    Edit(Document& document, const QString& text, GraphDescription after, QString mergeKey)
        : QUndoCommand(text)
        , m_document(document)
        , m_before(document.graph())
        , m_after(std::move(after))
        , m_mergeKey(std::move(mergeKey))
    {
        m_age.start();
    }

    void undo() override { m_document.setGraph(m_before); }
    void redo() override { m_document.setGraph(m_after); }
    int id() const override { return m_mergeKey.isEmpty() ? -1 : 1; }

    bool mergeWith(const QUndoCommand* command) override
    {
        constexpr qint64 pause = 1000;
        const auto* next = static_cast<const Edit*>(command);
        if (next->m_mergeKey != m_mergeKey || m_age.elapsed() > pause) {
            return false;
        }
        m_after = next->m_after;
        m_age.restart();
        setObsolete(m_after == m_before);
        return true;
    }

private:
    Document& m_document;
    GraphDescription m_before;
    GraphDescription m_after;
    QString m_mergeKey;
    /// Since the last change that belongs to this step.
    QElapsedTimer m_age;
};

Document::Document(QObject* parent)
    : QObject(parent)
{
    // A step holds two copies of the graph, some 5 to 20 KiB.
    constexpr int maxSteps = 500;
    m_undoStack.setUndoLimit(maxSteps);
}

void Document::setGraph(const GraphDescription& graph)
{
    m_graph = graph;
    Q_EMIT changed();
}

void Document::setSaved(const GraphDescription& graph)
{
    m_saved = graph;
    m_includes = graphFileExtras(graph.file).includes;
}

bool Document::open(const QString& file, const QString& model, QStringList* errors)
{
    // An absolute path stays right when the current folder changes.
    std::optional<GraphDescription> graph = loadGraph(QFileInfo(file).absoluteFilePath(), errors);
    if (!graph) {
        return false;
    }
    if (!model.isEmpty()) {
        graph->replaceModel(model);
    }
    m_model = model.isEmpty() ? QString() : QFileInfo(model).absoluteFilePath();
    m_undoStack.clear();
    setSaved(*graph);
    m_graph = std::move(*graph);
    Q_EMIT opened();
    Q_EMIT changed();
    return true;
}

bool Document::reload(QStringList* errors)
{
    std::optional<GraphDescription> graph = loadGraph(m_graph.file, errors);
    if (!graph) {
        return false;
    }
    if (!m_model.isEmpty()) {
        graph->replaceModel(m_model);
    }
    const GraphDescription base = m_saved;
    setSaved(*graph);
    if (*graph == base) {
        return true;
    }
    applyChangedValues(base, m_graph, *graph);
    edit(tr("Reload of the file"), [&](GraphDescription& current) { current = *graph; });
    if (m_graph == m_saved) {
        m_undoStack.setClean();
    }
    return true;
}

GraphUpdate Document::save(const QString& file, bool mayRewrite, QString* error)
{
    const QString path = QFileInfo(file).absoluteFilePath();
    GraphUpdate update = updateGraph(m_graph, path, error);
    if (update == GraphUpdate::NeedsRewrite) {
        const GraphFileExtras extras = graphFileExtras(m_graph.file);
        if (!mayRewrite && (extras.hasComments || !extras.includes.isEmpty())) {
            return update;
        }
        update = saveGraph(m_graph, path, PassRegistry::builtin(), error) ? GraphUpdate::Written
                                                                          : GraphUpdate::Failed;
    }
    if (update == GraphUpdate::Failed) {
        return update;
    }
    QStringList errors;
    const std::optional<GraphDescription> saved = loadGraph(path, &errors);
    if (!saved) {
        *error = errors.join(u'\n');
        return GraphUpdate::Failed;
    }
    // The paths in the graph now start from the new folder.
    setSaved(*saved);
    m_model.clear();
    if (m_graph != m_saved) {
        edit(tr("Save under another name"), [&](GraphDescription& current) { current = *saved; });
    }
    m_undoStack.setClean();
    return GraphUpdate::Written;
}

void Document::edit(const QString& text, const Change& change, const QString& mergeKey)
{
    GraphDescription graph = m_graph;
    change(graph);
    if (graph != m_graph) {
        m_undoStack.push(new Edit(*this, text, std::move(graph), mergeKey));
    }
}

} // namespace Morvane::Qel::Viewer
