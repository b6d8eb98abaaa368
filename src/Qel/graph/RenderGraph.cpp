#include <Qel/graph/RenderGraph.h>

#include <algorithm>
#include <functional>

#include <Qel/core/Text.h>
#include <Qel/gl/ContextReference.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/graph/support/Camera.h>
#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/Names.h>
#include <Qel/graph/support/PassRunner.h>
#include <Qel/graph/support/PortValues.h>
#include <Qel/graph/support/Ports.h>
#include <Qel/graph/support/Presenter.h>
#include <Qel/graph/support/Scene.h>
#include <Qel/graph/support/SceneCheck.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

struct RenderGraph::Private
{
    GraphPlan plan;
    ContextReference context = ContextReference::toCurrent();
    int maxTextureSize = OpenGLDeviceContext::current()->maxTextureSize();
    /// Owns the GL objects that passes create and do not delete.
    ResourceScope scope;
    Presenter presenter;
    std::optional<Scene> scene;
    /// The file that each model was read from; empty for one that came from replaceModel.
    QStringList modelFiles;
    std::optional<PassRunner> runner;

    Private(GraphPlan graphPlan, const Options& options)
        : plan(std::move(graphPlan))
    {
        runner.emplace(options);
    }
    ~Private()
    {
        const ResourceScope::Activation activation(&scope);
        runner.reset();
        scene.reset();
    }

    CameraDescription camera() const
    {
        return plan.graph.camera ? *plan.graph.camera : fitCamera(scene->bounds(), plan.graph.viewport);
    }
    /// Says in `error` if the graph's context is not current.
    bool isContextCurrent(QString* error) const
    {
        if (!context.isCurrent()) {
            *error = plan.graph.displayName() + u": the OpenGL context of the graph is not current"_s;
        }
        return context.isCurrent();
    }
    void updateView() { scene->setView(camera(), plan.graph.viewport); }
    /// Index of a model of the graph, -1 if there is none.
    int modelIndex(const QString& name) const
    {
        const std::vector<ModelDescription>& models = plan.graph.models;
        const auto found = std::find_if(models.begin(), models.end(),
                                        [&](const ModelDescription& model) { return model.name == name; });
        return found == models.end() ? -1 : static_cast<int>(found - models.begin());
    }

    /// The model that was read from a file, null if there is none.
    std::shared_ptr<GPUModel> modelOfFile(const QString& file) const
    {
        const qsizetype index = context.isCurrent() ? modelFiles.indexOf(file) : -1;
        return index < 0 ? nullptr : scene->model(static_cast<size_t>(index));
    }

    /// Converts what is set on the port of this name; returns nothing if it does not fit, with what is wrong
    /// in the text.
    using PortConversion = std::function<std::optional<QVariant>(const QString& port, QString* what)>;
    bool setInput(const QString& pass, const QString& port, const PortConversion& convert, QString* error);
};

RenderGraph::RenderGraph(std::unique_ptr<Private> privateData)
    : d(std::move(privateData))
{
}

RenderGraph::~RenderGraph() = default;

std::unique_ptr<RenderGraph> RenderGraph::create(GraphPlan plan, const Options& options, QStringList* errors)
{
    const QString name = plan.graph.displayName();
    const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    if (!context) {
        errors->append(name + u": no OpenGL context is current"_s);
        return nullptr;
    }
    GraphErrors found(plan.graph, errors);
    found.add(u"viewport"_s, viewportError(plan.graph.viewport, context->maxTextureSize()));
    auto d = std::make_unique<Private>(std::move(plan), options);
    std::vector<std::shared_ptr<GPUModel>> models;
    for (const ModelDescription& model : d->plan.graph.models) {
        d->modelFiles.append(d->plan.graph.resolvePath(model.file));
        models.push_back(options.modelSource ? options.modelSource->d->modelOfFile(d->modelFiles.back())
                                             : nullptr);
    }
    loadModels(d->plan.graph, options.modelImport, models, found);
    {
        const ResourceScope::Activation activation(&d->scope);
        d->runner->createPasses(d->plan, found);
    }
    if (found.count() > 0) {
        return nullptr;
    }
    d->scene.emplace(d->plan.graph, std::move(models));
    d->updateView();
    d->runner->connectPasses(d->plan, *d->scene);
    return std::unique_ptr<RenderGraph>(new RenderGraph(std::move(d)));
}

std::unique_ptr<RenderGraph> RenderGraph::create(const GraphDescription& graph, const PassRegistry& registry,
                                                 const Options& options, QStringList* errors)
{
    std::optional<GraphPlan> plan = planGraph(graph, registry, errors);
    return plan ? create(std::move(*plan), options, errors) : nullptr;
}

bool RenderGraph::renderFrame(QString* error)
{
    if (!d->isContextCurrent(error)) {
        return false;
    }
    const ResourceScope::Activation activation(&d->scope);
    const bool good = d->runner->renderFrame(*d->scene, error);
    *error = printable(*error);
    return good;
}

Texture* RenderGraph::image() const
{
    return d->runner->image();
}

std::vector<RenderGraph::Output> RenderGraph::outputs() const
{
    return d->runner->outputs();
}

