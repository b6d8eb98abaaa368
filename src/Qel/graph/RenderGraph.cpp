#include <Qel/graph/RenderGraph.h>

#include <QDebug>

#include <algorithm>
#include <array>
#include <limits>

#include <Qel/core/MetaTypes.h>
#include <Qel/core/RenderPass.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/model/GPUModel.h>
#include <Qel/model/ShadowMapManager.h>

#include <Qel/graph/support/Camera.h>
#include <Qel/graph/support/Constants.h>
#include <Qel/graph/support/FrameValues.h>
#include <Qel/graph/support/Ports.h>
#include <Qel/graph/support/Suggestions.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// An output of an earlier pass that goes to an input.
struct Link
{
    int node;
    int output;
    int input;
};

struct FrameValueLink
{
    int value;
    int input;
};

/// A pass that runs, with what its frames need in arrays, so that a frame looks nothing up.
struct Node
{
    int planned;
    std::unique_ptr<RenderPass> pass;
    QByteArray debugName;
    QString labelPrefix;
    std::vector<Link> links;
    std::vector<FrameValueLink> frameValues;
    /// Users of each output.
    std::vector<int> users;
};

/// An output that stays readable after the frame. While a texture is here, one of its references is ours.
struct KeptOutput
{
    int node;
    int output;
    QVariant value;
    Texture* texture;
};

/// A checked light as the passes take it.
ShadowMapManager::Light lightFrom(const LightDescription& description)
{
    ShadowMapManager::Light light;
    light.type = description.type == u"spot"    ? ShadowMapManager::LightType::Spot
                 : description.type == u"point" ? ShadowMapManager::LightType::Point
                                                : ShadowMapManager::LightType::Directional;
    light.position = description.position;
    light.direction = description.direction;
    light.color = description.color * description.intensity;
    light.angle = description.angle;
    light.range = description.range;
    light.cascades = description.cascades;
    return light;
}

/// A model as an input gets it: itself, or its batches where the port takes batches.
QVariant modelAsValue(GPUModel* model, const QString& port)
{
    if (typeOf(port) != QLatin1StringView("QelDrawBuffers*")) {
        pointerMetaTypeId<GPUModel>();
        return QVariant::fromValue(model);
    }
    QVariantList batches;
    for (int i = 0; i < model->numBatches(); ++i) {
        batches.append(QVariant::fromValue<QObject*>(model->drawBuffers(i)));
    }
    return batches;
}

} // namespace

struct RenderGraph::Private
{
    GraphDescription description;
    GraphPlan plan;
    Options options;
    OpenGLDeviceContext* context = nullptr;
    ResourceScope scope;
    std::vector<std::unique_ptr<GPUModel>> models;
    /// Inputs hold pointers to these.
    std::vector<ShadowMapManager::Light> lights;
    QPair<QVector3D, QVector3D> bounds;
    std::vector<Node> nodes;
    std::vector<KeptOutput> kept;
    /// Index into `kept`, -1 for a graph without a picture.
    int picture = -1;
    std::unique_ptr<Profiler> profiler;
    std::array<QVariant, numFrameValues> frameValues;
    std::array<bool, numFrameValues> isChanged{};
    bool isSetUp = false;
    quint64 numFailedBuilds = 0;
    /// Why no frame will ever succeed; empty while there is hope.
    QString lastingFailure;

    Private(const GraphDescription& graph, GraphPlan checkedPlan, const Options& graphOptions)
        : description(graph)
        , plan(std::move(checkedPlan))
        , options(graphOptions)
        , context(OpenGLDeviceContext::current())
        , scope(context)
    {
    }
    ~Private();

    bool makePasses(const PassRegistry& registry, QStringList* faults);
    bool importModels(std::vector<ModelData>* data, QStringList* faults) const;
    void uploadModels(const std::vector<ModelData>& data);
    void connectPasses();

    void setFrameValue(FrameValue value, const QVariant& content);
    void updateView();
    void setLights();
    CameraDescription cameraInForce() const;

    void prepareFrame();
    bool startPass(int node, QString* error);
    bool keepOutputs(QString* error);
    void dropUnreadOutputs(int lastNode);
    void releaseKept();
    QString place(int node) const;
    QString emptyOutput(int node, int output) const;
};

