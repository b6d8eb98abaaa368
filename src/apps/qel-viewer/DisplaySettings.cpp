#include "DisplaySettings.h"

#include <epoxy/gl.h>

#include <Qel/gl/Formats.h>
#include <Qel/gl/Texture.h>

namespace Morvane::Qel::Viewer {

TextureKind kindOf(const Texture& texture)
{
    switch (texture.target()) {
    case GL_TEXTURE_2D:
    case GL_TEXTURE_2D_ARRAY:
    case GL_TEXTURE_CUBE_MAP:
        break;
    default:
        return TextureKind::None;
    }
    switch (formatFromInternalFormat(texture.internalFormat())) {
    case GL_DEPTH_COMPONENT:
    case GL_DEPTH_STENCIL:
        return TextureKind::Depth;
    case GL_RED_INTEGER:
    case GL_RG_INTEGER:
    case GL_RGBA_INTEGER:
        return typeFromInternalFormat(texture.internalFormat()) == GL_INT ? TextureKind::Signed
                                                                          : TextureKind::Unsigned;
    default:
        return texture.size().isEmpty() ? TextureKind::None : TextureKind::Color;
    }
}

int numChannelsOf(const Texture& texture)
{
    switch (formatFromInternalFormat(texture.internalFormat())) {
    case GL_RED:
    case GL_RED_INTEGER:
    case GL_DEPTH_COMPONENT:
    case GL_DEPTH_STENCIL:
        return 1;
    case GL_RG:
    case GL_RG_INTEGER:
        return 2;
    case GL_RGB:
        return 3;
    default:
        return 4;
    }
}

int numLayersOf(const Texture& texture)
{
    constexpr int numFaces = 6;
    return texture.target() == GL_TEXTURE_CUBE_MAP ? numFaces : texture.layers();
}

QSize sizeOfLevel(const Texture& texture, int level)
{
    return {std::max(texture.size().width() >> level, 1), std::max(texture.size().height() >> level, 1)};
}

double numBytesOf(const Texture& texture)
{
    const auto bytesOfType = [](unsigned int type) {
        switch (type) {
        case GL_UNSIGNED_BYTE:
            return 1;
        case GL_UNSIGNED_SHORT:
        case GL_HALF_FLOAT:
            return 2;
        case 0:
            return 0;
        default:
            return 4;
        }
    };
    double texels = 0.0;
    for (int level = 0; level < texture.levels(); ++level) {
        const QSizeF size = sizeOfLevel(texture, level);
        texels += size.width() * size.height();
    }
    return texels * numLayersOf(texture) * numChannelsOf(texture) *
           bytesOfType(typeFromInternalFormat(texture.internalFormat()));
}

DisplaySettings initialSettings(const Texture& texture)
{
    DisplaySettings settings;
    const TextureKind kind = kindOf(texture);
    settings.hasAutoRange = kind == TextureKind::Depth;
    settings.hasFalseColors = kind == TextureKind::Unsigned || kind == TextureKind::Signed;
    return settings;
}

} // namespace Morvane::Qel::Viewer
