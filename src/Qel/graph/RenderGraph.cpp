#include <Qel/graph/RenderGraph.h>

#include <QDebug>

#include <algorithm>
#include <functional>
#include <utility>

#include <Qel/core/Text.h>
#include <Qel/gl/ContextReference.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/graph/FittedCamera.h>
#include <Qel/graph/support/Camera.h>
#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/FrameCheck.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/Keys.h>
#include <Qel/graph/support/Names.h>
#include <Qel/graph/support/OrbitCamera.h>
#include <Qel/graph/support/Parameters.h>
#include <Qel/graph/support/PassRunner.h>
#include <Qel/graph/support/PortValues.h>
#include <Qel/graph/support/Ports.h>
#include <Qel/graph/support/Presenter.h>
#include <Qel/graph/support/Scene.h>
#include <Qel/graph/support/SceneCheck.h>
#include <Qel/graph/support/ValueUses.h>

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
    /// Whether a model came from replaceModel rather than from its file.
    bool hasReplacedModels = false;
    std::optional<PassRunner> runner;
    int frameNumber = 0;
    /// Whether the next frame is the first one rendered with this number.
    bool isNewFrame = true;
    /// Why the keyed values of the frame cannot be set; empty if they are.
    QString keyError;
    /// Only with Options::check.
    std::optional<FrameCheck> check;

    Private(GraphPlan graphPlan, Options options)
        : plan(std::move(graphPlan))
    {
        if (options.check) {
            options.keepOutputs = true;
            check.emplace();
        }
        runner.emplace(options);
    }
    ~Private()
    {
        const ResourceScope::Activation activation(&scope);
        runner.reset();
        scene.reset();
    }

    CameraDescription camera() const { return cameraOfFrame(plan.graph, frameNumber, scene->outline()); }
    /// Says in `error` if the graph's context is not current.
    bool isContextCurrent(QString* error) const
    {
        const bool isCurrent = context.isCurrent();
        if (!isCurrent) {
            *error = plan.graph.displayName() + u": the OpenGL context of the graph is not current"_s;
        }
        return isCurrent;
    }
    void updateView() { scene->setView(camera(), plan.graph.viewport); }
    void updateClock()
    {
        const AnimationDescription animation = plan.graph.animation.value_or(AnimationDescription());
        scene->setClock(frameNumber, animation.fps);
    }
    /// Index of a model of the graph, -1 if there is none.
    int modelIndex(const QString& name) const
    {
        const std::vector<ModelDescription>& models = plan.graph.models;
        const auto found = std::find_if(models.begin(), models.end(),
                                        [&](const ModelDescription& model) { return model.name == name; });
        return found == models.end() ? -1 : static_cast<int>(found - models.begin());
    }

    /// Whether the models are those that another plan's files would give, all that it needs among them.
    bool canLendModelsTo(const GraphPlan& other) const
    {
        return !hasReplacedModels && context.isCurrent() && plan.graph.file == other.graph.file &&
               scene->hasModelsOf(other);
    }

    /// Converts what is set on the port of this name; returns nothing if it does not fit, with what is wrong
    /// in the text.
    using PortConversion = std::function<std::optional<QVariant>(const QString& port, QString* what)>;
    bool setInput(const QString& pass, const QString& port, const PortConversion& convert, QString* error);
    /// Sets the keyed values to those of the frame.
    void applyKeys();
    /// Passes on what has changed in the plan.
    void apply(const ValueChanges& changes);
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
    const RenderGraph* source = options.modelSource;
    const bool sharesModels = source && source->d->canLendModelsTo(d->plan);
    std::optional<std::vector<ModelData>> models;
    if (!sharesModels) {
        models = importModels(d->plan.graph, options.modelImport, found);
    }
    {
        const ResourceScope::Activation activation(&d->scope);
        d->runner->createPasses(d->plan, found);
    }
    if (found.count() > 0) {
        return nullptr;
    }
    if (sharesModels) {
        d->scene.emplace(d->plan, *source->d->scene);
    } else {
        d->scene.emplace(d->plan, std::move(*models));
    }
    d->updateView();
    d->updateClock();
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
    if (!d->keyError.isEmpty()) {
        *error = printable(d->keyError);
        return false;
    }
    const ResourceScope::Activation activation(&d->scope);
    d->scene->setNewFrame(std::exchange(d->isNewFrame, false));
    const bool good = d->runner->renderFrame(*d->scene, error);
    if (good && d->check) {
        d->check->look(d->plan, d->runner->outputs());
    }
    if (!good) {
        *error = printable(*error);
    }
    return good;
}

