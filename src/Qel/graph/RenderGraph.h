#pragma once

#include <QJsonValue>
#include <QSize>
#include <QStringList>
#include <QVariant>

#include <memory>
#include <vector>

#include <Qel/graph/Export.h>
#include <Qel/graph/GraphDescription.h>
#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/PassRegistry.h>
#include <Qel/graph/Profiler.h>
#include <Qel/model/ModelImport.h>

namespace Morvane::Qel {

class GPUModel;
class RenderCallbacks;
class Texture;

/// A graph of passes, ready to draw frames with the GL context on which it was made. That context must be
/// current (OpenGLDeviceContext::current) for every operation, the destructor included, and outlive the
/// graph.
///
/// A frame: every pass that runs gets its user counts, then, at the first frame, `setup`; all get
/// `beginFrame`; then in running order each has the context put into the base state, gets the values of its
/// connected inputs and runs `start`; all get `endFrame`. `teardown` comes with the destruction of the graph.
///
/// The destructor deletes whatever GL objects the passes made and returns every texture to the pool, also
/// when a frame failed half way.
class QEL_GRAPH_EXPORT RenderGraph
{
public:
    struct Options
    {
        /// Measures GPU and CPU time of each pass.
        bool profile = false;
        /// Keeps the outputs of all passes readable after a frame, not only the graph's picture.
        bool keepOutputs = false;
        /// Handed to every operation of a frame; must outlive the graph.
        RenderCallbacks* callbacks = nullptr;
        /// How model files are read; by default in the calling process.
        ImportOptions modelImport{};
    };

    /// Checks a graph, loads its models and makes its passes. Null on failure, with one line for each fault
    /// in `faults`; nothing touched GL when the graph itself is wrong. Warnings about models, such as missing
    /// textures, go to Qt's warning channel.
    static std::unique_ptr<RenderGraph> create(const GraphDescription& graph, const PassRegistry& registry,
                                               const Options& options, QStringList* faults);
    ~RenderGraph();
    RenderGraph(const RenderGraph&) = delete;
    RenderGraph& operator=(const RenderGraph&) = delete;

    /// Draws one frame. Framebuffer 0 must be at least as large as the viewport if a pass draws to the
    /// screen. False with one line in `error` when the frame has no picture: a program did not build (its
    /// messages were logged before), a pass set an error code, or the graph's output is empty.
    bool renderFrame(QString* error);

    /// \name Results
    /// Of the last frame, valid until the next one or until releaseOutputs.
    /// @{

    /// The graph's picture; null without an output or a frame. Do not delete it or render into it.
    Texture* picture() const;

    struct Output
    {
        QString pass;
        /// The full name.
        QString port;
        QVariant value;
    };
    /// Every output of every pass that ran, in running order. With Options::keepOutputs only.
    std::vector<Output> outputs() const;
    /// Gives the textures of the last frame back to the pool.
    void releaseOutputs();
    /// @}

    /// \name Changes between frames
    /// @{

    /// Another size of the picture; false with one line in `error` for one below 1 or over the driver's
    /// limit.
    bool setViewport(const QSize& size, QString* error);
    QSize viewport() const;
    /// Sets an input to a constant from now on, given as a graph file gives it. An input that is connected
    /// cannot be set. False with one line in `error` when something does not fit.
    bool setConstant(const QString& pass, const QString& port, const QJsonValue& value, QString* error);
    void setCamera(const CameraDescription& camera);
    /// The camera in force, fitted to the models where the graph has none.
    CameraDescription camera() const;
    /// @}

    /// What the graph came to: its passes, connections and running order.
    const GraphPlan& plan() const;
    /// The model of this name, null when there is none.
    GPUModel* model(const QString& name) const;
    /// The times measured so far; empty without Options::profile. Waits for the GPU.
    std::vector<Profiler::Row> profile();

private:
    struct Private;
    explicit RenderGraph(std::unique_ptr<Private> d);
    std::unique_ptr<Private> d;
};

} // namespace Morvane::Qel
