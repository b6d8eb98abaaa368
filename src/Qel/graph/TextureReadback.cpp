// Reads textures and the default framebuffer into images; declared in ImageIO.h.

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/support/PixelLayout.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

template<class Sample, class Pixel>
void readLevel(unsigned int levelTarget, int level, const PixelLayout& layout, int width, int height,
               int layers, std::vector<Image>& images)
{
    const size_t rowLength = static_cast<size_t>(width) * static_cast<size_t>(layout.channels.size());
    const auto numRows = static_cast<size_t>(height);
    std::vector<Pixel> pixels(rowLength * numRows * static_cast<size_t>(layers));
    if (hasGLExtension("ARB_shader_image_load_store")) {
        // Shaders may have written to the texture with image stores.
        glMemoryBarrier(GL_TEXTURE_UPDATE_BARRIER_BIT);
    }
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glGetTexImage(levelTarget, level, layout.format, layout.type, pixels.data());
    constexpr int defaultAlignment = 4;
    glPixelStorei(GL_PACK_ALIGNMENT, defaultAlignment);
    for (int layer = 0; layer < layers; ++layer) {
        images.push_back(
            {width, height, layout.channels,
             flippedLayer<Sample>(pixels.data(), static_cast<size_t>(layer), rowLength, numRows)});
    }
}

} // namespace

std::vector<Image> readTexture(Texture* texture, int level)
{
    std::vector<Image> images;
    if (!QEL_CHECK(__FILE__, texture != nullptr, u"there is no texture to read"_s)) {
        return images;
    }
    const AutoBinder binder(texture);
    const bool cube = texture->target() == GL_TEXTURE_CUBE_MAP;
    for (unsigned int face = 0; face < (cube ? 6U : 1U); ++face) {
        const unsigned int levelTarget = cube ? GL_TEXTURE_CUBE_MAP_POSITIVE_X + face : texture->target();
        int width = 0;
        int height = 0;
        int layers = 0;
        glGetTexLevelParameteriv(levelTarget, level, GL_TEXTURE_WIDTH, &width);
        glGetTexLevelParameteriv(levelTarget, level, GL_TEXTURE_HEIGHT, &height);
        glGetTexLevelParameteriv(levelTarget, level, GL_TEXTURE_DEPTH, &layers);
        if (width == 0 || height == 0 || layers == 0) {
            continue;
        }
        const PixelLayout layout = layoutOf(levelTarget, level);
        switch (layout.type) {
        case GL_UNSIGNED_BYTE:
            readLevel<float, quint8>(levelTarget, level, layout, width, height, layers, images);
            break;
        case GL_UNSIGNED_INT:
            readLevel<quint32, quint32>(levelTarget, level, layout, width, height, layers, images);
            break;
        case GL_INT:
            readLevel<float, qint32>(levelTarget, level, layout, width, height, layers, images);
            break;
        default:
            readLevel<float, float>(levelTarget, level, layout, width, height, layers, images);
            break;
        }
    }
    return images;
}

Image readDefaultFramebuffer(int width, int height)
{
    const QStringList rgba = {u"R"_s, u"G"_s, u"B"_s, u"A"_s};
    const auto rowLength = static_cast<size_t>(width) * 4;
    const auto numRows = static_cast<size_t>(height);
    std::vector<quint8> pixels(rowLength * numRows);
    OpenGLDeviceContext::current()->bindFramebuffer(GL_READ_FRAMEBUFFER, 0);
    glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
    return {width, height, rgba, flippedLayer<float>(pixels.data(), 0, rowLength, numRows)};
}

} // namespace Morvane::Qel
