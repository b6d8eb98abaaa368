#include <Qel/RenderPasses/framework/InputPointers.h>

namespace Morvane::Qel {

template QEL_RENDERPASSES_EXPORT Texture* RenderPassHelper::getInputPointer<Texture>(int);
template QEL_RENDERPASSES_EXPORT DrawBuffers* RenderPassHelper::getInputPointer<DrawBuffers>(int);

} // namespace Morvane::Qel
