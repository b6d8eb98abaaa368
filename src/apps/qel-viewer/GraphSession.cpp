#include "GraphSession.h"

#include <algorithm>
#include <utility>

#include <Qel/gl/Texture.h>
#include <Qel/graph/Sequence.h>

#include "GraphEdits.h"
#include "MessageLog.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

/// The messages since the last call as lines for the user.
QStringList takeLines()
{
    QStringList lines;
    const QStringList messages = MessageLog::take();
    for (const QString& message : messages) {
        lines += linesOf(message);
    }
    return lines;
}

/// The graph with constant parameters as in another one, if it has the same.
GraphDescription withParametersOf(const GraphDescription& graph, const GraphDescription& other)
{
    GraphDescription moved = graph;
    QString error;
    if (graph.parameters != other.parameters && graph.parameters.size() == other.parameters.size()) {
        for (size_t i = 0; i < other.parameters.size(); ++i) {
            const QJsonValue& value = other.parameters[i].value;
            if (!isReference(value) && !isReference(graph.parameters[i].value)) {
                moved.setParameter(other.parameters[i].name, value, &error);
            }
        }
    }
    return moved;
}

bool hasSameStructure(const GraphDescription& a, const GraphDescription& b)
{
    return a.file == b.file && a.output == b.output && a.models == b.models && a.camera == b.camera &&
           a.parameters == b.parameters && a.boundValues == b.boundValues && a.animation == b.animation &&
           a.settle == b.settle &&
           std::equal(a.passes.begin(), a.passes.end(), b.passes.begin(), b.passes.end(),
                      [](const PassSetting& x, const PassSetting& y) {
                          return x.name == y.name && x.type == y.type && x.options == y.options &&
                                 std::all_of(x.inputs.begin(), x.inputs.end(), [&](const auto& input) {
                                     return findInput(y, input.port) != nullptr;
                                 });
                      });
}

} // namespace

QString OutputName::text() const
{
    return pass.isEmpty() ? QString() : pass + u'.' + PortName::parse(port).name;
}

GraphSession::GraphSession(QObject* parent)
    : QObject(parent)
{
}

GraphSession::~GraphSession() = default;

void GraphSession::setGraph(const GraphDescription& graph)
{
    m_wanted = graph;
    m_isChanged = true;
    m_mustBegin = true;
    requestFrame();
}

void GraphSession::clear()
{
    m_mustReplace = true;
    m_mustReadModels = true;
    m_bypassed.clear();
    m_camera.reset();
    m_viewport = {};
    m_isPlaying = false;
    m_frameNumber = 0;
    Q_EMIT frameNumberChanged();
}

void GraphSession::setBypassed(const QSet<QString>& passes)
{
    if (passes != m_bypassed) {
        m_bypassed = passes;
        m_isChanged = true;
        m_mustReplace = true;
        requestFrame();
    }
}

void GraphSession::reloadFiles(bool withModels)
{
    m_isChanged = true;
    m_mustReplace = true;
    m_mustReadModels = m_mustReadModels || withModels;
    requestFrame();
}

void GraphSession::setViewport(const QSize& size)
{
    if (size != m_viewport) {
        m_viewport = size;
        m_mustBegin = true;
        requestFrame();
    }
}

void GraphSession::setCamera(const std::optional<CameraDescription>& camera)
{
    if (camera != m_camera) {
        m_camera = camera;
        m_mustBegin = true;
        requestFrame();
    }
}

void GraphSession::setFrameNumber(int number)
{
    if (number != m_frameNumber) {
        m_frameNumber = number;
        m_mustBegin = true;
        requestFrame();
        Q_EMIT frameNumberChanged();
    }
}

void GraphSession::setPlaying(bool isPlaying)
{
    const bool wasPlaying = std::exchange(m_isPlaying, isPlaying);
    if (wasPlaying && !isPlaying && m_wanted.settle > 1) {
        m_mustBegin = true;
        requestFrame();
    }
}

void GraphSession::requestFrame()
{
    m_isFrameNeeded = true;
    Q_EMIT frameNeeded();
}

void GraphSession::requestFrames(int number)
{
    m_numFurtherFrames = std::max(m_numFurtherFrames, number - 1);
    requestFrame();
}

void GraphSession::initialize()
{
    m_context.emplace();
    m_context->makeCurrent();
}

void GraphSession::release()
{
    m_shownTextures.release();
    m_graph.reset();
    m_context.reset();
}

