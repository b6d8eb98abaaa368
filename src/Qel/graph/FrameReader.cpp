#include <Qel/graph/FrameReader.h>

#include <array>
#include <functional>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/ContextReference.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/graph/support/PixelLayout.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

FramePixels::FramePixels(int number, const QSize& size, PixelLayout layout, QByteArray pixels)
    : m_number(number)
    , m_size(size)
    , m_layout(std::make_shared<const PixelLayout>(std::move(layout)))
    , m_pixels(std::move(pixels))
{
}

Image FramePixels::toImage() const
{
    Image image{m_size.width(), m_size.height(), m_layout->channels, {}};
    const size_t rowLength = static_cast<size_t>(image.width) * static_cast<size_t>(image.numChannels());
    const auto convert = [&]<class Sample, class Pixel>(Sample, Pixel) {
        image.samples = flippedLayer<Sample>(reinterpret_cast<const Pixel*>(m_pixels.constData()), 0,
                                             rowLength, static_cast<size_t>(image.height));
    };
    switch (m_layout->type) {
    case GL_UNSIGNED_BYTE:
        convert(float(), quint8());
        break;
    case GL_UNSIGNED_INT:
        convert(quint32(), quint32());
        break;
    case GL_INT:
        convert(float(), qint32());
        break;
    default:
        convert(float(), float());
        break;
    }
    return image;
}

QByteArray FramePixels::toRgb8() const
{
    const auto width = static_cast<size_t>(m_size.width());
    const auto height = static_cast<size_t>(m_size.height());
    const auto numChannels = static_cast<size_t>(m_layout->channels.size());
    QByteArray rgb(static_cast<qsizetype>(3 * width * height), '\0');
    const auto fill = [&](const auto* samples, bool isFlipped, const auto& toByte) {
        char* to = rgb.data();
        for (size_t y = 0; y < height; ++y) {
            const auto* from = samples + (isFlipped ? height - 1 - y : y) * width * numChannels;
            for (size_t x = 0; x < width; ++x, from += numChannels, to += 3) {
                for (size_t c = 0; c < 3; ++c) {
                    const size_t channel = numChannels == 1 ? 0 : c;
                    // An image with two channels has no blue.
                    if (channel < numChannels) {
                        to[c] = static_cast<char>(toByte(from[channel]));
                    }
                }
            }
        }
    };
    if (m_layout->type == GL_UNSIGNED_BYTE) {
        fill(m_pixels.constData(), true, [](char value) { return value; });
    } else {
        const Image image = toImage();
        std::visit(
            [&](const auto& samples) {
                fill(samples.data(), false,
                     [](auto value) { return byteFromSample(static_cast<float>(value)); });
            },
            image.samples);
    }
    return rgb;
}

struct FrameReader::Private
{
    struct Buffer
    {
        unsigned int name = 0;
        qsizetype capacity = 0;
        /// Signalled when the frame is in the buffer.
        GLsync copied = nullptr;
        int number = 0;
        QSize size;
        PixelLayout layout;
    };

    /// Lets `read` copy a frame into the next buffer.
    void start(int number, const QSize& size, PixelLayout layout, const std::function<void()>& read)
    {
        Buffer& buffer = buffers[static_cast<size_t>((first + numStarted) % numBuffers)];
        ++numStarted;
        buffer.number = number;
        buffer.size = size;
        buffer.layout = std::move(layout);
        const qsizetype bytesPerSample = buffer.layout.type == GL_UNSIGNED_BYTE ? 1 : 4;
        const qsizetype numBytes =
            bytesPerSample * buffer.layout.channels.size() * size.width() * size.height();
        if (buffer.name == 0) {
            glGenBuffers(1, &buffer.name);
        }
        glBindBuffer(GL_PIXEL_PACK_BUFFER, buffer.name);
        if (buffer.capacity != numBytes) {
            glBufferData(GL_PIXEL_PACK_BUFFER, numBytes, nullptr, GL_STREAM_READ);
            buffer.capacity = numBytes;
        }
        glPixelStorei(GL_PACK_ALIGNMENT, 1);
        read();
        constexpr int defaultAlignment = 4;
        glPixelStorei(GL_PACK_ALIGNMENT, defaultAlignment);
        glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
        buffer.copied = glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
        glFlush();
    }

    ContextReference context = ContextReference::toCurrent();
    std::array<Buffer, numBuffers> buffers;
    int first = 0;
    int numStarted = 0;
};

FrameReader::FrameReader()
    : d(std::make_unique<Private>())
{
}

FrameReader::~FrameReader()
{
    if (d->context.isCurrent()) {
        for (const Private::Buffer& buffer : d->buffers) {
            glDeleteSync(buffer.copied);
            glDeleteBuffers(1, &buffer.name);
        }
    }
}

bool FrameReader::start(int number, Texture* texture)
{
    if (!texture || texture->target() != GL_TEXTURE_2D) {
        return false;
    }
    const AutoBinder binder(texture);
    int width = 0;
    int height = 0;
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &width);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &height);
    const PixelLayout layout = layoutOf(GL_TEXTURE_2D, 0);
    if (hasGLExtension("ARB_shader_image_load_store")) {
        // Shaders may have written to the texture with image stores.
        glMemoryBarrier(GL_TEXTURE_UPDATE_BARRIER_BIT);
    }
    d->start(number, {width, height}, layout,
             [&] { glGetTexImage(GL_TEXTURE_2D, 0, layout.format, layout.type, nullptr); });
    return true;
}

void FrameReader::startScreen(int number, const QSize& size)
{
    OpenGLDeviceContext::current()->bindFramebuffer(GL_READ_FRAMEBUFFER, 0);
    d->start(number, size, {{u"R"_s, u"G"_s, u"B"_s, u"A"_s}, GL_RGBA, GL_UNSIGNED_BYTE},
             [&] { glReadPixels(0, 0, size.width(), size.height(), GL_RGBA, GL_UNSIGNED_BYTE, nullptr); });
}

int FrameReader::numStarted() const
{
    return d->numStarted;
}

FramePixels FrameReader::take()
{
    Private::Buffer& buffer = d->buffers[static_cast<size_t>(d->first)];
    d->first = (d->first + 1) % numBuffers;
    --d->numStarted;
    glClientWaitSync(buffer.copied, GL_SYNC_FLUSH_COMMANDS_BIT, GL_TIMEOUT_IGNORED);
    glDeleteSync(buffer.copied);
    buffer.copied = nullptr;
    QByteArray pixels(buffer.capacity, Qt::Uninitialized);
    glBindBuffer(GL_PIXEL_PACK_BUFFER, buffer.name);
    glGetBufferSubData(GL_PIXEL_PACK_BUFFER, 0, buffer.capacity, pixels.data());
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    return {buffer.number, buffer.size, buffer.layout, std::move(pixels)};
}

} // namespace Morvane::Qel
