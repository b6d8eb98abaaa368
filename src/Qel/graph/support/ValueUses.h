#pragma once

#include <QJsonValue>
#include <QString>
#include <QVariant>

#include <functional>
#include <vector>

#include <Qel/graph/GraphPlan.h>

namespace Morvane::Qel {

class GraphErrors;
class Parameters;

/// Adds the bound values to the uses of a plan whose inputs are resolved, and checks that keyed values stand
/// where they can change and fit in every frame.
void checkValueUses(GraphPlan& plan, const Parameters& parameters, GraphErrors& errors);

/// What an update has changed in a plan.
struct ValueChanges
{
    struct Input
    {
        int pass;
        int input;
        QVariant value;
    };
    std::vector<Input> inputs;
    /// Whether the camera or the lights changed.
    bool scene = false;
};

/// Sets the inputs, the camera and the lights to the frame's values of those uses that `isWanted` chooses by
/// their ValueUse::value. On failure the plan stays as it was; returns nothing with one line in `error`.
std::optional<ValueChanges> updateValues(GraphPlan& plan,
                                         const std::function<bool(const QJsonValue&)>& isWanted, double frame,
                                         QString* error);

} // namespace Morvane::Qel
