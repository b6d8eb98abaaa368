#include <Qel/graph/ImageIO.h>

#include <QBuffer>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QImageReader>
#include <QRegularExpression>
#include <QSaveFile>

#include <algorithm>
#include <array>
#include <cmath>
#include <exception>
#include <type_traits>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfOutputFile.h>
#include <epoxy/gl.h>

#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

const QString checkDisk = u"see that the disk has room"_s;
/// Wider and higher than any driver's textures; a header that says more is damaged.
constexpr int maxFileSide = 1 << 16;

enum class FileKind
{
    Png,
    Exr,
    Unknown
};

FileKind kindOf(const QString& path)
{
    const QString ending = QFileInfo(path).suffix().toLower();
    return ending == QLatin1StringView("png")   ? FileKind::Png
           : ending == QLatin1StringView("exr") ? FileKind::Exr
                                                : FileKind::Unknown;
}

/// Sets the error to one line and returns false.
bool fail(QString* error, const QString& path, const QString& cause, const QString& remedy)
{
    if (error) {
        *error = u"%1: %2; %3"_s.arg(path, cause.simplified(), remedy);
    }
    return false;
}

size_t sampleCount(const Image& image)
{
    return static_cast<size_t>(image.width) * static_cast<size_t>(image.height) *
           static_cast<size_t>(image.numChannels());
}

QString cannotBeWritten(const QString& cause)
{
    return u"cannot be written: %1"_s.arg(cause);
}

/// Opens a file whose name tells a kind of picture that can be written.
bool open(QSaveFile& file, QString* error)
{
    if (kindOf(file.fileName()) == FileKind::Unknown) {
        return fail(error, file.fileName(), u"unknown kind of picture"_s, u"write a .png or an .exr file"_s);
    }
    return file.open(QIODevice::WriteOnly) ||
           fail(error, file.fileName(), cannotBeWritten(file.errorString()),
                u"name a file in an existing folder that you may write to"_s);
}

// Reading textures back.

/// What to ask GL for to get every channel that a texture has.
struct PixelLayout
{
    QStringList channels;
    unsigned int format;
    /// GL_UNSIGNED_BYTE, GL_FLOAT, GL_UNSIGNED_INT or GL_INT.
    unsigned int type;
};