void GraphSession::makeCurrent()
{
    m_context->makeCurrent();
}

bool GraphSession::render()
{
    if (!m_isFrameNeeded || m_wanted.file.isEmpty()) {
        return false;
    }
    m_isFrameNeeded = false;
    const quint64 framesBefore = m_numFrames;
    if (std::exchange(m_isChanged, false)) {
        m_graphErrors.clear();
        update(&m_graphErrors);
    }
    QStringList errors;
    // A new graph has rendered a frame already.
    const bool isDone = m_numFrames != framesBefore;
    const bool good = isDone || (m_graph && renderFrame(*m_graph, &errors));
    setErrors(m_graphErrors + errors);
    if (good) {
        Q_EMIT frameRendered();
    } else {
        Q_EMIT frameFailed();
    }
    m_numFurtherFrames = good ? m_numFurtherFrames : 0;
    if (m_numFurtherFrames > 0) {
        --m_numFurtherFrames;
        m_isFrameNeeded = true;
        QMetaObject::invokeMethod(this, &GraphSession::frameNeeded, Qt::QueuedConnection);
    }
    return good;
}

void GraphSession::update(QStringList* errors)
{
    const GraphDescription moved = withParametersOf(m_running, m_wanted);
    if (m_graph && !m_mustReplace && hasSameStructure(moved, m_wanted) && hasSameStructure(m_wanted, moved) &&
        updateInPlace(m_wanted, errors)) {
        m_running = m_wanted;
        return;
    }
    if (replaceGraph(errors)) {
        m_running = m_wanted;
        m_mustReplace = false;
        m_mustReadModels = false;
        Q_EMIT graphReplaced();
    }
}

/// Returns false if the graph must be made anew. Of an input that does not fit, `errors` gets a line, and the
/// running graph keeps its value.
bool GraphSession::updateInPlace(const GraphDescription& graph, QStringList* errors)
{
    QString error;
    for (size_t i = 0; i < graph.parameters.size(); ++i) {
        const ParameterDescription& parameter = graph.parameters[i];
        if (parameter == m_running.parameters[i]) {
            continue;
        }
        const std::vector<ValueUse> uses = m_graph->plan().usesOf(parameter.name);
        if (std::any_of(uses.begin(), uses.end(), [](const ValueUse& use) { return use.isFixed; })) {
            return false;
        }
        if (!m_graph->setParameter(parameter.name, parameter.value, &error)) {
            errors->append(error);
        }
    }
    for (size_t i = 0; i < graph.passes.size(); ++i) {
        if (m_bypassed.contains(graph.passes[i].name)) {
            continue;
        }
        for (const InputSetting& input : graph.passes[i].inputs) {
            const InputSetting& running = *findInput(m_running.passes[i], input.port);
            if (running.value == input.value) {
                continue;
            }
            if (isReference(running.value) || isReference(input.value)) {
                return false;
            }
            if (!m_graph->setConstant(graph.passes[i].name, input.port, input.value, &error)) {
                errors->append(error);
            }
        }
    }
    if (graph.lights != m_running.lights && !m_graph->setLights(graph.lights, &error)) {
        errors->append(error);
    }
    return true;
}

std::unique_ptr<RenderGraph> GraphSession::makeGraph(const GraphDescription& description,
                                                     const RenderGraph::Options& options, QStringList* errors)
{
    std::optional<GraphPlan> plan =
        planGraph(withoutPasses(description, m_bypassed), PassRegistry::builtin(), errors);
    if (!plan) {
        return nullptr;
    }
    std::unique_ptr<RenderGraph> graph = RenderGraph::create(std::move(*plan), options, errors);
    if (!graph) {
        *errors += takeLines();
    }
    return graph;
}

bool GraphSession::replaceGraph(QStringList* errors)
{
    RenderGraph::Options options;
    options.profile = true;
    options.keepOutputs = true;
    options.modelImport.isolated = true;
    options.modelSource = m_mustReadModels ? nullptr : m_graph.get();
    std::unique_ptr<RenderGraph> graph = makeGraph(m_wanted, options, errors);
    m_mustBegin = true;
    if (!graph || !renderFrame(*graph, errors)) {
        m_mustBegin = true;
        return false;
    }
    m_shownTextures.release();
    m_graph = std::move(graph);
    m_hasOtherCamera = m_camera.has_value();
    return true;
}

