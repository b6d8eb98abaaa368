#include <Qel/RenderPasses/support/FragmentLists.h>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/OpenGLDeviceContext.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

const QStringList& fragmentListExtensions()
{
    static const QStringList extensions{u"GL_ARB_shader_atomic_counters"_s,
                                        u"GL_ARB_shader_image_load_store"_s,
                                        u"GL_ARB_shading_language_420pack"_s};
    return extensions;
}

bool hasFragmentListExtensions()
{
    return hasGLExtension("ARB_shader_atomic_counters") && hasGLExtension("ARB_shader_image_load_store") &&
           hasGLExtension("ARB_shading_language_420pack");
}

bool areFragmentLists(const Texture* headPointers, const Texture* nodes, bool* isReported)
{
    if (!headPointers || !nodes) {
        return false;
    }
    const auto isOf = [](const Texture* texture, unsigned int internalFormat) {
        return texture->target() == GL_TEXTURE_2D && texture->internalFormat() == internalFormat &&
               !texture->size().isEmpty();
    };
    const bool areLists = isOf(headPointers, GL_R32UI) && isOf(nodes, GL_RGBA32UI);
    if (!areLists && !*isReported) {
        *isReported = true;
        logCritical(__FILE__, __LINE__,
                    u"head pointers must be a 2D texture of R32UI and nodes one of RGBA32UI, as the "
                    "visibility buffer makes them; the lists are ignored"_s);
    }
    return areLists;
}

ImageBinder::ImageBinder(unsigned int unit, Texture* texture, unsigned int access, unsigned int format)
    : m_unit(unit)
    , m_access(access)
    , m_format(format)
{
    // Images of textures that are incomplete by their parameters read 0 and drop what is written.
    texture->synchronize();
    glBindImageTexture(m_unit, texture->textureID(), 0, GL_FALSE, 0, m_access, m_format);
}

ImageBinder::~ImageBinder()
{
    glBindImageTexture(m_unit, 0, 0, GL_FALSE, 0, m_access, m_format);
}

} // namespace Morvane::Qel