void RenderGraph::setFrameNumber(int number)
{
    d->frameNumber = number;
    d->isNewFrame = true;
    d->updateClock();
    if (std::any_of(d->plan.valueUses.begin(), d->plan.valueUses.end(),
                    [](const ValueUse& use) { return use.isKeyed; })) {
        d->applyKeys();
    }
    if (d->plan.graph.camera && d->plan.graph.camera->orbit) {
        d->updateView();
    }
}

int RenderGraph::frameNumber() const
{
    return d->frameNumber;
}

Texture* RenderGraph::image() const
{
    return d->runner->image();
}

std::vector<RenderGraph::Output> RenderGraph::outputs() const
{
    return d->runner->outputs();
}

QStringList RenderGraph::findings() const
{
    return d->check ? d->check->findings() : QStringList();
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
    // What was set here no longer follows a parameter or keys.
    std::erase_if(plan.valueUses,
                  [&](const ValueUse& use) { return use.pass == passIndex && use.input == found[0]; });
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

void RenderGraph::Private::applyKeys()
{
    keyError.clear();
    const Parameters parameters(plan.graph);
    const auto isKeyedNow = [&](const QJsonValue& used) {
        return !parameters.resolve(used, frameNumber).keyed.isUndefined();
    };
    if (const auto changes = updateValues(plan, isKeyedNow, frameNumber, &keyError)) {
        apply(*changes);
    } else {
        keyError = u"%1, in frame %2"_s.arg(keyError).arg(frameNumber);
    }
}

void RenderGraph::Private::apply(const ValueChanges& changes)
{
    for (const ValueChanges::Input& change : changes.inputs) {
        runner->setConstant(change.pass, change.input, change.value);
    }
    if (changes.scene) {
        scene->setLights(plan.graph.lights);
        updateView();
    }
}

bool RenderGraph::setParameter(const QString& name, const QJsonValue& value, QString* error)
{
    const auto fail = [&](const QString& what) {
        *error = printable(u"%1: parameters.%2: %3"_s.arg(d->plan.graph.displayName(), name, what));
        return false;
    };
    const Parameters parameters(d->plan.graph);
    const int index = parameters.find(name);
    if (index < 0) {
        return fail(parameters.unknownError(name));
    }
    if (isKeyed(value) || isParameterUse(value) || value.toString().startsWith(u'@')) {
        return fail(u"must be a constant, not %1"_s.arg(shownValue(value)));
    }
    for (const ValueUse& use : d->plan.usesOf(name)) {
        if (use.isFixed) {
            return fail(u"is used in %1, which is fixed once the graph is created"_s.arg(use.place));
        }
    }
    ParameterDescription& parameter = d->plan.graph.parameters[static_cast<size_t>(index)];
    const QJsonValue before = parameter.value;
    parameter.value = value;
    const auto follows = [&](const QJsonValue& used) { return parameters.leadsTo(used, name); };
    const std::optional<ValueChanges> changes = updateValues(d->plan, follows, d->frameNumber, error);
    if (!changes) {
        parameter.value = before;
        *error = printable(*error);
        return false;
    }
    d->apply(*changes);
    return true;
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
    const ModelDescription& model = d->plan.graph.models[static_cast<size_t>(index)];
    if (!model.merge.isEmpty()) {
        *error = u"%1: model \"%2\" is merged; replace one of its parts (%3)"_s.arg(
            d->plan.graph.displayName(), name, quoted(model.merge));
        return false;
    }
    // The old models live until no pass points to them.
    const std::vector<std::shared_ptr<GPUModel>> old =
        d->scene->replaceModel(static_cast<size_t>(index), data);
    d->hasReplacedModels = true;
    d->runner->setModels(d->plan, *d->scene);
    d->updateView();
    return true;
}

void RenderGraph::setCamera(const CameraDescription& camera)
{
    if (camera.height && !d->camera().height) {
        for (const QString& need : std::as_const(d->plan.perspectiveNeeds)) {
            qWarning("%s", qUtf8Printable(printable(d->plan.graph.displayName() + u": "_s + need)));
        }
    }
    d->plan.graph.camera = camera;
    d->updateView();
}

CameraDescription RenderGraph::camera() const
{
    return d->camera();
}

CameraDescription RenderGraph::fittedCamera() const
{
    return fitCamera(d->scene->outline(), d->plan.graph.viewport);
}

const GraphPlan& RenderGraph::plan() const
{
    return d->plan;
}

GPUModel* RenderGraph::model(const QString& name) const
{
    const int index = d->modelIndex(name);
    return index < 0 ? nullptr : d->scene->model(static_cast<size_t>(index));
}

Profiler::Report RenderGraph::profile()
{
    Profiler::Report report = d->runner->profile();
    report.modelBytes = d->scene->modelBytes();
    return report;
}

} // namespace Morvane::Qel