PixelLayout layoutOf(unsigned int levelTarget)
{
    const auto levelParameter = [levelTarget](unsigned int name) {
        int value = 0;
        glGetTexLevelParameteriv(levelTarget, 0, name, &value);
        return value;
    };
    if (levelParameter(GL_TEXTURE_DEPTH_SIZE) > 0) {
        return {{u"Z"_s}, GL_DEPTH_COMPONENT, GL_FLOAT};
    }
    const auto componentType = static_cast<unsigned int>(levelParameter(GL_TEXTURE_RED_TYPE));
    const bool integer = componentType == GL_UNSIGNED_INT || componentType == GL_INT;
    // Bytes are divided here, because drivers differ in the last bit of theirs.
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

/// Cuts layer number `layer` out of pixels as GL delivers them, and turns it upside down.
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
void readLevel(unsigned int levelTarget, const PixelLayout& layout, int width, int height, int layers,
               std::vector<Image>& images)
{
    const size_t rowLength = static_cast<size_t>(width) * static_cast<size_t>(layout.channels.size());
    const auto numRows = static_cast<size_t>(height);
    std::vector<Pixel> pixels(rowLength * numRows * static_cast<size_t>(layers));
    if (hasGLExtension("ARB_shader_image_load_store")) {
        // Shaders may have stored into the texture.
        glMemoryBarrier(GL_TEXTURE_UPDATE_BARRIER_BIT);
    }
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glGetTexImage(levelTarget, 0, layout.format, layout.type, pixels.data());
    for (int layer = 0; layer < layers; ++layer) {
        images.push_back({width, height, layout.channels,
                          flippedLayer<Sample>(pixels, static_cast<size_t>(layer), rowLength, numRows)});
    }
}

// PNG.

quint8 toByte(float value)
{
    // The comparison is false for NaN too.
    return value > 0.0F ? static_cast<quint8>(std::lround(std::min(static_cast<double>(value), 1.0) * 255.0))
                        : quint8{0};
}

QImage toQImage(const Image& image)
{
    const int numChannels = image.numChannels();
    const bool grey = numChannels == 1;
    const bool alpha = image.channels.contains(QLatin1StringView("A"));
    QImage result(image.width, image.height,
                  grey    ? QImage::Format_Grayscale8
                  : alpha ? QImage::Format_RGBA8888
                          : QImage::Format_RGB888);
    if (result.isNull()) {
        return result;
    }
    const int bytesPerPixel = grey ? 1 : alpha ? 4 : 3;
    const float* sample = std::get<std::vector<float>>(image.samples).data();
    for (int y = 0; y < image.height; ++y) {
        uchar* line = result.scanLine(y);
        std::fill_n(line, image.width * bytesPerPixel, uchar{0});
        for (int x = 0; x < image.width; ++x, line += bytesPerPixel, sample += numChannels) {
            std::transform(sample, sample + std::min(numChannels, bytesPerPixel), line, toByte);
        }
    }
    return result;
}

bool writePng(const Image& image, QSaveFile& file, QString* error)
{
    if (image.isInteger()) {
        return fail(error, file.fileName(), u"the picture holds integers, which PNG cannot keep"_s,
                    u"write an .exr file"_s);
    }
    const QImage picture = toQImage(image);
    if (picture.isNull()) {
        return fail(error, file.fileName(), u"no memory for a picture of %1"_s.arg(image.summary()),
                    u"write an .exr file or a smaller picture"_s);
    }
    // By way of memory, because the PNG library leaks and prints when its device fails.
    QByteArray bytes;
    QBuffer buffer(&bytes);
    if (!picture.save(&buffer, "png")) {
        return fail(error, file.fileName(), u"cannot be made into a PNG of %1"_s.arg(image.summary()),
                    u"write an .exr file or a smaller picture"_s);
    }
    return file.write(bytes) == bytes.size() ||
           fail(error, file.fileName(), cannotBeWritten(file.errorString()), checkDisk);
}

std::optional<Image> readPlain(const QString& path, QString* error)
{
    QImageReader reader(path);
    reader.setDecideFormatFromContent(true);
    const QImage picture = reader.read();
    if (picture.isNull()) {
        fail(error, path, u"cannot be read as a picture: %1"_s.arg(reader.errorString()),
             u"name a PNG or EXR file that is whole"_s);
        return std::nullopt;
    }
    const bool grey = picture.pixelFormat().colorModel() == QPixelFormat::Grayscale;
    const bool deep = picture.pixelFormat().redSize() > 8 || picture.format() == QImage::Format_Grayscale16;
    const QImage rgba = picture.convertToFormat(QImage::Format_RGBA64);
    Image image{picture.width(), picture.height(), {u"R"_s}, std::vector<float>()};
    if (!grey) {
        image.channels << u"G"_s << u"B"_s;
        if (picture.hasAlphaChannel()) {
            image.channels << u"A"_s;
        }
    }
    auto& samples = std::get<std::vector<float>>(image.samples);
    samples.reserve(sampleCount(image));
    for (int y = 0; y < image.height; ++y) {
        const auto* line = reinterpret_cast<const QRgba64*>(rgba.constScanLine(y));
        for (int x = 0; x < image.width; ++x) {
            const std::array values = {line[x].red(), line[x].green(), line[x].blue(), line[x].alpha()};
            for (size_t c = 0; c < static_cast<size_t>(image.numChannels()); ++c) {
                // A byte b was widened to 257 b.
                const int byte = values[c] / 257;
                samples.push_back(deep ? static_cast<float>(values[c]) / 65535.0F
                                       : static_cast<float>(byte) / 255.0F);
            }
        }
    }
    return image;
}

// EXR.

/// Lets the EXR library write into a file that replaces the old one only when it is complete.
class SaveFileStream : public Imf::OStream
{
public:
    explicit SaveFileStream(QSaveFile& file)
        : OStream(QFile::encodeName(file.fileName()).constData())
        , m_file(file)
    {
    }

    void write(const char bytes[], int count) override
    {
        if (m_file.write(bytes, count) != count) {
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
    QSaveFile& m_file;
};

/// Adds a slice for every channel of an image whose samples are in place. The library asks for writable
/// memory in both directions.
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

bool writeExr(const Image& image, QSaveFile& file, QString* error)
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
        return fail(error, file.fileName(), cannotBeWritten(QString::fromUtf8(exception.what())), checkDisk);
    }
    return true;
}

/// R, G, B and A first, the others in the file's order.
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

std::optional<Image> readExr(const QString& path, QString* error)
{
    const auto damaged = [&](QString cause) {
        // The path is named already.
        static const QRegularExpression opening(u"^Cannot \\w+ image file \"[^\"]*\"\\.\\s*|\\.$"_s);
        cause.remove(opening);
        fail(error, path, u"cannot be read as an EXR picture: %1"_s.arg(cause),
             u"name a file that is whole"_s);
        return std::nullopt;
    };
    try {
        Imf::InputFile file(QFile::encodeName(path).constData());
        const Imf::ChannelList& list = file.header().channels();
        bool integer = true;
        for (auto channel = list.begin(); channel != list.end(); ++channel) {
            integer = integer && channel.channel().type == Imf::UINT;
            if (channel.channel().xSampling != 1 || channel.channel().ySampling != 1) {
                return damaged(
                    u"channel \"%1\" is not kept for every pixel"_s.arg(QString::fromUtf8(channel.name())));
            }
        }
        const Imath::Box2i window = file.header().dataWindow();
        const qint64 width = qint64{window.max.x} - window.min.x + 1;
        const qint64 height = qint64{window.max.y} - window.min.y + 1;
        if (list.begin() == list.end() || width > maxFileSide || height > maxFileSide || !file.isComplete()) {
            return damaged(u"it is incomplete"_s);
        }
        Image image{static_cast<int>(width), static_cast<int>(height), sortedChannels(list), {}};
        if (integer) {
            image.samples = std::vector<quint32>(sampleCount(image));
        } else {
            image.samples = std::vector<float>(sampleCount(image));
        }
        file.setFrameBuffer(frameBufferOf(image, window.min));
        file.readPixels(window.min.y, window.max.y);
        return image;
    } catch (const std::exception& exception) {
        return damaged(QString::fromUtf8(exception.what()));
    }
}

} // namespace

