#include "FileWatch.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

#include <algorithm>

#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/graph/PassRegistry.h>

#include "GraphEdits.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

/// Editors write a file in several steps; one reload is enough.
constexpr int settlingTime = 40;
/// A file that is replaced may be missing for this long.
constexpr int replacingTime = 500;

/// The files that a shader includes, by way of others too.
QStringList includesOf(const QString& shader)
{
    QFile file(shader);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    QStringList files;
    const GLSLMacroProcessor processor;
    for (const QString& name : processor.process(QString::fromUtf8(file.readAll()), shader).files) {
        if (QFileInfo(name).isFile() && !name.startsWith(u':')) {
            files.append(QFileInfo(name).absoluteFilePath());
        }
    }
    return files;
}

} // namespace

QStringList filesOf(const GraphDescription& graph)
{
    QSet<QString> files;
    for (const PassSetting& pass : graph.passes) {
        const PassDescription* description = PassRegistry::builtin().description(pass.type);
        if (!description) {
            continue;
        }
        for (const OptionDescription& option : description->options) {
            const QString path = graph.resolvePath(pass.options[option.name].toString(), pass.source.file);
            if (option.isFile && !path.isEmpty()) {
                files.insert(path);
                for (const QString& include : includesOf(path)) {
                    files.insert(include);
                }
            }
        }
        for (const InputDescription& input : portsOf(pass).inputs) {
            const InputSetting* setting = findInput(pass, input.name);
            if (setting && PortName::parse(input.name).type == QLatin1StringView("QString") &&
                !isReference(setting->value) && !setting->value.toString().isEmpty()) {
                files.insert(graph.resolvePath(setting->value.toString(), pass.source.file));
            }
        }
    }
    QStringList sorted(files.begin(), files.end());
    sorted.sort();
    return sorted;
}

FileWatch::FileWatch(QObject* parent)
    : QObject(parent)
{
    m_timer.setSingleShot(true);
    m_clock.start();
    const auto start = [this] { m_timer.start(settlingTime); };
    connect(&m_watcher, &QFileSystemWatcher::fileChanged, this, start);
    connect(&m_watcher, &QFileSystemWatcher::directoryChanged, this, start);
    connect(&m_timer, &QTimer::timeout, this, &FileWatch::check);
}

FileWatch::State FileWatch::stateOf(const QString& file)
{
    const QFileInfo info(file);
    return info.isFile() ? State{info.lastModified().toMSecsSinceEpoch(), info.size()} : State{};
}

void FileWatch::watch(const GraphDescription& graph, const QStringList& includes)
{
    m_graph = graph;
    m_includes = includes;
    m_models.clear();
    for (const ModelDescription& model : graph.models) {
        if (!model.file.isEmpty()) {
            m_models.insert(graph.resolvePath(model.file));
        }
    }
    m_graphFiles = QSet<QString>(includes.begin(), includes.end());
    m_graphFiles.insert(graph.file);
    QHash<QString, State> files;
    const QStringList all = filesOf(graph) + m_models.values() + m_graphFiles.values();
    for (const QString& file : all) {
        // A change that has not been noticed yet still counts.
        files.insert(file, m_files.contains(file) ? m_files[file] : stateOf(file));
    }
    m_files = files;
    addPaths();
}

/// The folders too, because a file that is replaced drops out of the watch.
void FileWatch::addPaths()
{
    QSet<QString> paths;
    for (auto file = m_files.keyBegin(); file != m_files.keyEnd(); ++file) {
        paths.insert(QFileInfo(*file).absolutePath());
        if (QFileInfo::exists(*file)) {
            paths.insert(*file);
        }
    }
    const QStringList watched = m_watcher.files() + m_watcher.directories();
    for (const QString& path : watched) {
        if (!paths.remove(path)) {
            m_watcher.removePath(path);
        }
    }
    if (!paths.isEmpty()) {
        m_watcher.addPaths(paths.values());
    }
}

void FileWatch::accept(const QString& file)
{
    if (m_files.contains(file)) {
        m_files[file] = stateOf(file);
    }
}

void FileWatch::check()
{
    bool hasGraphChanged = false;
    bool haveFilesChanged = false;
    bool haveModelsChanged = false;
    bool isSomeMissing = false;
    for (auto file = m_files.begin(); file != m_files.end(); ++file) {
        const State state = stateOf(file.key());
        if (state != State()) {
            m_missingSince.remove(file.key());
        }
        if (state == file.value()) {
            continue;
        }
        if (state == State()) {
            // A file that is just being replaced comes back; after a while it counts as lost.
            if (!m_missingSince.contains(file.key())) {
                m_missingSince.insert(file.key(), m_clock.elapsed());
            }
            if (m_clock.elapsed() - m_missingSince[file.key()] < replacingTime) {
                isSomeMissing = true;
                continue;
            }
        }
        file.value() = state;
        const bool isGraph = m_graphFiles.contains(file.key());
        hasGraphChanged = hasGraphChanged || isGraph;
        haveModelsChanged = haveModelsChanged || m_models.contains(file.key());
        haveFilesChanged = haveFilesChanged || !isGraph;
    }
    addPaths();
    if (isSomeMissing) {
        m_timer.start(replacingTime);
    }
    if (hasGraphChanged) {
        Q_EMIT graphChanged();
    }
    if (haveFilesChanged) {
        // Includes may have come or gone.
        watch(GraphDescription(m_graph), QStringList(m_includes));
        Q_EMIT filesChanged(haveModelsChanged);
    }
}

} // namespace Morvane::Qel::Viewer
