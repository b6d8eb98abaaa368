#pragma once

#include <QObject>
#include <QSet>
#include <QSize>
#include <QStringList>

#include <memory>
#include <optional>
#include <vector>

#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/graph/RenderGraph.h>

#include "ShownTextures.h"

namespace Morvane::Qel::Viewer {

/// An output port of a pass; both empty for the output of the graph.
struct OutputName
{
    QString pass;
    /// Full name.
    QString port;

    bool operator==(const OutputName&) const = default;
    /// "pass.Port", as a graph names it.
    QString text() const;
};

/// Runs the graph that is open, and only when something has changed. All functions that need the context say
/// so; the widget that owns the context calls them.
class GraphSession : public QObject
{
    Q_OBJECT
public:
    explicit GraphSession(QObject* parent = nullptr);
    ~GraphSession() override;

    /// \name What to render, from the next frame on
    /// @{

    /// Takes changed constants and lights over into the running graph. Other changes make a new one, which
    /// takes the place of the old one once it has rendered a frame.
    void setGraph(const GraphDescription& graph);
    /// Forgets the running graph, which another one follows.
    void clear();
    /// Passes that are left out: their first input of the output's type goes through.
    void setBypassed(const QSet<QString>& passes);
    const QSet<QString>& bypassed() const { return m_bypassed; }
    /// Makes the graph anew, because files that it reads have changed, with its models read again if one of
    /// them has.
    void reloadFiles(bool withModels);
    /// The size of the picture in pixels; empty for that of the graph.
    void setViewport(const QSize& size);
    /// The camera instead of that of the graph; nothing for that of the graph.
    void setCamera(const std::optional<CameraDescription>& camera);
    /// The frame of the animation. It begins anew, and settles if the graph has it so, whenever something
    /// changes.
    void setFrameNumber(int number);
    int frameNumber() const { return m_frameNumber; }
    /// Whether frames follow one another so quickly that they need not settle.
    void setPlaying(bool isPlaying);
    void requestFrame();
    /// Renders a number of frames one after the other, to measure them.
    void requestFrames(int number);
    /// @}

    /// \name With the context current
    /// @{
    void initialize();
    void release();
    /// Tells the library that others have used the native context.
    void makeCurrent();
    /// Renders a frame if something has changed since the last one. Returns whether it did.
    bool render();
    /// A graph of its own with what is rendered now: the wanted changes, the size and the camera. Null, with
    /// a line in `errors` for each mistake, if it cannot be made.
    std::unique_ptr<RenderGraph> makeCopy(QStringList* errors);
    /// The texture to show for an output of the last frame, see ShownTextures; null if there is none.
    Texture* texture(const OutputName& name);
    Texture* texture(const RenderGraph::Output& output) { return m_shownTextures.of(output.value); }
    /// The value of an output that has no texture to show, or why it has none, as text.
    QString text(const OutputName& name) const;
    std::vector<RenderGraph::Output> outputs() const;
    Profiler::Report times();
    /// @}

    /// The running graph; null before the first frame.
    const RenderGraph* graph() const { return m_graph.get(); }
    const OpenGLDeviceContext* context() const { return m_context ? &*m_context : nullptr; }
    bool isFrameNeeded() const { return m_isFrameNeeded; }
    quint64 numFrames() const { return m_numFrames; }
    /// The camera of the next frame; the default one before the first.
    CameraDescription camera() const;
    CameraDescription fittedCamera() const;
    /// What is wrong with the graph, one line each; empty after a good frame.
    const QStringList& errors() const { return m_errors; }

Q_SIGNALS:
    void frameNeeded();
    void frameRendered();
    /// The wanted frame cannot be rendered, see errors.
    void frameFailed();
    void frameNumberChanged();
    /// Another graph runs, whose passes and ports may differ.
    void graphReplaced();
    void errorsChanged();

private:
    void update(QStringList* errors);
    bool updateInPlace(const GraphDescription& graph, QStringList* errors);
    bool replaceGraph(QStringList* errors);
    bool renderFrame(RenderGraph& graph, QStringList* errors);
    void beginFrame(RenderGraph& graph);
    std::unique_ptr<RenderGraph> makeGraph(const GraphDescription& description,
                                           const RenderGraph::Options& options, QStringList* errors);
    void setErrors(const QStringList& errors);
    std::optional<RenderGraph::Output> find(const OutputName& name) const;

    std::optional<OpenGLDeviceContext> m_context;
    std::unique_ptr<RenderGraph> m_graph;
    ShownTextures m_shownTextures;
    /// The graph that is wanted, and the one that m_graph was made from and brought up to.
    GraphDescription m_wanted;
    GraphDescription m_running;
    /// Whether m_wanted has changed since the last attempt to run it.
    bool m_isChanged = false;
    bool m_mustReplace = false;
    bool m_mustReadModels = false;
    QSet<QString> m_bypassed;
    QSize m_viewport;
    std::optional<CameraDescription> m_camera;
    /// Whether the camera of m_graph is no longer its own.
    bool m_hasOtherCamera = false;
    int m_frameNumber = 0;
    bool m_isPlaying = false;
    /// Whether the next frame is the first one since a change.
    bool m_mustBegin = true;
    bool m_isFrameNeeded = false;
    int m_numFurtherFrames = 0;
    quint64 m_numFrames = 0;
    QStringList m_errors;
    /// Warnings about the running graph, and why m_wanted cannot replace it.
    QStringList m_graphErrors;
};

} // namespace Morvane::Qel::Viewer
