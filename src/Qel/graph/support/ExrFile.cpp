#include <Qel/graph/support/ExrFile.h>

#include <QFile>
#include <QRegularExpression>

#include <exception>
#include <new>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfOutputFile.h>

#include <Qel/core/Memory.h>
#include <Qel/graph/support/ImageErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Larger than the textures of any driver; a header with more is damaged.
constexpr int maxFileSide = 1 << 16;

/// Makes the EXR library write to an OutputFile, which replaces the old file only once the new one is
/// complete.
class SaveFileStream : public Imf::OStream
{
public:
    explicit SaveFileStream(OutputFile& file)
        : OStream(QFile::encodeName(file.fileName()).constData())
        , m_file(file)
    {
    }

    void write(const char bytes[], int count) override
    {
        if (!m_file.writeAll({bytes, count})) {
            throw std::runtime_error(m_file.errorString().toStdString());
        }
    }
    uint64_t tellp() override { return static_cast<uint64_t>(m_file.pos()); }
    void seekp(uint64_t position) override
    {
        if (!m_file.seek(static_cast<qint64>(position))) {
            throw std::runtime_error(m_file.errorString().toStdString());
        }
    }

private:
    OutputFile& m_file;
};

/// Slices for all channels of an image. The library takes writable memory even for writing files.
Imf::FrameBuffer frameBufferOf(Image& image, const Imath::V2i& origin)
{
    static_assert(sizeof(float) == sizeof(quint32));
    char* samples =
        std::visit([](auto& values) { return reinterpret_cast<char*>(values.data()); }, image.samples);
    const auto pixelType = image.isInteger() ? Imf::UINT : Imf::FLOAT;
    const size_t xStride = sizeof(float) * static_cast<size_t>(image.numChannels());
    const size_t yStride = xStride * static_cast<size_t>(image.width);
    const Imath::Box2i window(origin, origin + Imath::V2i(image.width - 1, image.height - 1));
    Imf::FrameBuffer frameBuffer;
    for (int c = 0; c < image.numChannels(); ++c) {
        frameBuffer.insert(image.channels[c].toStdString(),
                           Imf::Slice::Make(pixelType, samples + static_cast<size_t>(c) * sizeof(float),
                                            window, xStride, yStride));
    }
    return frameBuffer;
}

/// R, G, B and A first, the other channels in the file's order.
QStringList sortedChannels(const Imf::ChannelList& list)
{
    QStringList channels;
    for (const char* name : {"R", "G", "B", "A"}) {
        if (list.findChannel(name)) {
            channels << QString::fromUtf8(name);
        }
    }
    for (auto channel = list.begin(); channel != list.end(); ++channel) {
        const QString name = QString::fromUtf8(channel.name());
        if (!channels.contains(name)) {
            channels << name;
        }
    }
    return channels;
}

} // namespace

bool writeExr(const Image& image, OutputFile& file, QString* error)
{
    try {
        Imf::Header header(image.width, image.height);
        for (const QString& channel : image.channels) {
            header.channels().insert(channel.toStdString(),
                                     Imf::Channel(image.isInteger() ? Imf::UINT : Imf::FLOAT));
        }
        SaveFileStream stream(file);
        Imf::OutputFile output(stream, header);
        output.setFrameBuffer(frameBufferOf(const_cast<Image&>(image), {0, 0}));
        output.writePixels(image.height);
    } catch (const std::exception& exception) {
        return writeError(error, file.fileName(), QString::fromUtf8(exception.what()));
    }
    return true;
}

std::optional<Image> readExr(const QString& path, QString* error)
{
    const auto damaged = [&](QString cause) {
        // The message starts with the path already.
        static const QRegularExpression opening(u"^Cannot \\w+ image file \"[^\"]*\"\\.\\s*|\\.$"_s);
        cause.remove(opening);
        imageError(error, path, u"cannot be read as an EXR image: %1"_s.arg(cause), u"use an intact file"_s);
        return std::nullopt;
    };
    try {
        Imf::InputFile file(QFile::encodeName(path).constData());
        const Imf::ChannelList& list = file.header().channels();
        bool integer = true;
        for (auto channel = list.begin(); channel != list.end(); ++channel) {
            integer = integer && channel.channel().type == Imf::UINT;
            if (channel.channel().xSampling != 1 || channel.channel().ySampling != 1) {
                return damaged(u"channel \"%1\" is subsampled"_s.arg(QString::fromUtf8(channel.name())));
            }
        }
        const Imath::Box2i window = file.header().dataWindow();
        const qint64 width = qint64{window.max.x} - window.min.x + 1;
        const qint64 height = qint64{window.max.y} - window.min.y + 1;
        if (width > maxFileSide || height > maxFileSide) {
            return damaged(u"%1x%2 pixels are no usable size"_s.arg(width).arg(height));
        }
        if (list.begin() == list.end() || !file.isComplete()) {
            return damaged(u"it is incomplete"_s);
        }
        Image image{static_cast<int>(width), static_cast<int>(height), sortedChannels(list), {}};
        if (!fitsMemory(sizeof(float) * static_cast<double>(image.numSamples()))) {
            memoryError(error, path, {image.width, image.height});
            return std::nullopt;
        }
        if (integer) {
            image.samples = std::vector<quint32>(image.numSamples());
        } else {
            image.samples = std::vector<float>(image.numSamples());
        }
        file.setFrameBuffer(frameBufferOf(image, window.min));
        file.readPixels(window.min.y, window.max.y);
        return image;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& exception) {
        return damaged(QString::fromUtf8(exception.what()));
    }
}

} // namespace Morvane::Qel
