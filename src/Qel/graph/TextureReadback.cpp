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

/// A mip level of a texture that is bound, or of a face of a cube map.
struct Level
{
    Level(unsigned int levelTarget, int levelNumber)
        : target(levelTarget)
        , number(levelNumber)
    {
        glGetTexLevelParameteriv(target, number, GL_TEXTURE_WIDTH, &width);
        glGetTexLevelParameteriv(target, number, GL_TEXTURE_HEIGHT, &height);
        glGetTexLevelParameteriv(target, number, GL_TEXTURE_DEPTH, &layers);
    }
    bool isEmpty() const { return width == 0 || height == 0 || layers == 0; }

    unsigned int target;
    int number;
    int width = 0;
    int height = 0;
    int layers = 0;
};

/// Calls read<Sample, Pixel>() with the types of a layout.
template<class Read>
void withTypes(const PixelLayout& layout, const Read& read)
{
    switch (layout.type) {
    case GL_UNSIGNED_BYTE:
        read.template operator()<float, quint8>();
        break;
    case GL_UNSIGNED_INT:
        read.template operator()<quint32, quint32>();
        break;
    case GL_INT:
        read.template operator()<float, qint32>();
        break;
    default:
        read.template operator()<float, float>();
        break;
    }
}

/// Makes what shaders wrote to textures with image stores visible, and sets the packing for the call.
template<class Call>
void readPixels(unsigned int barrier, const Call& call)
{
    if (hasGLExtension("ARB_shader_image_load_store")) {
        glMemoryBarrier(barrier);
    }
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    call();
    constexpr int defaultAlignment = 4;
    glPixelStorei(GL_PACK_ALIGNMENT, defaultAlignment);
}

void readLevel(const Level& level, std::vector<Image>& images)
{
    const PixelLayout layout = layoutOf(level.target, level.number);
    const size_t rowLength = static_cast<size_t>(level.width) * static_cast<size_t>(layout.channels.size());
    const auto numRows = static_cast<size_t>(level.height);
    withTypes(layout, [&]<class Sample, class Pixel>() {
        std::vector<Pixel> pixels(rowLength * numRows * static_cast<size_t>(level.layers));
        readPixels(GL_TEXTURE_UPDATE_BARRIER_BIT, [&] {
            glGetTexImage(level.target, level.number, layout.format, layout.type, pixels.data());
        });
        for (int layer = 0; layer < level.layers; ++layer) {
            images.push_back(
                {level.width, level.height, layout.channels,
                 flippedLayer<Sample>(pixels.data(), static_cast<size_t>(layer), rowLength, numRows)});
        }
    });
}

/// A framebuffer to read from that has one layer of a level attached, for its lifetime.
class ReadFramebuffer
{
public:
    ReadFramebuffer(const Texture& texture, const Level& level, int layer, bool isDepth)
    {
        GLint previous = 0;
        glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &previous);
        m_previous = static_cast<unsigned int>(previous);
        glGenFramebuffers(1, &m_name);
        OpenGLDeviceContext::current()->bindFramebuffer(GL_READ_FRAMEBUFFER, m_name);
        const GLenum attachment = isDepth ? GL_DEPTH_ATTACHMENT : GL_COLOR_ATTACHMENT0;
        if (level.target == GL_TEXTURE_2D_ARRAY) {
            glFramebufferTextureLayer(GL_READ_FRAMEBUFFER, attachment, texture.textureID(), level.number,
                                      layer);
        } else {
            glFramebufferTexture2D(GL_READ_FRAMEBUFFER, attachment, level.target, texture.textureID(),
                                   level.number);
        }
        if (isDepth) {
            glReadBuffer(GL_NONE);
        }
    }
    ~ReadFramebuffer()
    {
        OpenGLDeviceContext::current()->bindFramebuffer(GL_READ_FRAMEBUFFER, m_previous);
        glDeleteFramebuffers(1, &m_name);
    }
    ReadFramebuffer(const ReadFramebuffer&) = delete;
    ReadFramebuffer& operator=(const ReadFramebuffer&) = delete;

    /// Drivers cannot render into every format, and then not read it in this way either.
    static bool isComplete()
    {
        return glCheckFramebufferStatus(GL_READ_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
    }

private:
    unsigned int m_name = 0;
    unsigned int m_previous = 0;
};

