#include <Qel/gl/HdrReader.h>

#include <QRegularExpression>

#include <algorithm>
#include <array>
#include <cmath>

#include <Qel/gl/ImageSize.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// A pixel: three mantissas and their common exponent (G. Ward: Real pixels, Graphics Gems II, 1991).
using Rgbe = std::array<quint8, 4>;

/// Hands out bytes from a buffer; zeros after its end.
class Bytes
{
public:
    explicit Bytes(QByteArrayView bytes)
        : m_bytes(bytes)
    {
    }

    bool isPastEnd() const { return m_at > m_bytes.size(); }
    /// The bytes that are left; none past the end.
    QByteArrayView rest() const { return m_bytes.sliced(std::min(m_at, m_bytes.size())); }
    quint8 next()
    {
        const qsizetype index = m_at++;
        return index < m_bytes.size() ? static_cast<quint8>(m_bytes[index]) : quint8{0};
    }
    Rgbe nextPixel()
    {
        Rgbe pixel{};
        std::generate(pixel.begin(), pixel.end(), [this] { return next(); });
        return pixel;
    }
    /// A line without its end.
    QString nextLine()
    {
        const QByteArrayView all = rest();
        const qsizetype end = all.indexOf('\n');
        m_at += end < 0 ? all.size() + 1 : end + 1;
        return QString::fromLatin1(end < 0 ? all : all.first(end)).trimmed();
    }

private:
    QByteArrayView m_bytes;
    qsizetype m_at = 0;
};

/// Whether a scanline stores its four components one after the other, each run-length encoded.
bool isPlanar(QByteArrayView bytes, size_t width)
{
    return width >= 8 && width < 0x8000 && bytes.size() >= 4 && bytes[0] == 2 && bytes[1] == 2 &&
           static_cast<quint8>(bytes[2]) < 0x80;
}

bool readPlanar(Bytes& bytes, std::vector<Rgbe>& pixels)
{
    const Rgbe start = bytes.nextPixel();
    if (static_cast<size_t>(start[2] << 8 | start[3]) != pixels.size()) {
        return false;
    }
    for (size_t component = 0; component < 4; ++component) {
        for (size_t x = 0; x < pixels.size();) {
            const quint8 code = bytes.next();
            const bool isRun = code > 128;
            const size_t count = isRun ? code - 128U : code;
            if (count == 0 || count > pixels.size() - x) {
                return false;
            }
            quint8 value = isRun ? bytes.next() : quint8{0};
            for (const size_t end = x + count; x < end; ++x) {
                value = isRun ? value : bytes.next();
                pixels[x][component] = value;
            }
        }
    }
    return true;
}

/// Reads a scanline of whole pixels. One with the mantissas 1, 1, 1 repeats the pixel before it; of several
/// in a row, each counts 256 times as much as the one before it.
bool readPixels(Bytes& bytes, std::vector<Rgbe>& pixels)
{
    unsigned int shift = 0;
    for (size_t x = 0; x < pixels.size();) {
        const Rgbe pixel = bytes.nextPixel();
        if (pixel[0] != 1 || pixel[1] != 1 || pixel[2] != 1) {
            pixels[x++] = pixel;
            shift = 0;
            continue;
        }
        const size_t count = shift < 24 ? size_t{pixel[3]} << shift : 0;
        if (x == 0 || count == 0 || count > pixels.size() - x) {
            return false;
        }
        std::fill_n(pixels.begin() + static_cast<qptrdiff>(x), count, pixels[x - 1]);
        x += count;
        shift += 8;
    }
    return true;
}

} // namespace

std::optional<Image> decodeHdr(QByteArrayView file, int maxSide, QString* problem)
{
    const auto fail = [&](const QString& cause) {
        *problem = cause;
        return std::nullopt;
    };
    Bytes bytes(file);
    float exposure = 1.0F;
    for (QString line = bytes.nextLine(); !line.isEmpty(); line = bytes.nextLine()) {
        const QString value = line.section(u'=', 1).trimmed();
        if (line.startsWith(u"FORMAT=") && value != u"32-bit_rle_rgbe") {
            return fail(u"its format is \"%1\", not \"32-bit_rle_rgbe\""_s.arg(value));
        }
        if (line.startsWith(u"EXPOSURE=")) {
            exposure *= value.toFloat();
        }
    }
    if (!(exposure > 0.0F) || !std::isfinite(exposure)) {
        return fail(u"its exposure is not a number above 0"_s);
    }
    const QString resolution = bytes.nextLine();
    static const QRegularExpression pattern(u"^-Y +(\\d+) +\\+X +(\\d+)$"_s);
    const QRegularExpressionMatch match = pattern.match(resolution);
    const qlonglong height = match.captured(1).toLongLong();
    const qlonglong width = match.captured(2).toLongLong();
    if (bytes.isPastEnd()) {
        return fail(u"its header is incomplete"_s);
    }
    if (width < 1 || height < 1) {
        return fail(u"its size is given as \"%1\", not as \"-Y HEIGHT +X WIDTH\""_s.arg(resolution));
    }
    if (const QString cause = sizeProblem(width, height, 3, maxSide); !cause.isEmpty()) {
        return fail(cause);
    }
    // The shortest scanline is one pixel and its repetitions.
    if (bytes.rest().size() < 4 * height) {
        return fail(u"it is incomplete"_s);
    }

    Image image{static_cast<int>(width), static_cast<int>(height), {u"R"_s, u"G"_s, u"B"_s}, {}};
    std::vector<float> samples;
    samples.reserve(image.numSamples());
    std::vector<Rgbe> scanline(static_cast<size_t>(width));
    for (int y = 0; y < image.height; ++y) {
        const bool isRead = isPlanar(bytes.rest(), scanline.size()) ? readPlanar(bytes, scanline)
                                                                    : readPixels(bytes, scanline);
        if (bytes.isPastEnd()) {
            return fail(u"it is incomplete"_s);
        }
        if (!isRead) {
            return fail(u"row %1 is damaged"_s.arg(y + 1));
        }
        for (const Rgbe& pixel : scanline) {
            // The mantissas are fractions of 256, the exponent is offset by 128; an exponent of 0 is black.
            const float scale = pixel[3] == 0 ? 0.0F : std::ldexp(1.0F, pixel[3] - 136) / exposure;
            for (size_t component = 0; component < 3; ++component) {
                samples.push_back(static_cast<float>(pixel[component]) * scale);
            }
        }
    }
    image.samples = std::move(samples);
    return image;
}

} // namespace Morvane::Qel