double Image::sample(int x, int y, int channel) const
{
    const size_t index = (static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) *
                             static_cast<size_t>(channels.size()) +
                         static_cast<size_t>(channel);
    return std::visit([index](const auto& values) { return static_cast<double>(values[index]); }, samples);
}

QString Image::summary() const
{
    return u"%1x%2 %3"_s.arg(width).arg(height).arg(channels.join(QString()));
}

std::vector<Image> readTexture(Texture* texture)
{
    std::vector<Image> images;
    const AutoBinder binder(texture);
    const bool cube = texture->target() == GL_TEXTURE_CUBE_MAP;
    for (unsigned int face = 0; face < (cube ? 6U : 1U); ++face) {
        const unsigned int levelTarget = cube ? GL_TEXTURE_CUBE_MAP_POSITIVE_X + face : texture->target();
        int width = 0;
        int height = 0;
        int layers = 0;
        glGetTexLevelParameteriv(levelTarget, 0, GL_TEXTURE_WIDTH, &width);
        glGetTexLevelParameteriv(levelTarget, 0, GL_TEXTURE_HEIGHT, &height);
        glGetTexLevelParameteriv(levelTarget, 0, GL_TEXTURE_DEPTH, &layers);
        if (width == 0 || height == 0 || layers == 0) {
            continue;
        }
        const PixelLayout layout = layoutOf(levelTarget);
        switch (layout.type) {
        case GL_UNSIGNED_BYTE:
            readLevel<float, quint8>(levelTarget, layout, width, height, layers, images);
            break;
        case GL_UNSIGNED_INT:
            readLevel<quint32, quint32>(levelTarget, layout, width, height, layers, images);
            break;
        case GL_INT:
            readLevel<float, qint32>(levelTarget, layout, width, height, layers, images);
            break;
        default:
            readLevel<float, float>(levelTarget, layout, width, height, layers, images);
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
    glBindFramebuffer(GL_READ_FRAMEBUFFER, 0);
    glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
    return {width, height, rgba, flippedLayer<float>(pixels, 0, rowLength, numRows)};
}

bool checkImagePath(const QString& path, QString* error)
{
    QSaveFile file(path);
    const bool usable = open(file, error);
    file.cancelWriting();
    return usable;
}

bool writeImage(const Image& image, const QString& path, QString* error)
{
    QSaveFile file(path);
    if (!open(file, error)) {
        return false;
    }
    const bool written =
        kindOf(path) == FileKind::Png ? writePng(image, file, error) : writeExr(image, file, error);
    return written && (file.commit() || fail(error, path, cannotBeWritten(file.errorString()), checkDisk));
}

std::optional<Image> readImage(const QString& path, QString* error)
{
    QFile file(path);
    if (QFileInfo(path).isDir() || !file.open(QIODevice::ReadOnly)) {
        fail(error, path,
             u"cannot be read: %1"_s.arg(QFileInfo(path).isDir() ? u"it is a folder"_s : file.errorString()),
             u"name an existing PNG or EXR file"_s);
        return std::nullopt;
    }
    return kindOf(path) == FileKind::Exr ? readExr(path, error) : readPlain(path, error);
}

} // namespace Morvane::Qel