bool RenderGraph::present(unsigned int framebuffer, const QRect& rectangle, QString* error)
{
    const auto fail = [&](const QString& what) {
        *error = u"%1: output: %2"_s.arg(d->plan.graph.displayName(), what);
        return false;
    };
    if (!d->isContextCurrent(error)) {
        return false;
    }
    Texture* shown = image();
    if (!shown) {
        return fail(u"there is no image to show"_s);
    }
    if (const QString what = presentError(*shown); !what.isEmpty()) {
        return fail(what);
    }
    d->presenter.present(*OpenGLDeviceContext::current(), *shown, framebuffer, rectangle);
    return true;
}

void RenderGraph::releaseOutputs()
{
    d->runner->releaseOutputs();
}

bool RenderGraph::setViewport(const QSize& size, QString* error)
{
    const QString what = viewportError(size, d->maxTextureSize);
    if (!what.isEmpty()) {
        *error = u"%1: viewport: %2"_s.arg(d->plan.graph.displayName(), what);
        return false;
    }
    d->plan.graph.viewport = size;
    d->updateView();
    return true;
}

QSize RenderGraph::viewport() const
{
    return d->plan.graph.viewport;
}

bool RenderGraph::Private::setInput(const QString& pass, const QString& port, const PortConversion& convert,
                                    QString* error)
{
    const auto fail = [&](const QString& what) {
        *error = printable(u"%1: %2.%3: %4"_s.arg(plan.graph.displayName(), pass, port, what));
        return false;
    };
    QStringList passNames;
    for (const PlannedPass& planned : plan.passes) {
        passNames.append(planned.name);
    }
    const auto passIndex = static_cast<int>(passNames.indexOf(pass));
    if (passIndex < 0) {
        return fail(unknownName(u"pass"_s, pass, passNames));
    }
    PlannedPass& planned = plan.passes[static_cast<size_t>(passIndex)];
    QStringList ports;
    for (const PlannedInput& input : planned.inputs) {
        ports.append(input.port);
    }
    const PortIndex index(ports);
    const QList<int> found = index.find(port);
    if (found.size() != 1) {
        return fail(index.error(found, port, u"%1 has no such input"_s.arg(planned.type)));
    }
    PlannedInput& input = planned.inputs[static_cast<size_t>(found[0])];
    if (input.source == InputSource::Connection) {
        return fail(u"is connected"_s);
    }
    QString what;
    const std::optional<QVariant> value = convert(input.port, &what);
    if (!value) {
        return fail(what);
    }
    input.source = InputSource::Constant;
    input.constant = *value;
    runner->setConstant(passIndex, found[0], *value);
    return true;
}

bool RenderGraph::setConstant(const QString& pass, const QString& port, const QJsonValue& value,
                              QString* error)
{
    const auto convert = [&](const QString& fullName, QString* what) {
        return portConstant(d->plan.graph, fullName, value, what);
    };
    return d->setInput(pass, port, convert, error);
}

bool RenderGraph::setInput(const QString& pass, const QString& port, const QVariant& value, QString* error)
{
    const auto convert = [&](const QString& fullName, QString* what) {
        return portValue(typeOf(fullName), value, what);
    };
    return d->setInput(pass, port, convert, error);
}

bool RenderGraph::setLights(const std::vector<LightDescription>& lights, QString* error)
{
    QStringList messages;
    GraphErrors errors(d->plan.graph, &messages);
    checkLights(lights, errors);
    if (!messages.isEmpty()) {
        *error = messages.first();
        return false;
    }
    d->plan.graph.lights = lights;
    d->scene->setLights(lights);
    return true;
}

bool RenderGraph::replaceModel(const QString& name, const ModelData& data, QString* error)
{
    const int index = d->modelIndex(name);
    if (index < 0) {
        QStringList names;
        for (const ModelDescription& model : d->plan.graph.models) {
            names.append(model.name);
        }
        *error = u"%1: %2"_s.arg(d->plan.graph.displayName(), unknownName(u"model"_s, name, names));
        return false;
    }
    if (!d->isContextCurrent(error)) {
        return false;
    }
    // The old model lives until no pass points to it.
    const std::shared_ptr<GPUModel> old =
        d->scene->replaceModel(static_cast<size_t>(index), std::make_shared<GPUModel>(data));
    d->modelFiles[index].clear();
    d->runner->setModels(d->plan, *d->scene);
    d->updateView();
    return true;
}

void RenderGraph::setCamera(const CameraDescription& camera)
{
    d->plan.graph.camera = camera;
    d->updateView();
}

CameraDescription RenderGraph::camera() const
{
    return d->camera();
}

CameraDescription RenderGraph::fittedCamera() const
{
    return fitCamera(d->scene->bounds(), d->plan.graph.viewport);
}

const GraphPlan& RenderGraph::plan() const
{
    return d->plan;
}

GPUModel* RenderGraph::model(const QString& name) const
{
    const int index = d->modelIndex(name);
    return index < 0 ? nullptr : d->scene->model(static_cast<size_t>(index)).get();
}

Profiler::Report RenderGraph::profile()
{
    return d->runner->profile();
}

} // namespace Morvane::Qel
