#include <Qel/graph/support/TextureCopy.h>

#include <epoxy/gl.h>

#include <Qel/gl/Formats.h>
#include <Qel/gl/Guards.h>

namespace Morvane::Qel {

Texture* TextureCopy::copy(Texture* source)
{
    const unsigned int internalFormat = source->internalFormat();
    const QSize size = source->size();
    if (!m_framebuffer) {
        m_framebuffer = std::make_unique<FramebufferObject>();
        m_texture = std::make_unique<Texture>();
        m_texture->setFilter(GL_NEAREST, GL_NEAREST);
    }
    if (m_texture->size() != size || m_texture->internalFormat() != internalFormat) {
        m_texture->setImage2D(0, internalFormat, size.width(), size.height(),
                              formatFromInternalFormat(internalFormat),
                              typeFromInternalFormat(internalFormat), nullptr);
    }
    if (m_hasImageStores) {
        // Shaders may have written to the texture with image stores.
        glMemoryBarrier(GL_FRAMEBUFFER_BARRIER_BIT);
    }
    const AutoBinder framebufferBinder(m_framebuffer.get());
    m_framebuffer->attach(source, GL_COLOR_ATTACHMENT0, 0);
    m_framebuffer->setDrawBuffers();
    const AutoBinder textureBinder(m_texture.get());
    glCopyTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, 0, 0, size.width(), size.height());
    m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
    return m_texture.get();
}

} // namespace Morvane::Qel
