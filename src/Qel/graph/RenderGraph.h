#pragma once

#include <QJsonValue>
#include <QRect>
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
/// (OpenGLDeviceContext::current) for every operation except the destructor.
///
/// Each frame, all passes get their user counts (before the first frame also `setup`), then `beginFrame`. In
/// execution order, the context is put into the base state, and the pass gets the values of its connected
/// inputs and runs `start`. At the end all passes get `endFrame`. Destroying the graph calls `teardown`.
///
/// The destructor deletes all GL objects that the passes created and returns all textures to the pool, even
/// after a frame that failed midway. While the context is not current, it calls no `teardown`, and GL objects
/// and textures follow when the context is next made current. It may also run after the context is destroyed.
class QEL_GRAPH_EXPORT RenderGraph
{
public:
    struct Options
    {
        /// Measures the GPU and CPU time of each pass, see Profiler.
        bool profile = false;
        /// Keeps the outputs of all passes readable after a frame, not only the graph's output.
        bool keepOutputs = false;
        /// Renders on where a pass cannot read an image file, with the pass's fallback, such as a white
        /// texel, and a logged notice. By default, such a frame fails.
        bool keepGoing = false;
        /// Looks for mistakes in what flows through the graph, see findings. Keeps all outputs readable and
        /// reads them back, which makes frames slow.
        bool check = false;
        /// Passed to every operation of the passes; must outlive the graph.
        RenderCallbacks* callbacks = nullptr;
        /// How model files are read; by default in the calling process.
        ImportOptions modelImport{};
        /// A graph of the same context whose models this one shares instead of reading their files again, for
        /// a graph that replaces another; used during create only. They are read again if the two describe
        /// different models, or after replaceModel.
        const RenderGraph* modelSource = nullptr;
    };

    /// Loads the models of a planned graph and creates its passes. Returns null on failure, with a line in
    /// `errors` for each of the first 50 errors and one with the number of the others. Warnings about models,
    /// such as missing textures, are logged.
    static std::unique_ptr<RenderGraph> create(GraphPlan plan, const Options& options, QStringList* errors);
    /// Plans a graph (planGraph) and creates it. If there are errors in the graph itself, GL is not touched.
    static std::unique_ptr<RenderGraph> create(const GraphDescription& graph, const PassRegistry& registry,
                                               const Options& options, QStringList* errors);
    ~RenderGraph();
    RenderGraph(const RenderGraph&) = delete;
    RenderGraph& operator=(const RenderGraph&) = delete;

    /// Renders one frame, the one that setFrameNumber chose. Framebuffer 0 must be at least as large as the
    /// viewport if a pass draws to the screen. Returns false with one line in `error` if the graph's context
    /// is not current, a shader program failed to build (the compiler's messages are logged), there was a GL
    /// error in a pass, a pass set an error code or could not read an image file, or the graph's output is
    /// empty.
    bool renderFrame(QString* error);

    /// \name Clock
    /// The clock stands until setFrameNumber moves it; renderFrame does not. An application that plays an
    /// animation calls setFrameNumber before each frame, either with the next number or with the elapsed
    /// seconds times `fps`; one without animations need not call it. renderSequenceFrame renders
    /// frames whose images do not depend on what was rendered before.
    /// @{

    /// Sets the number of the next frame, 0 at first; those after the end of the animation continue it. This
    /// sets the frame values Time (seconds: number / fps) and FrameNumber, moves a camera in orbit and sets
    /// the keyed values of the frame; where the camera or a light is then not valid, renderFrame says so. The
    /// next renderFrame also gets the frame value NewFrame as true, further ones as false.
    void setFrameNumber(int number);
    int frameNumber() const;
    /// @}

    /// \name Results
    /// Results of the last frame, valid until the next frame or releaseOutputs; none while the graph's
    /// context is not current.
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
    /// What is probably a mistake in the frames so far, with Options::check: a line each, "PASS.PORT: what it
    /// is; what to do", every one once. These are what reviewGraph finds in the graph, NaN and infinity in
    /// the first pass that wrote them, depth textures that are 1 everywhere, jitter that never changed, and
    /// connected textures that are empty.
    QStringList findings() const;
    /// Draws the colours of the image, opaque, into a rectangle of a framebuffer of the application, named as
    /// in GL: 0 for the default one. The rectangle is in pixels with the origin at the lower left; an image
    /// of another size is filtered linearly. Leaves the framebuffer bound, the rectangle as the viewport, and
    /// the base state (OpenGLDeviceContext::applyBaseState), ready for drawing on top. Returns false with one
    /// line in `error` if the context is not current, if there is no image, or if it is not a 2D texture or
    /// holds integers.
    bool present(unsigned int framebuffer, const QRect& rectangle, QString* error);
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
    /// Sets an input to a value of its type: a number, a matrix, a Texture*, a GPUModel*. Objects stay the
    /// caller's and must live until the input is set again or the graph is destroyed; an invalid value unsets
    /// the input. Returns false with one line in `error` if there is no such input, if it is connected, or if
    /// the value has another type.
    bool setInput(const QString& pass, const QString& port, const QVariant& value, QString* error);
    /// Sets a parameter of the graph in all its uses, to a constant written as in a graph file. Returns false
    /// with one line in `error`, and keeps all values, if there is no such parameter, if the value does not
    /// fit a use, or if a use is fixed once the graph is created (ValueUse::isFixed).
    bool setParameter(const QString& name, const QJsonValue& value, QString* error);
    /// Replaces the lights of all passes. Returns false with one line in `error`, and keeps the lights, if
    /// one has a value out of its range.
    bool setLights(const std::vector<LightDescription>& lights, QString* error);
    /// Replaces a model in all passes that use it by its name, and with it the scene's bounds, to which the
    /// camera is fitted if the graph has none. `data` comes from importModel or is made in code, and gets the
    /// placement of the graph's model; models that it is merged into are merged again. The GPUModels that
    /// were there are deleted, unless another graph shares them. Returns false with one line in `error` if
    /// the graph has no model with this name, if it is merged itself, or if the graph's context is not
    /// current.
    bool replaceModel(const QString& name, const ModelData& data, QString* error);
    /// An orthographic camera logs a warning for each input that needs a perspective one
    /// (GraphPlan::perspectiveNeeds).
    void setCamera(const CameraDescription& camera);
    /// The camera of the set frame: fitted to the models if the graph has none, and at its place in its
    /// orbit.
    CameraDescription camera() const;
    /// The camera that shows all models in the viewport, which a graph without a camera uses.
    CameraDescription fittedCamera() const;
    /// @}

    /// The plan of the graph, including the changes made since.
    const GraphPlan& plan() const;
    /// The model with this name; null if there is none, or if it is merged into another and no pass takes it.
    GPUModel* model(const QString& name) const;
    /// Times measured so far, and memory held; a section per pass in execution order, none without
    /// Options::profile. Waits for the GPU.
    Profiler::Report profile();

private:
    struct Private;
    explicit RenderGraph(std::unique_ptr<Private> d);
    std::unique_ptr<Private> d;
};

} // namespace Morvane::Qel