RenderGraph::Private::~Private()
{
    const ResourceScope::Activation activation(context, &scope);
    releaseKept();
    profiler.reset();
    for (Node& node : nodes) {
        if (isSetUp) {
            node.pass->teardown(options.callbacks);
        }
    }
    nodes.clear();
    models.clear();
}

QString RenderGraph::Private::place(int node) const
{
    const PlannedPass& planned = plan.passes[static_cast<size_t>(nodes[static_cast<size_t>(node)].planned)];
    return description.displayName() + u": "_s + planned.name;
}

bool RenderGraph::Private::importModels(std::vector<ModelData>* data, QStringList* faults) const
{
    for (const ModelDescription& model : description.models) {
        const QString prefix = u"%1: models.%2: "_s.arg(description.displayName(), model.name);
        QString error;
        std::optional<ModelData> imported =
            importModel(description.resolvePath(model.file), &error, options.modelImport);
        if (!imported) {
            faults->append(prefix + error);
            continue;
        }
        for (const QString& warning : imported->warnings) {
            qWarning("%s", qUtf8Printable(prefix + warning));
        }
        data->push_back(std::move(*imported));
    }
    return faults->isEmpty();
}

bool RenderGraph::Private::makePasses(const PassRegistry& registry, QStringList* faults)
{
    const ResourceScope::Activation activation(context, &scope);
    for (const int index : plan.order) {
        const PlannedPass& planned = plan.passes[static_cast<size_t>(index)];
        const QString prefix = u"%1: %2: "_s.arg(description.displayName(), planned.name);
        QString error;
        std::unique_ptr<RenderPass> pass = registry.create(planned.type, planned.options, &error);
        if (!pass) {
            faults->append(prefix + error);
            continue;
        }
        bool matches = pass->numInputs() == static_cast<int>(planned.inputs.size()) &&
                       pass->numOutputs() == static_cast<int>(planned.outputs.size());
        for (int i = 0; matches && i < pass->numInputs(); ++i) {
            matches = pass->inputName(i) == planned.inputs[static_cast<size_t>(i)].port;
        }
        for (int i = 0; matches && i < pass->numOutputs(); ++i) {
            matches = pass->outputName(i) == planned.outputs[i];
        }
        if (!matches) {
            faults->append(prefix + u"%1 declares other ports than its description"_s.arg(planned.type));
            continue;
        }
        nodes.push_back({index, std::move(pass), planned.name.toUtf8(), planned.name, {}, {}, {}});
    }
    return faults->isEmpty();
}

void RenderGraph::Private::uploadModels(const std::vector<ModelData>& data)
{
    constexpr float infinity = std::numeric_limits<float>::infinity();
    QVector3D low(infinity, infinity, infinity);
    QVector3D high = -low;
    for (const ModelData& model : data) {
        models.push_back(std::make_unique<GPUModel>(model));
        if (models.back()->numTriangles() == 0) {
            continue;
        }
        const QPair<QVector3D, QVector3D> box = models.back()->bounds();
        for (int i = 0; i < 3; ++i) {
            low[i] = std::min(low[i], box.first[i]);
            high[i] = std::max(high[i], box.second[i]);
        }
    }
    if (low.x() <= high.x()) {
        bounds = {low, high};
    }
}

void RenderGraph::Private::connectPasses()
{
    std::vector<int> nodeOfPass(plan.passes.size(), -1);
    for (size_t i = 0; i < nodes.size(); ++i) {
        nodeOfPass[static_cast<size_t>(nodes[i].planned)] = static_cast<int>(i);
        nodes[i].users.resize(static_cast<size_t>(nodes[i].pass->numOutputs()));
    }
    for (Node& node : nodes) {
        const PlannedPass& planned = plan.passes[static_cast<size_t>(node.planned)];
        for (int i = 0; i < static_cast<int>(planned.inputs.size()); ++i) {
            const PlannedInput& input = planned.inputs[static_cast<size_t>(i)];
            switch (input.source) {
            case InputSource::Default:
                break;
            case InputSource::Constant:
                node.pass->setInput(i, input.constant);
                break;
            case InputSource::Model:
                node.pass->setInput(i,
                                    modelAsValue(models[static_cast<size_t>(input.model)].get(), input.port));
                break;
            case InputSource::FrameValue:
                node.frameValues.push_back({findFrameValue(input.frameValue), i});
                break;
            case InputSource::Connection: {
                const int source = nodeOfPass[static_cast<size_t>(input.pass)];
                node.links.push_back({source, input.output, i});
                ++nodes[static_cast<size_t>(source)].users[static_cast<size_t>(input.output)];
                break;
            }
            }
        }
    }
    for (int i = 0; i < static_cast<int>(nodes.size()); ++i) {
        Node& node = nodes[static_cast<size_t>(i)];
        for (int output = 0; output < static_cast<int>(node.users.size()); ++output) {
            const bool isPicture = node.planned == plan.outputPass && output == plan.outputPort;
            if (isPicture) {
                picture = static_cast<int>(kept.size());
            }
            if (isPicture || options.keepOutputs) {
                kept.push_back({i, output, {}, nullptr});
                ++node.users[static_cast<size_t>(output)];
            }
        }
    }
}

