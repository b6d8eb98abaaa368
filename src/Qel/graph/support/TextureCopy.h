#pragma once

#include <memory>

#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

namespace Morvane::Qel {

/// Holds the content that a render target had before another pass modified it.
class TextureCopy
{
public:
    /// Copies level 0 of a 2D texture with a format that can be rendered into. The texture that it returns
    /// has the same size and format, belongs to this object and is reused by the next call.
    Texture* copy(Texture* source);

private:
    const bool m_hasImageStores = hasGLExtension("ARB_shader_image_load_store");
    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<Texture> m_texture;
};

} // namespace Morvane::Qel
