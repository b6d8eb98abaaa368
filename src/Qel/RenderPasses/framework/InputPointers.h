#pragma once

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Texture.h>

namespace Morvane::Qel {

// Instantiated and exported once, by this library.
extern template QEL_RENDERPASSES_EXPORT Texture* RenderPassHelper::getInputPointer<Texture>(int);
extern template QEL_RENDERPASSES_EXPORT DrawBuffers* RenderPassHelper::getInputPointer<DrawBuffers>(int);

} // namespace Morvane::Qel
