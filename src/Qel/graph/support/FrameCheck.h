#pragma once

#include <QHash>
#include <QSet>
#include <QStringList>
#include <QVariant>

#include <vector>

#include <Qel/graph/GraphPlan.h>
#include <Qel/graph/RenderGraph.h>

namespace Morvane::Qel {

/// Looks for mistakes in what flows through a graph while it runs, see RenderGraph::Options::check.
class FrameCheck
{
public:
    /// Looks at all outputs of a frame, which are in execution order.
    void look(const GraphPlan& plan, const std::vector<RenderGraph::Output>& outputs);

    /// Returns a line for each finding so far.
    QStringList findings() const;

private:
    struct Jitter
    {
        QVariant first;
        int numFrames = 0;
        bool hasChanged = false;
    };
    void add(const char* kind, const QString& place, const QString& text);
    void checkEmptyInputs(const PlannedPass& pass, const GraphPlan& plan);
    bool hasInvalidInput(const PlannedPass& pass, const GraphPlan& plan) const;
    void checkTexture(const QString& key, const QString& place, Texture* texture, bool isRootCause);

    int m_frame = 0;
    /// Kinds of findings with their places, of which each is reported once.
    QSet<QString> m_found;
    QStringList m_lines;
    /// By "pass.Qel_Type_Port", of the frame that is being looked at.
    QHash<QString, QVariant> m_values;
    /// Outputs of the frame with NaN or infinity.
    QSet<QString> m_invalid;
    /// By the same keys.
    QHash<QString, Jitter> m_jitters;
    QStringList m_jitterKeys;
};

} // namespace Morvane::Qel