void RenderGraph::Private::setFrameValue(FrameValue value, const QVariant& content)
{
    frameValues[static_cast<size_t>(value)] = content;
    isChanged[static_cast<size_t>(value)] = true;
}

CameraDescription RenderGraph::Private::cameraInForce() const
{
    return description.camera ? *description.camera : fitCamera(bounds, description.viewport);
}

void RenderGraph::Private::updateView()
{
    const CameraDescription camera = cameraInForce();
    setFrameValue(FrameValue::Viewport, QRect(QPoint(0, 0), description.viewport));
    setFrameValue(FrameValue::ProjectionMatrix, projectionMatrix(camera, description.viewport));
    setFrameValue(FrameValue::CameraMatrix, cameraMatrix(camera));
    setFrameValue(FrameValue::NearPlane, camera.nearPlane);
    setFrameValue(FrameValue::FarPlane, camera.farPlane);
}

void RenderGraph::Private::setLights()
{
    for (const LightDescription& light : description.lights) {
        lights.push_back(lightFrom(light));
    }
    QVariantList pointers;
    for (ShadowMapManager::Light& light : lights) {
        pointers.append(QVariant::fromValue(&light));
    }
    setFrameValue(FrameValue::Lights, pointers);
}

/// Sets up the passes at the first frame, and gives them user counts and changed frame values.
void RenderGraph::Private::prepareFrame()
{
    for (Node& node : nodes) {
        node.pass->resetNumOutputUsers();
        for (size_t output = 0; output < node.users.size(); ++output) {
            node.pass->setNumOutputUsers(static_cast<int>(output), node.users[output]);
        }
        if (!isSetUp) {
            context->setLabelPrefix(node.labelPrefix);
            node.pass->setup(options.callbacks);
        }
        for (const FrameValueLink& link : node.frameValues) {
            if (isChanged[static_cast<size_t>(link.value)]) {
                node.pass->setInput(link.input, frameValues[static_cast<size_t>(link.value)]);
            }
        }
    }
    isSetUp = true;
    isChanged.fill(false);
}

bool RenderGraph::Private::startPass(int index, QString* error)
{
    Node& node = nodes[static_cast<size_t>(index)];
    for (const Link& link : node.links) {
        node.pass->setInput(link.input, nodes[static_cast<size_t>(link.node)].pass->output(link.output));
    }
    context->applyBaseState();
    context->setLabelPrefix(node.labelPrefix);
    context->pushDebugGroup(node.debugName.constData());
    if (profiler) {
        profiler->begin(index);
    }
    // Passes never reset their code; one bad frame must not spoil the next.
    node.pass->setErrorCode(0);
    node.pass->start(options.callbacks);
    if (profiler) {
        profiler->end(index);
    }
    context->popDebugGroup();

    if (ShaderProgram::numFailedBuilds() != numFailedBuilds) {
        lastingFailure = place(index) + u": its shader program cannot be built"_s;
        *error = lastingFailure;
        return false;
    }
    if (const unsigned int code = node.pass->errorCode(); code != 0) {
        *error = place(index) + u": the pass reports error 0x%1"_s.arg(code, 0, 16);
        return false;
    }
    return true;
}

