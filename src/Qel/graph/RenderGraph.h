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

/// Renders frames of a graph of passes. The GL context on which the graph was created must be current
/// (OpenGLDeviceContext::current) for every operation including the destructor, and must outlive the graph.
///
/// Each frame, all passes get their user counts (before the first frame also `setup`), then `beginFrame`. In
/// execution order, the context is put into the base state, and the pass gets the values of its connected
/// inputs and runs `start`. At the end all passes get `endFrame`. Destroying the graph calls `teardown`.
///
/// The destructor deletes all GL objects that the passes created and returns all textures to the pool, even
/// after a frame that failed midway.
class QEL_GRAPH_EXPORT RenderGraph
{
public:
    struct Options
    {
        /// Measures the GPU and CPU time of each pass.
        bool profile = false;
        /// Keeps the outputs of all passes readable after a frame, not only the graph's output.
        bool keepOutputs = false;
        /// Passed to every operation of the passes; must outlive the graph.
        RenderCallbacks* callbacks = nullptr;
        /// How model files are read; by default in the calling process.
        ImportOptions modelImport{};
    };

    /// Loads the models of a planned graph and creates its passes. Returns null on failure, with a line in
    /// `errors` for each error. Warnings about models, such as missing textures, are logged.
    static std::unique_ptr<RenderGraph> create(GraphPlan plan, const Options& options, QStringList* errors);
    /// Plans a graph (planGraph) and creates it. If there are errors in the graph itself, GL is not touched.
    static std::unique_ptr<RenderGraph> create(const GraphDescription& graph, const PassRegistry& registry,
                                               const Options& options, QStringList* errors);
    ~RenderGraph();
    RenderGraph(const RenderGraph&) = delete;
    RenderGraph& operator=(const RenderGraph&) = delete;

    /// Renders one frame. Framebuffer 0 must be at least as large as the viewport if a pass draws to the
    /// screen. Returns false with one line in `error` if a shader program failed to build (the compiler's
    /// messages are logged), there was a GL error in a pass, a pass set an error code, or the graph's output
    /// is empty.
    bool renderFrame(QString* error);

    /// \name Results
    /// Results of the last frame, valid until the next frame or releaseOutputs.
    /// @{

    /// The output image of the graph, as it was before any other pass modified it in place; null before the
    /// first frame or if the graph has no output. Do not delete it or render into it.
    Texture* image() const;

    struct Output
    {
        QString pass;
        /// Full name.
        QString port;
        QVariant value;
    };
    /// All outputs of all passes that ran, in execution order, each as it was before another pass modified it
    /// in place; empty without Options::keepOutputs.
    std::vector<Output> outputs() const;
    /// Returns the textures of the last frame to the pool.
    void releaseOutputs();
    /// @}

    /// \name Changes between frames
    /// @{

    /// Changes the size in pixels. Returns false with one line in `error` if it is below 1 or above the
    /// driver's limit.
    bool setViewport(const QSize& size, QString* error);
    QSize viewport() const;
    /// Sets an input to a constant, written as in a graph file. Returns false with one line in `error` if
    /// there is no such input, if it is connected, or if the value does not fit its type.
    bool setConstant(const QString& pass, const QString& port, const QJsonValue& value, QString* error);
    void setCamera(const CameraDescription& camera);
    /// The camera in use; fitted to the models if the graph has none.
    CameraDescription camera() const;
    /// @}

    /// The plan of the graph, including the changes made since.
    const GraphPlan& plan() const;
    /// The model with this name; null if there is none.
    GPUModel* model(const QString& name) const;
    /// Times measured so far; empty without Options::profile. Waits for the GPU.
    std::vector<Profiler::Row> profile();

private:
    struct Private;
    explicit RenderGraph(std::unique_ptr<Private> d);
    std::unique_ptr<Private> d;
};

} // namespace Morvane::Qel
