#pragma once

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <memory>
#include <vector>

#include <Qel/core/RenderPass.h>
#include <Qel/gl/ContextReference.h>
#include <Qel/gl/MemoryAccount.h>
#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/RenderGraph.h>
#include <Qel/graph/support/TextureCopy.h>

namespace Morvane::Qel {

class GraphErrors;
class ImageLoader;
class Scene;

/// Creates the passes of a plan and runs them frame by frame. Everything that a frame needs is in arrays, so
/// that a steady frame looks nothing up and allocates nothing.
class PassRunner
{
public:
    /// The passes belong to the current context.
    explicit PassRunner(const RenderGraph::Options& options);
    /// Calls `teardown` on all passes, if the context is current, and returns all textures to the pool.
    ~PassRunner();
    PassRunner(const PassRunner&) = delete;
    PassRunner& operator=(const PassRunner&) = delete;

    /// Creates the passes in execution order; adds a line to `errors` for each that cannot be created.
    void createPasses(const GraphPlan& plan, GraphErrors& errors);
    /// Sets constants and models and prepares connections. Call it once, after createPasses has succeeded.
    void connectPasses(const GraphPlan& plan, const Scene& scene);
    /// Sets the models of the scene on all inputs that the plan gives one.
    void setModels(const GraphPlan& plan, const Scene& scene);
    /// Sets an input, which gets no frame value from now on. `pass` is an index into GraphPlan::passes.
    void setConstant(int pass, int input, const QVariant& value);

    bool renderFrame(Scene& scene, QString* error);

    Texture* image() const;
    std::vector<RenderGraph::Output> outputs() const;
    void releaseOutputs();
    Profiler::Report profile();

private:
    /// An output of an earlier pass that an input reads.
    struct Connection
    {
        int node;
        int output;
        int input;
        /// Whether the input takes only textures with a depth format.
        bool isDepth;
    };
    struct FrameValueInput
    {
        FrameValue value;
        int input;
    };
    /// A pass and what the runner sets on it in each frame.
    struct Node
    {
        std::unique_ptr<RenderPass> pass;
        QString name;
        QByteArray debugGroup;
        /// "FILE: PASS", for messages.
        QString place;
        std::vector<Connection> connections;
        std::vector<FrameValueInput> frameValues;
        /// User count of each output.
        std::vector<int> users;
        /// Indices into m_kept of the outputs that this pass modifies in place.
        std::vector<size_t> modified;
        bool noticesShown = false;
        /// The pass, if it loads image files.
        const ImageLoader* loader = nullptr;
        /// The last problem with an image file that was logged.
        QString shownProblem;
        /// What the pass allocates and, in the last frame, took from the pool; only with a profiler.
        MemoryAccount memory;
        MemoryAccount::Loans loans;
    };
    /// An output that stays readable after the frame. Holds one reference of its texture, or a copy of it if
    /// a later pass modifies it in place.
    struct KeptOutput
    {
        int node;
        int output;
        QVariant value = {};
        Texture* texture = nullptr;
        std::unique_ptr<TextureCopy> copy = {};
    };

    Node& node(int index) { return m_nodes[static_cast<size_t>(index)]; }
    const Node& node(int index) const { return m_nodes[static_cast<size_t>(index)]; }
    int numNodes() const { return static_cast<int>(m_nodes.size()); }
    void keepOutputs(const GraphPlan& plan);
    void prepareFrame(Scene& scene);
    void copyOutput(KeptOutput& kept);
    bool startPass(int index, QString* error);
    bool hasDepthFormats(const Node& node, QString* error) const;
    static void showNotices(Node& node);
    bool hasImages(Node& node, QString* error) const;
    bool readKeptOutputs(QString* error);
    void dropUnreadOutputs(int lastNode);
    QString emptyOutputError(int index, int output) const;

    ContextReference m_context = ContextReference::toCurrent();
    RenderGraph::Options m_options;
    /// In execution order.
    std::vector<Node> m_nodes;
    /// Index into m_nodes by index into GraphPlan::passes; -1 for culled passes.
    std::vector<int> m_nodeOfPass;
    std::vector<KeptOutput> m_kept;
    /// Index into m_kept; -1 for a graph without an output.
    int m_image = -1;
    std::unique_ptr<Profiler> m_profiler;
    bool m_isSetUp = false;
    quint64 m_numFailedBuilds = 0;
    /// Error that makes every further frame fail; empty if there is none.
    QString m_permanentError;
};

} // namespace Morvane::Qel
