#pragma once

#include <QObject>
#include <QUndoStack>

#include <functional>

#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/GraphFile.h>

namespace Morvane::Qel::Viewer {

/// The graph that is open, with its file and the history of its last changes.
class Document : public QObject
{
    Q_OBJECT
public:
    explicit Document(QObject* parent = nullptr);

    const GraphDescription& graph() const { return m_graph; }
    /// The graph as it is in the file.
    const GraphDescription& saved() const { return m_saved; }
    /// The graph files that the file includes, see graphFileExtras.
    const QStringList& includes() const { return m_includes; }
    bool isOpen() const { return !m_graph.file.isEmpty(); }
    bool isModified() const { return !m_undoStack.isClean(); }
    QUndoStack& undoStack() { return m_undoStack; }

    /// Opens a graph file. A model file, if it is not empty, replaces the graph's first model. Returns false
    /// and changes nothing if the file cannot be read, with a line in `errors` for each mistake.
    bool open(const QString& file, const QString& model, QStringList* errors);
    /// Reads the file again after another program changed it. Inputs and parameters that were changed here
    /// since the last save keep their values. The reload can be undone. Returns false if the file cannot be
    /// read.
    bool reload(QStringList* errors);
    /// Writes the graph, which then belongs to this file. Comments, layout and includes of the file that is
    /// open are lost only with `mayRewrite`; otherwise NeedsRewrite says that they would be. On failure,
    /// `error` has one line.
    GraphUpdate save(const QString& file, bool mayRewrite, QString* error);

    using Change = std::function<void(GraphDescription&)>;
    /// Changes the graph as one step that can be undone. Steps with the same `mergeKey` in quick succession,
    /// such as the moves of a slider, become one.
    void edit(const QString& text, const Change& change, const QString& mergeKey = {});

Q_SIGNALS:
    /// Another graph is open.
    void opened();
    /// The graph has changed, or another one is open.
    void changed();

private:
    class Edit;
    void setGraph(const GraphDescription& graph);
    void setSaved(const GraphDescription& graph);

    GraphDescription m_graph;
    GraphDescription m_saved;
    QStringList m_includes;
    /// Replaces the first model of the file; empty for none.
    QString m_model;
    QUndoStack m_undoStack;
};

} // namespace Morvane::Qel::Viewer
