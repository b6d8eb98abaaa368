#include <Qel/core/RenderCallbacks.h>
#include <Qel/core/RenderPass.h>

namespace Morvane::Qel {

RenderCallbacks::~RenderCallbacks() = default;

RenderPass::~RenderPass() = default;

} // namespace Morvane::Qel
