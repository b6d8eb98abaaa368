#pragma once

#include <QVariant>

#include <vector>

#include "support/Pixels.h"

namespace Morvane::Qel {
class RenderPass;
}

namespace Morvane::Qel::Test {

/// A texture as an input's value.
QVariant textureInput(Texture* texture);

/// The texture on an output, null where there is none.
Texture* outputTexture(const RenderPass& pass, int output = 0);

/// Runs a frame as a graph does, from the base state and with one user of every output, whose references the
/// caller drops. Inputs are given in the order of the ports; those that are left out keep their values.
void runFrame(RenderPass& pass, const std::vector<QVariant>& inputs);

/// The same; returns the picture on the first output and drops the references of all.
Pixels render(RenderPass& pass, const std::vector<QVariant>& inputs);

} // namespace Morvane::Qel::Test
