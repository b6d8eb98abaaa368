#pragma once

#include <QElapsedTimer>
#include <QFileSystemWatcher>
#include <QHash>
#include <QObject>
#include <QSet>
#include <QTimer>

#include <Qel/graph/GraphPlan.h>

namespace Morvane::Qel::Viewer {

/// Watches the files that a graph reads, also those that editors replace by renaming.
class FileWatch : public QObject
{
    Q_OBJECT
public:
    explicit FileWatch(QObject* parent = nullptr);

    /// Watches the graph file, the graphs that it includes, its models, images and shaders, and the files
    /// that these include.
    void watch(const GraphDescription& graph, const QStringList& includes);
    /// Takes a file as it is now, after this program has written it.
    void accept(const QString& file);

Q_SIGNALS:
    void graphChanged();
    /// Shaders or images have changed; models too if `models` is set.
    void filesChanged(bool models);

private:
    struct State
    {
        qint64 time = -1;
        qint64 size = -1;
        bool operator==(const State&) const = default;
    };
    static State stateOf(const QString& file);
    void check();
    void addPaths();

    QFileSystemWatcher m_watcher;
    QTimer m_timer;
    GraphDescription m_graph;
    QStringList m_includes;
    QHash<QString, State> m_files;
    /// When files were found missing, in milliseconds of the clock.
    QHash<QString, qint64> m_missingSince;
    QElapsedTimer m_clock;
    QSet<QString> m_models;
    /// The graph file and those that it includes.
    QSet<QString> m_graphFiles;
};

/// All files that a graph reads except its models and itself, in alphabetical order.
QStringList filesOf(const GraphDescription& graph);

} // namespace Morvane::Qel::Viewer