/// Cuts a rectangle, with the origin at the lower left, out of an image, whose rows run downwards.
Image cut(const Image& image, const QRect& rectangle)
{
    Image part{rectangle.width(), rectangle.height(), image.channels, {}};
    std::visit(
        [&](const auto& samples) {
            std::decay_t<decltype(samples)> copied;
            const auto row = static_cast<qsizetype>(image.width) * image.numChannels();
            for (int y = rectangle.height() - 1; y >= 0; --y) {
                const auto begin = samples.begin() + (image.height - 1 - rectangle.y() - y) * row +
                                   static_cast<qsizetype>(rectangle.x()) * image.numChannels();
                copied.insert(copied.end(), begin,
                              begin + static_cast<qsizetype>(rectangle.width()) * image.numChannels());
            }
            part.samples = std::move(copied);
        },
        image.samples);
    return part;
}

unsigned int levelTargetOf(const Texture& texture, int face)
{
    return texture.target() == GL_TEXTURE_CUBE_MAP
               ? GL_TEXTURE_CUBE_MAP_POSITIVE_X + static_cast<unsigned int>(face)
               : texture.target();
}

} // namespace

std::vector<Image> readTexture(Texture* texture, int level)
{
    std::vector<Image> images;
    if (!QEL_CHECK(__FILE__, texture != nullptr, u"there is no texture to read"_s)) {
        return images;
    }
    const AutoBinder binder(texture);
    for (int face = 0; face < (texture->target() == GL_TEXTURE_CUBE_MAP ? 6 : 1); ++face) {
        if (const Level read(levelTargetOf(*texture, face), level); !read.isEmpty()) {
            readLevel(read, images);
        }
    }
    return images;
}

Image readTexels(Texture* texture, const QRect& rectangle, int level, int layer)
{
    if (!QEL_CHECK(__FILE__, texture != nullptr, u"there is no texture to read"_s)) {
        return {};
    }
    const AutoBinder binder(texture);
    const bool isCube = texture->target() == GL_TEXTURE_CUBE_MAP;
    if (layer < 0 || level < 0 || (isCube && layer >= 6)) {
        return {};
    }
    const Level read(levelTargetOf(*texture, layer), level);
    const QRect part = rectangle & QRect(0, 0, read.width, read.height);
    if (part.isEmpty() || (!isCube && layer >= read.layers)) {
        return {};
    }
    const PixelLayout layout = layoutOf(read.target, level);
    {
        const ReadFramebuffer framebuffer(*texture, read, layer, layout.channels.first() == u'Z');
        if (ReadFramebuffer::isComplete()) {
            const size_t rowLength =
                static_cast<size_t>(part.width()) * static_cast<size_t>(layout.channels.size());
            Image image{part.width(), part.height(), layout.channels, {}};
            withTypes(layout, [&]<class Sample, class Pixel>() {
                std::vector<Pixel> pixels(rowLength * static_cast<size_t>(part.height()));
                readPixels(GL_FRAMEBUFFER_BARRIER_BIT, [&] {
                    glReadPixels(part.x(), part.y(), part.width(), part.height(), layout.format, layout.type,
                                 pixels.data());
                });
                image.samples =
                    flippedLayer<Sample>(pixels.data(), 0, rowLength, static_cast<size_t>(part.height()));
            });
            return image;
        }
    }
    std::vector<Image> layers;
    readLevel(read, layers);
    return cut(layers[isCube ? 0 : static_cast<size_t>(layer)], part);
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
