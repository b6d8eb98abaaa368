#pragma once

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Texture.h>

namespace Morvane::Qel {

// Instantiated and exported only by this library, so that all users share one copy.
extern template QEL_RENDERPASSES_EXPORT Texture* RenderPassHelper::getInputPointer<Texture>(int);
extern template QEL_RENDERPASSES_EXPORT DrawBuffers* RenderPassHelper::getInputPointer<DrawBuffers>(int);

} // namespace Morvane::Qel