std::unique_ptr<RenderGraph> GraphSession::makeCopy(QStringList* errors)
{
    GraphDescription description = m_wanted;
    description.viewport = m_viewport.isEmpty() ? m_wanted.viewport : m_viewport;
    if (m_camera) {
        description.removeCamera();
        description.camera = m_camera;
    }
    RenderGraph::Options options;
    options.modelImport.isolated = true;
    options.modelSource = m_graph.get();
    return makeGraph(description, options, errors);
}

/// Sets the clock, and the camera, which the clock may move.
void GraphSession::beginFrame(RenderGraph& graph)
{
    const bool isRunning = &graph == m_graph.get();
    if (isRunning && !m_camera && std::exchange(m_hasOtherCamera, false)) {
        graph.setCamera(m_wanted.camera ? *m_wanted.camera : graph.fittedCamera());
    }
    beginSequenceFrame(graph, m_frameNumber);
    if (m_camera) {
        graph.setCamera(*m_camera);
        m_hasOtherCamera = m_hasOtherCamera || isRunning;
    }
    if (!m_isPlaying) {
        m_numFurtherFrames = std::max(m_numFurtherFrames, m_wanted.settle - 1);
    }
}

bool GraphSession::renderFrame(RenderGraph& graph, QStringList* errors)
{
    QString error;
    const QSize size = m_viewport.isEmpty() ? m_wanted.viewport : m_viewport;
    if (size != graph.viewport() && !graph.setViewport(size, &error)) {
        errors->append(error);
        return false;
    }
    if (std::exchange(m_mustBegin, false)) {
        beginFrame(graph);
    }
    const bool good = graph.renderFrame(&error);
    const QStringList lines = takeLines();
    if (!good && std::none_of(lines.begin(), lines.end(),
                              [](const QString& line) { return line.contains(u": error: "_s); })) {
        errors->append(error);
    }
    // What the library reports about a graph belongs to it, whatever frame it came with; what comes with
    // every frame is listed once.
    constexpr qsizetype maxErrors = 100;
    for (const QString& line : lines) {
        if (m_graphErrors.size() < maxErrors && !m_graphErrors.contains(line)) {
            m_graphErrors.append(line);
        }
    }
    m_numFrames += good ? 1 : 0;
    return good;
}

std::optional<RenderGraph::Output> GraphSession::find(const OutputName& name) const
{
    const std::vector<RenderGraph::Output> all = outputs();
    const auto found = std::find_if(all.begin(), all.end(), [&](const RenderGraph::Output& output) {
        return output.pass == name.pass && output.port == name.port;
    });
    return found == all.end() ? std::nullopt : std::optional(*found);
}

Texture* GraphSession::texture(const OutputName& name)
{
    if (m_graph && name.pass.isEmpty()) {
        return m_shownTextures.of(QVariant::fromValue(m_graph->image()));
    }
    const std::optional<RenderGraph::Output> output = find(name);
    return output ? texture(*output) : nullptr;
}

QString GraphSession::text(const OutputName& name) const
{
    if (name.pass.isEmpty()) {
        return tr("This graph has no output. Choose the output of a pass.");
    }
    const std::optional<RenderGraph::Output> output = find(name);
    if (!output) {
        return tr("%1 does not run.").arg(name.pass);
    }
    const QString value = output->value.isValid() ? tableFromValue(output->value) : u"null"_s;
    return value == u"null" ? tr("%1 is not set in this frame.").arg(name.text())
                            : u"%1\n\n%2"_s.arg(name.text(), value);
}

std::vector<RenderGraph::Output> GraphSession::outputs() const
{
    return m_graph ? m_graph->outputs() : std::vector<RenderGraph::Output>();
}

Profiler::Report GraphSession::times()
{
    return m_graph ? m_graph->profile() : Profiler::Report();
}

CameraDescription GraphSession::camera() const
{
    if (m_camera) {
        return *m_camera;
    }
    CameraDescription camera = m_graph ? m_graph->camera() : fittedCamera();
    // It stands where it is in its orbit.
    camera.orbit.reset();
    return camera;
}

CameraDescription GraphSession::fittedCamera() const
{
    return m_graph ? m_graph->fittedCamera() : CameraDescription{{0.0F, 0.0F, 5.0F}, {}};
}

void GraphSession::setErrors(const QStringList& errors)
{
    if (errors != m_errors) {
        m_errors = errors;
        Q_EMIT errorsChanged();
    }
}

} // namespace Morvane::Qel::Viewer
