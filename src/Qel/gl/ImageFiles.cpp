#include <Qel/gl/ImageFiles.h>

#include <QFile>
#include <QRegularExpression>

#include <exception>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfInputFile.h>

#include <Qel/gl/ExrFrameBuffer.h>
#include <Qel/gl/ExrHeader.h>
#include <Qel/gl/HdrReader.h>
#include <Qel/gl/ImageSize.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr QByteArrayView hdrMagic = "#?";
constexpr QByteArrayView exrMagic = "\x76\x2f\x31\x01";

bool beginsWith(const QString& path, QByteArrayView magic)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) && file.read(magic.size()) == magic;
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

/// May throw what the EXR library throws.
std::optional<Image> decodeExr(const QString& path, int maxSide, QString* problem)
{
    const auto fail = [&](const QString& cause) {
        *problem = cause;
        return std::nullopt;
    };
    if (const QString cause = exrHeaderProblem(path, maxSide); !cause.isEmpty()) {
        return fail(cause);
    }
    Imf::InputFile file(QFile::encodeName(path).constData());
    const Imf::ChannelList& list = file.header().channels();
    bool integer = true;
    for (auto channel = list.begin(); channel != list.end(); ++channel) {
        integer = integer && channel.channel().type == Imf::UINT;
        if (channel.channel().xSampling != 1 || channel.channel().ySampling != 1) {
            return fail(u"channel \"%1\" is subsampled"_s.arg(QString::fromUtf8(channel.name())));
        }
    }
    const Imath::Box2i window = file.header().dataWindow();
    const qint64 width = qint64{window.max.x} - window.min.x + 1;
    const qint64 height = qint64{window.max.y} - window.min.y + 1;
    if (list.begin() == list.end() || !file.isComplete()) {
        return fail(u"it is incomplete"_s);
    }
    const QStringList channels = sortedChannels(list);
    if (const QString cause = sizeProblem(width, height, channels.size(), maxSide); !cause.isEmpty()) {
        return fail(cause);
    }
    Image image{static_cast<int>(width), static_cast<int>(height), channels, {}};
    if (integer) {
        image.samples = std::vector<quint32>(image.numSamples());
    } else {
        image.samples = std::vector<float>(image.numSamples());
    }
    file.setFrameBuffer(frameBufferOf(image, window.min));
    file.readPixels(window.min.y, window.max.y);
    return image;
}

} // namespace

bool isFloatImageFile(const QString& path)
{
    return beginsWith(path, exrMagic) || beginsWith(path, hdrMagic);
}

std::optional<Image> readFloatImage(const QString& path, int maxSide, QString* problem)
{
    const bool isHdr = beginsWith(path, hdrMagic);
    QString cause;
    std::optional<Image> image;
    try {
        if (isHdr) {
            QFile file(path);
            if (file.open(QIODevice::ReadOnly)) {
                image = decodeHdr(file.readAll(), maxSide, &cause);
            } else {
                cause = file.errorString();
            }
        } else {
            image = decodeExr(path, maxSide, &cause);
        }
    } catch (const std::bad_alloc&) {
        cause = u"it needs more memory than this machine has"_s;
    } catch (const std::exception& exception) {
        cause = QString::fromUtf8(exception.what());
        // The library's messages begin with the path.
        static const QRegularExpression opening(u"^Cannot \\w+ image file \"[^\"]*\"\\.\\s*|\\.$"_s);
        cause.remove(opening);
    }
    if (!image) {
        *problem =
            u"cannot be read as an %1 image: %2"_s.arg(isHdr ? u"HDR"_s : u"EXR"_s, cause.simplified());
    }
    return image;
}

} // namespace Morvane::Qel
