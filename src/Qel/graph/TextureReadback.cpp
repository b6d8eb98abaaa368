// Reads textures and the default framebuffer into images; declared in ImageIO.h.

#include <algorithm>
#include <type_traits>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/graph/ImageIO.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Parameters of glGetTexImage that read all channels of a texture.
struct PixelLayout
{
    QStringList channels;
    unsigned int format;
    /// GL_UNSIGNED_BYTE, GL_FLOAT, GL_UNSIGNED_INT or GL_INT.
    unsigned int type;
};

PixelLayout layoutOf(unsigned int levelTarget, int level)
{
    const auto levelParameter = [=](unsigned int name) {
        int value = 0;
        glGetTexLevelParameteriv(levelTarget, level, name, &value);
        return value;
    };
    if (levelParameter(GL_TEXTURE_DEPTH_SIZE) > 0) {
        return {{u"Z"_s}, GL_DEPTH_COMPONENT, GL_FLOAT};
    }
    const auto componentType = static_cast<unsigned int>(levelParameter(GL_TEXTURE_RED_TYPE));
    const bool integer = componentType == GL_UNSIGNED_INT || componentType == GL_INT;
    // Read bytes and divide them here, because drivers convert them with different rounding.
    const bool bytes = componentType == GL_UNSIGNED_NORMALIZED && levelParameter(GL_TEXTURE_RED_SIZE) == 8;
    const unsigned int type = integer ? componentType : bytes ? GLenum{GL_UNSIGNED_BYTE} : GLenum{GL_FLOAT};
    const QStringList rgba = {u"R"_s, u"G"_s, u"B"_s, u"A"_s};
    if (levelParameter(GL_TEXTURE_ALPHA_SIZE) > 0) {
        return {rgba, integer ? GLenum{GL_RGBA_INTEGER} : GLenum{GL_RGBA}, type};
    }
    if (levelParameter(GL_TEXTURE_BLUE_SIZE) > 0) {
        return {rgba.first(3), integer ? GLenum{GL_RGB_INTEGER} : GLenum{GL_RGB}, type};
    }
    if (levelParameter(GL_TEXTURE_GREEN_SIZE) > 0) {
        return {rgba.first(2), integer ? GLenum{GL_RG_INTEGER} : GLenum{GL_RG}, type};
    }
    return {rgba.first(1), integer ? GLenum{GL_RED_INTEGER} : GLenum{GL_RED}, type};
}

template<class Sample, class Pixel>
Sample sampleFromPixel(Pixel value)
{
    if constexpr (std::is_same_v<Pixel, quint8>) {
        return static_cast<Sample>(value) / 255.0F;
    } else {
        return static_cast<Sample>(value);
    }
}

/// Extracts a layer from pixels as GL returns them and flips it vertically.
template<class Sample, class Pixel>
std::vector<Sample> flippedLayer(const std::vector<Pixel>& pixels, size_t layer, size_t rowLength,
                                 size_t height)
{
    std::vector<Sample> samples(rowLength * height);
    for (size_t y = 0; y < height; ++y) {
        const Pixel* row = pixels.data() + (layer * height + height - 1 - y) * rowLength;
        std::transform(row, row + rowLength, samples.data() + y * rowLength, sampleFromPixel<Sample, Pixel>);
    }
    return samples;
}

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
        images.push_back({width, height, layout.channels,
                          flippedLayer<Sample>(pixels, static_cast<size_t>(layer), rowLength, numRows)});
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
    return {width, height, rgba, flippedLayer<float>(pixels, 0, rowLength, numRows)};
}

} // namespace Morvane::Qel
