#include <Qel/graph/support/ProjectionCheck.h>

#include <algorithm>

#include <Qel/core/PassDescription.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

bool isSet(const PlannedPass& pass, const QString& port)
{
    return std::any_of(pass.inputs.begin(), pass.inputs.end(), [&](const PlannedInput& input) {
        return input.port == port && input.source != InputSource::Default &&
               (input.source != InputSource::Constant || input.constant.isValid());
    });
}

} // namespace

QStringList findPerspectiveNeeds(const GraphPlan& plan, const PassRegistry& registry)
{
    QStringList needs;
    std::vector<bool> dependsOnProjection(plan.passes.size());
    const auto depends = [&](const PlannedInput& input) {
        return input.source == InputSource::Connection ? dependsOnProjection[static_cast<size_t>(input.pass)]
                                                       : input.source == InputSource::FrameValue &&
                                                             input.frameValue == FrameValue::ProjectionMatrix;
    };
    for (const int index : plan.order) {
        const PlannedPass& pass = plan.passes[static_cast<size_t>(index)];
        const PassDescription& description = *registry.description(pass.type);
        // A user's shader may turn depths of one projection into those of the other.
        dependsOnProjection[static_cast<size_t>(index)] =
            !description.hostDeclaresPorts && std::any_of(pass.inputs.begin(), pass.inputs.end(), depends);
        for (size_t i = 0; i < description.inputs.size(); ++i) {
            const InputDescription& input = description.inputs[i];
            if (!input.perspectiveReason.isEmpty() && depends(pass.inputs[i]) &&
                !isSet(pass, input.orthographicInput)) {
                needs.append(u"%1.%2: needs a perspective camera, with \"fovY\" and not \"height\": %3"_s.arg(
                    pass.name, PortName::parse(input.name).name, input.perspectiveReason));
            }
        }
    }
    return needs;
}

} // namespace Morvane::Qel
