#include "support/FragmentLists.h"

#include <epoxy/gl.h>

#include <Qel/gl/OpenGLDeviceContext.h>

namespace Morvane::Qel {

const QStringList& fragmentListExtensions()
{
    static const QStringList extensions{QStringLiteral("GL_ARB_shader_atomic_counters"),
                                        QStringLiteral("GL_ARB_shader_image_load_store"),
                                        QStringLiteral("GL_ARB_shading_language_420pack")};
    return extensions;
}

bool hasFragmentListExtensions()
{
    return hasGLExtension("ARB_shader_atomic_counters") && hasGLExtension("ARB_shader_image_load_store") &&
           hasGLExtension("ARB_shading_language_420pack");
}

ImageBinder::ImageBinder(unsigned int unit, Texture* texture, unsigned int access)
    : m_unit(unit)
    , m_access(access)
    , m_format(texture->internalFormat())
{
    glBindImageTexture(m_unit, texture->textureID(), 0, GL_FALSE, 0, m_access, m_format);
}

ImageBinder::~ImageBinder()
{
    glBindImageTexture(m_unit, 0, 0, GL_FALSE, 0, m_access, m_format);
}

} // namespace Morvane::Qel
