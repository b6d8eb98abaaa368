#include <Qel/graph/Sequence.h>

#include <algorithm>
#include <cstdlib>

#include <Qel/graph/RenderGraph.h>

namespace Morvane::Qel {

namespace {

/// Spreads consecutive frame numbers over all seeds, because drand48 gives similar numbers for similar seeds
/// (the finaliser of A. Appleby: MurmurHash3, 2011).
long seedOf(int frame)
{
    auto hash = static_cast<quint32>(frame);
    hash = (hash ^ (hash >> 16)) * 0x85ebca6bU;
    hash = (hash ^ (hash >> 13)) * 0xc2b2ae35U;
    return static_cast<long>(hash ^ (hash >> 16));
}

} // namespace

int runUpStart(const GraphPlan& plan, int frame)
{
    return plan.runUpFrames == PassDescription::unlimitedHistory ? 0 : std::max(frame - plan.runUpFrames, 0);
}

void beginSequenceFrame(RenderGraph& graph, int frame)
{
    srand48(seedOf(frame));
    graph.setFrameNumber(frame);
}

bool renderSequenceFrame(RenderGraph& graph, int frame, QString* error)
{
    beginSequenceFrame(graph, frame);
    bool good = true;
    for (int i = 0; good && i < graph.plan().graph.settle; ++i) {
        good = graph.renderFrame(error);
    }
    return good;
}

} // namespace Morvane::Qel