/// The message about an output that must not be empty. The fault is the first pass on the way that made
/// nothing.
QString RenderGraph::Private::emptyOutput(int node, int output) const
{
    for (const Link& link : nodes[static_cast<size_t>(node)].links) {
        if (nodes[static_cast<size_t>(link.node)].pass->output(link.output).isNull()) {
            return emptyOutput(link.node, link.output);
        }
    }
    const QString port = nodes[static_cast<size_t>(node)].pass->outputName(output);
    return u"%1.%2: the pass made nothing, so there is no picture"_s.arg(place(node),
                                                                         PortName::parse(port).name);
}

bool RenderGraph::Private::keepOutputs(QString* error)
{
    for (KeptOutput& output : kept) {
        output.value = nodes[static_cast<size_t>(output.node)].pass->output(output.output);
        output.texture = pointerFromVariant<Texture>(output.value);
    }
    if (picture >= 0 && !kept[static_cast<size_t>(picture)].texture) {
        const KeptOutput& output = kept[static_cast<size_t>(picture)];
        *error = emptyOutput(output.node, output.output);
        return false;
    }
    return true;
}

/// After a frame that ended early: drops the references that outputs of the passes up to `lastNode` hold for
/// those behind it and for us.
void RenderGraph::Private::dropUnreadOutputs(int lastNode)
{
    TextureManager* pool = TextureManager::Instance();
    const auto drop = [&](int node, int output) {
        const QVariant value = nodes[static_cast<size_t>(node)].pass->output(output);
        // A pass that stopped before it published anything still shows the texture of an earlier frame, which
        // may be gone: its address is only compared.
        const void* texture = value.isNull() || !(value.metaType().flags() & QMetaType::IsPointer)
                                  ? nullptr
                                  : *static_cast<void* const*>(value.constData());
        for (const TextureManager::Loan& loan : pool->loans()) {
            if (static_cast<QObject*>(loan.texture) == texture || loan.texture == texture) {
                pool->releaseTempTextureRef(loan.texture, 1);
            }
        }
    };
    for (int i = lastNode + 1; i < static_cast<int>(nodes.size()); ++i) {
        for (const Link& link : nodes[static_cast<size_t>(i)].links) {
            if (link.node <= lastNode) {
                drop(link.node, link.output);
            }
        }
    }
    for (const KeptOutput& output : kept) {
        if (output.node <= lastNode) {
            drop(output.node, output.output);
        }
    }
}

void RenderGraph::Private::releaseKept()
{
    for (KeptOutput& output : kept) {
        if (output.texture) {
            TextureManager::Instance()->releaseTempTextureRef(output.texture, 1);
        }
        output.texture = nullptr;
        output.value.clear();
    }
}

RenderGraph::RenderGraph(std::unique_ptr<Private> privateData)
    : d(std::move(privateData))
{
}

RenderGraph::~RenderGraph() = default;

std::unique_ptr<RenderGraph> RenderGraph::create(const GraphDescription& graph, const PassRegistry& registry,
                                                 const Options& options, QStringList* faults)
{
    const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    if (!context) {
        faults->append(graph.displayName() + u": no OpenGL context is current"_s);
        return nullptr;
    }
    QStringList newFaults;
    std::optional<GraphPlan> plan = planGraph(graph, registry, context->maxTextureSize(), &newFaults);
    std::unique_ptr<Private> d;
    std::vector<ModelData> models;
    if (plan) {
        d = std::make_unique<Private>(graph, std::move(*plan), options);
        d->importModels(&models, &newFaults);
        d->makePasses(registry, &newFaults);
    }
    if (!newFaults.isEmpty()) {
        faults->append(newFaults);
        return nullptr;
    }
    d->uploadModels(models);
    d->connectPasses();
    d->updateView();
    d->setFrameValue(FrameValue::SceneBoundsMin, d->bounds.first);
    d->setFrameValue(FrameValue::SceneBoundsMax, d->bounds.second);
    d->setLights();
    if (options.profile) {
        std::vector<QString> sections;
        for (const Node& node : d->nodes) {
            sections.push_back(node.labelPrefix);
        }
        d->profiler = std::make_unique<Profiler>(sections);
    }
    return std::unique_ptr<RenderGraph>(new RenderGraph(std::move(d)));
}

