#include <Qel/graph/support/PassRunner.h>

#include <algorithm>
#include <utility>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/ImageLoader.h>
#include <Qel/RenderPasses/framework/ShaderRenderPass.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/core/MetaTypes.h>
#include <Qel/core/PassDescription.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/graph/support/GraphErrors.h>
#include <Qel/graph/support/Scene.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Whether a pass has exactly the ports of the plan.
bool hasPlannedPorts(const RenderPass& pass, const PlannedPass& planned)
{
    bool matches = pass.numInputs() == static_cast<int>(planned.inputs.size()) &&
                   pass.numOutputs() == static_cast<int>(planned.outputs.size());
    for (int i = 0; matches && i < pass.numInputs(); ++i) {
        matches = pass.inputName(i) == planned.inputs[static_cast<size_t>(i)].port;
    }
    for (int i = 0; matches && i < pass.numOutputs(); ++i) {
        matches = pass.outputName(i) == planned.outputs[i];
    }
    return matches;
}

QVariant modelValue(GPUModel* model, bool asBatches)
{
    if (!asBatches) {
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

PassRunner::PassRunner(const RenderGraph::Options& options)
    : m_options(options)
{
}

PassRunner::~PassRunner()
{
    releaseOutputs();
    m_profiler.reset();
    for (const Node& node : m_nodes) {
        if (m_isSetUp && m_context.isCurrent()) {
            node.pass->teardown(m_options.callbacks);
        }
    }
}

void PassRunner::createPasses(const GraphPlan& plan, GraphErrors& errors)
{
    m_nodeOfPass.assign(plan.passes.size(), -1);
    for (const int index : plan.order) {
        const PlannedPass& planned = plan.passes[static_cast<size_t>(index)];
        Node node;
        node.name = planned.name;
        node.debugGroup = planned.name.toUtf8();
        node.place = u"%1: %2"_s.arg(plan.graph.displayName(), planned.name);
        QString error;
        node.pass = planned.factory(planned.options, &error);
        if (node.pass && !hasPlannedPorts(*node.pass, planned)) {
            node.pass.reset();
            error = u"%1 declares other ports than its description"_s.arg(planned.type);
        }
        if (!node.pass) {
            errors.add(planned.name, error);
            continue;
        }
        node.loader = dynamic_cast<const ImageLoader*>(node.pass.get());
        m_nodeOfPass[static_cast<size_t>(index)] = numNodes();
        m_nodes.push_back(std::move(node));
    }
}

void PassRunner::connectPasses(const GraphPlan& plan, const Scene& scene)
{
    for (Node& node : m_nodes) {
        node.users.resize(static_cast<size_t>(node.pass->numOutputs()));
    }
    for (const int index : plan.order) {
        Node& target = node(m_nodeOfPass[static_cast<size_t>(index)]);
        const PlannedPass& planned = plan.passes[static_cast<size_t>(index)];
        for (int i = 0; i < static_cast<int>(planned.inputs.size()); ++i) {
            const PlannedInput& input = planned.inputs[static_cast<size_t>(i)];
            switch (input.source) {
            case InputSource::Default:
                break;
            case InputSource::Constant:
                target.pass->setInput(i, input.constant);
                break;
            case InputSource::Model:
                break;
            case InputSource::FrameValue:
                target.frameValues.push_back({input.frameValue, i});
                break;
            case InputSource::Connection: {
                const int source = m_nodeOfPass[static_cast<size_t>(input.pass)];
                target.connections.push_back({source, input.output, i, input.isDepth});
                ++node(source).users[static_cast<size_t>(input.output)];
                break;
            }
            }
        }
    }
    setModels(plan, scene);
    keepOutputs(plan);
    if (m_options.profile) {
        std::vector<QString> sections;
        for (const Node& node : m_nodes) {
            sections.push_back(node.name);
        }
        m_profiler = std::make_unique<Profiler>(sections);
    }
}

void PassRunner::setModels(const GraphPlan& plan, const Scene& scene)
{
    for (const int index : plan.order) {
        const Node& target = node(m_nodeOfPass[static_cast<size_t>(index)]);
        const std::vector<PlannedInput>& inputs = plan.passes[static_cast<size_t>(index)].inputs;
        for (size_t i = 0; i < inputs.size(); ++i) {
            if (inputs[i].source == InputSource::Model) {
                target.pass->setInput(
                    static_cast<int>(i),
                    modelValue(scene.model(static_cast<size_t>(inputs[i].model)), inputs[i].takesBatches));
            }
        }
    }
}

/// Makes the runner a user of the graph's output, and of all outputs with Options::keepOutputs.
void PassRunner::keepOutputs(const GraphPlan& plan)
{
    const int outputNode = plan.outputPass < 0 ? -1 : m_nodeOfPass[static_cast<size_t>(plan.outputPass)];
    for (int i = 0; i < numNodes(); ++i) {
        for (int output = 0; output < static_cast<int>(node(i).users.size()); ++output) {
            const bool isPicture = i == outputNode && output == plan.outputPort;
            if (isPicture) {
                m_image = static_cast<int>(m_kept.size());
            }
            if (isPicture || m_options.keepOutputs) {
                m_kept.push_back({i, output});
                ++node(i).users[static_cast<size_t>(output)];
            }
        }
    }
    for (const int index : plan.order) {
        const PlannedPass& planned = plan.passes[static_cast<size_t>(index)];
        Node& modifier = node(m_nodeOfPass[static_cast<size_t>(index)]);
        for (const Connection& connection : modifier.connections) {
            const auto kept = std::find_if(m_kept.begin(), m_kept.end(), [&](const KeptOutput& candidate) {
                return candidate.node == connection.node && candidate.output == connection.output;
            });
            if (kept != m_kept.end() && planned.inputs[static_cast<size_t>(connection.input)].isModified) {
                kept->copy = std::make_unique<TextureCopy>();
                modifier.modified.push_back(static_cast<size_t>(kept - m_kept.begin()));
                --node(kept->node).users[static_cast<size_t>(kept->output)];
            }
        }
    }
}

void PassRunner::setConstant(int pass, int input, const QVariant& value)
{
    const int index = m_nodeOfPass[static_cast<size_t>(pass)];
    if (index >= 0) {
        std::erase_if(node(index).frameValues,
                      [&](const FrameValueInput& candidate) { return candidate.input == input; });
        node(index).pass->setInput(input, value);
    }
}

bool PassRunner::renderFrame(Scene& scene, QString* error)
{
    if (!m_permanentError.isEmpty()) {
        *error = m_permanentError;
        return false;
    }
    releaseOutputs();
    // Errors of the application are logged, but no pass is blamed for them.
    checkGLError("PassRunner", __LINE__);
    takeGLError();
    m_numFailedBuilds = ShaderProgram::numFailedBuilds();
    prepareFrame(scene);
    for (const Node& node : m_nodes) {
        node.pass->beginFrame(m_options.callbacks);
    }
    bool good = true;
    for (int i = 0; good && i < numNodes(); ++i) {
        // A pass that does not start leaves its inputs unread.
        const bool starts = hasDepthFormats(node(i), error);
        good = starts && startPass(i, error);
        if (!good) {
            dropUnreadOutputs(starts ? i : i - 1);
        }
    }
    OpenGLDeviceContext::current()->setLabelPrefix({});
    for (const Node& node : m_nodes) {
        node.pass->endFrame(m_options.callbacks);
    }
    good = good && readKeptOutputs(error);
    if (m_profiler) {
        m_profiler->endFrame();
    }
    TextureManager::Instance()->endFrame();
    return good;
}

/// Sets user counts and changed frame values; calls `setup` before the first frame.
void PassRunner::prepareFrame(Scene& scene)
{
    for (const Node& node : m_nodes) {
        node.pass->resetNumOutputUsers();
        for (size_t output = 0; output < node.users.size(); ++output) {
            node.pass->setNumOutputUsers(static_cast<int>(output), node.users[output]);
        }
        if (!m_isSetUp) {
            OpenGLDeviceContext::current()->setLabelPrefix(node.name);
            const MessagePlace place(&node.place);
            const MemoryAccount::Activation accounting(m_profiler ? &node.memory : nullptr);
            node.pass->setup(m_options.callbacks);
        }
        for (const FrameValueInput& input : node.frameValues) {
            if (scene.isChanged(input.value)) {
                node.pass->setInput(input.input, scene.frameValue(input.value));
            }
        }
    }
    OpenGLDeviceContext::current()->setLabelPrefix({});
    m_isSetUp = true;
    scene.markUnchanged();
}

/// Copies an output before a pass modifies it.
void PassRunner::copyOutput(KeptOutput& kept)
{
    auto* texture = pointerFromVariant<Texture>(node(kept.node).pass->output(kept.output));
    if (texture && texture->target() == GL_TEXTURE_2D && !texture->size().isEmpty()) {
        kept.texture = kept.copy->copy(texture);
        kept.value = QVariant::fromValue<QObject*>(kept.texture);
    }
}

/// Whether the inputs that take only depth textures have such; the driver would reject a framebuffer instead.
bool PassRunner::hasDepthFormats(const Node& node, QString* error) const
{
    for (const Connection& connection : node.connections) {
        const Node& source = this->node(connection.node);
        const auto* texture = connection.isDepth
                                  ? pointerFromVariant<Texture>(source.pass->output(connection.output))
                                  : nullptr;
        // 0 for a texture whose format is not known.
        const unsigned int format = texture ? formatFromInternalFormat(texture->internalFormat()) : 0;
        if (format != 0 && format != GL_DEPTH_COMPONENT && format != GL_DEPTH_STENCIL) {
            *error = u"%1.%2: \"@%3.%4\" is a colour texture, %5; connect a depth texture"_s.arg(
                node.place, PortName::parse(node.pass->inputName(connection.input)).name, source.name,
                PortName::parse(source.pass->outputName(connection.output)).name,
                internalFormatName(texture->internalFormat()));
            return false;
        }
    }
    return true;
}

bool PassRunner::startPass(int index, QString* error)
{
    Node& current = node(index);
    const MessagePlace place(&current.place);
    for (const size_t kept : current.modified) {
        copyOutput(m_kept[kept]);
    }
    for (const Connection& connection : current.connections) {
        current.pass->setInput(connection.input, node(connection.node).pass->output(connection.output));
    }
    OpenGLDeviceContext& context = *OpenGLDeviceContext::current();
    context.applyBaseState();
    context.setLabelPrefix(current.name);
    context.pushDebugGroup(current.debugGroup.constData());
    if (m_profiler) {
        m_profiler->begin(index);
    }
    // Passes do not reset their error code, so the error of an earlier frame would fail this one.
    current.pass->setErrorCode(0);
    {
        const MemoryAccount::Activation accounting(m_profiler ? &current.memory : nullptr);
        current.pass->start(m_options.callbacks);
    }
    if (m_profiler) {
        m_profiler->end(index);
        current.loans = current.memory.takeLoans();
    }
    context.popDebugGroup();
    checkGLError("PassRunner", __LINE__);
    showNotices(current);

    if (ShaderProgram::numFailedBuilds() != m_numFailedBuilds) {
        m_permanentError = current.place + u": its shader program failed to build"_s;
        *error = m_permanentError;
        return false;
    }
    if (const QString glError = takeGLError(); !glError.isEmpty()) {
        *error = u"%1: OpenGL error: %2"_s.arg(current.place, glError);
        return false;
    }
    if (const unsigned int code = current.pass->errorCode(); code != 0) {
        *error = current.place + u": the pass reports error 0x%1"_s.arg(code, 0, 16);
        return false;
    }
    return hasImages(current, error);
}

/// Whether the pass has read its image files, or may go on without them.
bool PassRunner::hasImages(Node& node, QString* error) const
{
    const QString problem = node.loader ? node.loader->imageProblem() : QString();
    if (!problem.isEmpty() && !m_options.keepGoing) {
        *error = u"%1: %2"_s.arg(node.place, problem);
        return false;
    }
    if (node.shownProblem != problem) {
        node.shownProblem = problem;
        if (!problem.isEmpty()) {
            const MessagePlace place(&node.place);
            logNotice(__FILE__, __LINE__, problem + u"; a texel of one colour is used"_s);
        }
    }
    return true;
}

/// Logs, after a pass's first frame, what it found wrong with a user's shaders.
void PassRunner::showNotices(Node& node)
{
    if (std::exchange(node.noticesShown, true)) {
        return;
    }
    if (const auto* pass = dynamic_cast<const ShaderRenderPass*>(node.pass.get())) {
        // The lines name it themselves, more precisely.
        const MessagePlace none(nullptr);
        for (const ShaderRenderPass::Notice& notice : pass->notices()) {
            const QString port = notice.port.isEmpty() ? QString() : u'.' + PortName::parse(notice.port).name;
            logNotice(__FILE__, __LINE__, u"%1%2: %3"_s.arg(node.place, port, notice.text));
        }
    }
}

bool PassRunner::readKeptOutputs(QString* error)
{
    for (KeptOutput& kept : m_kept) {
        if (!kept.copy) {
            kept.value = node(kept.node).pass->output(kept.output);
            kept.texture = pointerFromVariant<Texture>(kept.value);
        }
    }
    if (m_image >= 0 && !image()) {
        const KeptOutput& kept = m_kept[static_cast<size_t>(m_image)];
        *error = emptyOutputError(kept.node, kept.output);
        return false;
    }
    return true;
}

/// The error message for an empty output of the graph. Blames the first pass upstream that published nothing.
QString PassRunner::emptyOutputError(int index, int output) const
{
    for (const Connection& connection : node(index).connections) {
        if (node(connection.node).pass->output(connection.output).isNull()) {
            return emptyOutputError(connection.node, connection.output);
        }
    }
    const QString port = node(index).pass->outputName(output);
    return u"%1.%2: the pass published nothing, so the frame has no output"_s.arg(node(index).place,
                                                                                  PortName::parse(port).name);
}

/// After a frame that stopped at `lastNode`: drops the references that the outputs so far hold for later
/// passes and for the runner.
void PassRunner::dropUnreadOutputs(int lastNode)
{
    TextureManager* pool = TextureManager::Instance();
    const auto drop = [&](int index, int output) {
        const QVariant value = node(index).pass->output(output);
        // A pass that failed before it published may still hold the texture of an earlier frame, which may be
        // deleted by now: only compare its address.
        const void* texture = value.isNull() || !(value.metaType().flags() & QMetaType::IsPointer)
                                  ? nullptr
                                  : *static_cast<void* const*>(value.constData());
        for (const TextureManager::Loan& loan : pool->loans()) {
            if (static_cast<QObject*>(loan.texture) == texture || loan.texture == texture) {
                pool->releaseTempTextureRef(loan.texture, 1);
            }
        }
    };
    for (int i = lastNode + 1; i < numNodes(); ++i) {
        for (const Connection& connection : node(i).connections) {
            if (connection.node <= lastNode) {
                drop(connection.node, connection.output);
            }
        }
    }
    for (KeptOutput& kept : m_kept) {
        if (kept.copy) {
            kept.texture = nullptr;
            kept.value.clear();
        } else if (kept.node <= lastNode) {
            drop(kept.node, kept.output);
        }
    }
}

Texture* PassRunner::image() const
{
    return m_image < 0 || !m_context.isCurrent() ? nullptr : m_kept[static_cast<size_t>(m_image)].texture;
}

std::vector<RenderGraph::Output> PassRunner::outputs() const
{
    std::vector<RenderGraph::Output> outputs;
    if (m_options.keepOutputs && m_context.isCurrent()) {
        for (const KeptOutput& kept : m_kept) {
            const Node& source = node(kept.node);
            outputs.push_back({source.name, source.pass->outputName(kept.output), kept.value});
        }
    }
    return outputs;
}

void PassRunner::releaseOutputs()
{
    for (KeptOutput& kept : m_kept) {
        if (kept.texture && !kept.copy) {
            m_context.whenCurrent(
                [texture = kept.texture] { TextureManager::Instance()->releaseTempTextureRef(texture, 1); });
        }
        kept.texture = nullptr;
        kept.value.clear();
    }
}

Profiler::Report PassRunner::profile()
{
    if (!m_profiler) {
        return {};
    }
    Profiler::Report report = m_profiler->report();
    Profiler::Memory& sum = report.frame.memory;
    for (size_t i = 0; i < m_nodes.size(); ++i) {
        const Node& node = m_nodes[i];
        const Profiler::Memory memory{node.memory.numBytes(), node.loans.numBytes, node.loans.numTextures};
        report.sections[i].memory = memory;
        sum = {sum.kept + memory.kept, sum.pooled + memory.pooled, sum.numPooled + memory.numPooled};
    }
    report.numPoolTextures = TextureManager::Instance()->numTextures();
    report.poolBytes = MemoryAccount::ofPool().numBytes();
    return report;
}

} // namespace Morvane::Qel
