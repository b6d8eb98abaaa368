#include <Qel/graph/RenderGraph.h>

#include <algorithm>

#include <Qel/core/Text.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/graph/support/Camera.h>
#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/Names.h>
#include <Qel/graph/support/PassRunner.h>
#include <Qel/graph/support/Ports.h>
#include <Qel/graph/support/Scene.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

struct RenderGraph::Private
{
    GraphPlan plan;
    OpenGLDeviceContext* context;
    /// Owns the GL objects that passes create and do not delete.
    ResourceScope scope;
    std::optional<Scene> scene;
    std::optional<PassRunner> runner;

    Private(GraphPlan graphPlan, const Options& options)
        : plan(std::move(graphPlan))
        , context(OpenGLDeviceContext::current())
        , scope(context)
    {
        runner.emplace(context, options);
    }
    ~Private()
    {
        const ResourceScope::Activation activation(context, &scope);
        runner.reset();
        scene.reset();
    }

    CameraDescription camera() const
    {
        return plan.graph.camera ? *plan.graph.camera : fitCamera(scene->bounds(), plan.graph.viewport);
    }
    void updateView() { scene->setView(camera(), plan.graph.viewport); }
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
    const std::optional<std::vector<ModelData>> models =
        importModels(d->plan.graph, options.modelImport, found);
    {
        const ResourceScope::Activation activation(d->context, &d->scope);
        d->runner->createPasses(d->plan, found);
    }
    if (found.count() > 0) {
        return nullptr;
    }
    d->scene.emplace(d->plan.graph, *models);
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
    const ResourceScope::Activation activation(d->context, &d->scope);
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

void RenderGraph::releaseOutputs()
{
    d->runner->releaseOutputs();
}

bool RenderGraph::setViewport(const QSize& size, QString* error)
{
    const QString what = viewportError(size, d->context->maxTextureSize());
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

bool RenderGraph::setConstant(const QString& pass, const QString& port, const QJsonValue& value,
                              QString* error)
{
    const auto fail = [&](const QString& what) {
        *error = printable(u"%1: %2.%3: %4"_s.arg(d->plan.graph.displayName(), pass, port, what));
        return false;
    };
    QStringList passNames;
    for (const PlannedPass& planned : d->plan.passes) {
        passNames.append(planned.name);
    }
    const auto passIndex = static_cast<int>(passNames.indexOf(pass));
    if (passIndex < 0) {
        return fail(unknownName(u"pass"_s, pass, passNames));
    }
    PlannedPass& planned = d->plan.passes[static_cast<size_t>(passIndex)];
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
    const std::optional<QVariant> constant = portConstant(d->plan.graph, input.port, value, &what);
    if (!constant) {
        return fail(what);
    }
    input.source = InputSource::Constant;
    input.constant = *constant;
    d->runner->setConstant(passIndex, found[0], *constant);
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

const GraphPlan& RenderGraph::plan() const
{
    return d->plan;
}

GPUModel* RenderGraph::model(const QString& name) const
{
    const std::vector<ModelDescription>& models = d->plan.graph.models;
    const auto found = std::find_if(models.begin(), models.end(),
                                    [&](const ModelDescription& model) { return model.name == name; });
    return found == models.end() ? nullptr : d->scene->model(static_cast<size_t>(found - models.begin()));
}

std::vector<Profiler::Row> RenderGraph::profile()
{
    return d->runner->profile();
}

} // namespace Morvane::Qel