bool RenderGraph::renderFrame(QString* error)
{
    if (!d->lastingFailure.isEmpty()) {
        *error = d->lastingFailure;
        return false;
    }
    d->releaseKept();
    const ResourceScope::Activation activation(d->context, &d->scope);
    d->numFailedBuilds = ShaderProgram::numFailedBuilds();
    d->prepareFrame();
    for (const Node& node : d->nodes) {
        node.pass->beginFrame(d->options.callbacks);
    }
    bool good = true;
    for (int i = 0; good && i < static_cast<int>(d->nodes.size()); ++i) {
        good = d->startPass(i, error);
        if (!good) {
            d->dropUnreadOutputs(i);
        }
    }
    for (const Node& node : d->nodes) {
        node.pass->endFrame(d->options.callbacks);
    }
    d->context->setLabelPrefix({});
    good = good && d->keepOutputs(error);
    if (d->profiler) {
        d->profiler->endFrame();
    }
    TextureManager::Instance()->endFrame();
    return good;
}

Texture* RenderGraph::picture() const
{
    return d->picture < 0 ? nullptr : d->kept[static_cast<size_t>(d->picture)].texture;
}

std::vector<RenderGraph::Output> RenderGraph::outputs() const
{
    std::vector<Output> outputs;
    for (const KeptOutput& output : d->kept) {
        if (d->options.keepOutputs) {
            const Node& node = d->nodes[static_cast<size_t>(output.node)];
            outputs.push_back({node.labelPrefix, node.pass->outputName(output.output), output.value});
        }
    }
    return outputs;
}

void RenderGraph::releaseOutputs()
{
    d->releaseKept();
}

bool RenderGraph::setViewport(const QSize& size, QString* error)
{
    const QString fault = viewportFault(size, d->context->maxTextureSize());
    if (!fault.isEmpty()) {
        *error = d->description.displayName() + u": viewport: "_s + fault;
        return false;
    }
    d->description.viewport = size;
    d->updateView();
    return true;
}

QSize RenderGraph::viewport() const
{
    return d->description.viewport;
}

bool RenderGraph::setConstant(const QString& pass, const QString& port, const QJsonValue& value,
                              QString* error)
{
    const auto planned = std::find_if(d->plan.passes.begin(), d->plan.passes.end(),
                                      [&](const PlannedPass& candidate) { return candidate.name == pass; });
    const QString prefix = u"%1: %2.%3: "_s.arg(d->description.displayName(), pass, port);
    if (planned == d->plan.passes.end()) {
        QStringList names;
        for (const PlannedPass& candidate : d->plan.passes) {
            names.append(candidate.name);
        }
        *error = prefix + u"no pass \"%1\"%2"_s.arg(pass, suggestion(pass, names));
        return false;
    }
    QStringList ports;
    for (const PlannedInput& input : planned->inputs) {
        ports.append(input.port);
    }
    const QList<int> found = findPorts(ports, port);
    if (found.size() != 1) {
        *error = prefix + portFault(ports, found, port, u"%1 has no such input"_s.arg(planned->type));
        return false;
    }
    PlannedInput& input = planned->inputs[static_cast<size_t>(found[0])];
    if (input.source == InputSource::Connection) {
        *error = prefix + u"is connected"_s;
        return false;
    }
    QString fault;
    const std::optional<QVariant> constant = portConstant(d->description, input.port, value, &fault);
    if (!constant) {
        *error = prefix + fault;
        return false;
    }
    input.source = InputSource::Constant;
    input.constant = *constant;
    const int index = static_cast<int>(planned - d->plan.passes.begin());
    for (Node& node : d->nodes) {
        if (node.planned == index) {
            std::erase_if(node.frameValues,
                          [&](const FrameValueLink& link) { return link.input == found[0]; });
            node.pass->setInput(found[0], *constant);
        }
    }
    return true;
}

void RenderGraph::setCamera(const CameraDescription& camera)
{
    d->description.camera = camera;
    d->updateView();
}

CameraDescription RenderGraph::camera() const
{
    return d->cameraInForce();
}

const GraphPlan& RenderGraph::plan() const
{
    return d->plan;
}

GPUModel* RenderGraph::model(const QString& name) const
{
    for (size_t i = 0; i < d->models.size(); ++i) {
        if (d->description.models[i].name == name) {
            return d->models[i].get();
        }
    }
    return nullptr;
}

std::vector<Profiler::Row> RenderGraph::profile()
{
    return d->profiler ? d->profiler->rows() : std::vector<Profiler::Row>();
}

} // namespace Morvane::Qel
