#include <Qel/graph/support/ExrFile.h>

#include <QFile>

#include <exception>

#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfIO.h>
#include <OpenEXR/ImfOutputFile.h>
#include <OpenEXR/ImfStringAttribute.h>

#include <Qel/gl/ExrFrameBuffer.h>
#include <Qel/gl/ImageFiles.h>
#include <Qel/graph/GraphReview.h>
#include <Qel/graph/support/ImageErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

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

} // namespace

bool writeExr(const Image& image, OutputFile& file, const ImageFileOptions& options, QString* error)
{
    try {
        Imf::Header header(image.width, image.height);
        for (const QString& channel : image.channels) {
            header.channels().insert(channel.toStdString(),
                                     Imf::Channel(image.isInteger() ? Imf::UINT : Imf::FLOAT));
        }
        const auto addAttribute = [&](const char* name, const QString& text) {
            if (!text.isEmpty()) {
                header.insert(name, Imf::StringAttribute(text.toStdString()));
            }
        };
        addAttribute("qelEncoding", nameOf(options.encoding));
        addAttribute("qelAlpha", nameOf(options.alpha));
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
    // Larger than the textures of any driver.
    constexpr int maxSide = 1 << 16;
    QString problem;
    std::optional<Image> image = readFloatImage(path, maxSide, &problem);
    if (!image) {
        imageError(error, path, problem, u"use an intact file of a usable size"_s);
    }
    return image;
}

} // namespace Morvane::Qel
