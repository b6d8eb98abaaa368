#include "Commands.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include <Qel/core/Text.h>
#include <Qel/graph/ImageIO.h>

#include "Arguments.h"
#include "Console.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

constexpr size_t numWorstPixels = 5;

struct ChannelDifference
{
    QString channel;
    double largest = 0.0;
    double sum = 0.0;
};

struct PixelDifference
{
    int x;
    int y;
    double difference;
};

Image load(const QString& path)
{
    QString error;
    std::optional<Image> image = [&] {
        const QuietErrors quiet;
        return readImage(path, &error);
    }();
    if (!image) {
        throw Failure{ExitCode::WrongUse, {error}};
    }
    return std::move(*image);
}

/// Two images of equal size with matched channels, read as doubles.
class Pair
{
public:
    /// Throws Failure if the images cannot be compared pixel by pixel.
    Pair(const QString& pathA, const QString& pathB)
        : a(load(pathA))
        , b(load(pathB))
    {
        const auto cannot = [&](const QString& cause) {
            return Failure{
                ExitCode::ComparisonFailed,
                {u"%1 (%2) and %3 (%4) differ in %5"_s.arg(pathA, a.summary(), pathB, b.summary(), cause)}};
        };
        if (a.width != b.width || a.height != b.height) {
            throw cannot(u"size"_s);
        }
        if (a.numChannels() == 1 && b.numChannels() == 1) {
            // Single channels match whatever their names: "Z" of depth, "R" of a grey PNG.
            channels = a.channels;
            m_indicesA = m_indicesB = {0};
            return;
        }
        channels = a.numChannels() > b.numChannels() ? a.channels : b.channels;
        for (const QString& channel : channels) {
            m_indicesA.push_back(static_cast<int>(a.channels.indexOf(channel)));
            m_indicesB.push_back(static_cast<int>(b.channels.indexOf(channel)));
            if (channel != QLatin1StringView("A") && (m_indicesA.back() < 0 || m_indicesB.back() < 0)) {
                throw cannot(u"channels"_s);
            }
        }
    }

    double sampleA(int x, int y, int channel) const { return sample(a, m_indicesA, x, y, channel); }
    double sampleB(int x, int y, int channel) const { return sample(b, m_indicesB, x, y, channel); }

    /// Returns the absolute difference; infinite if either sample is NaN or infinite, even if both are equal.
    double difference(int x, int y, int channel) const
    {
        const double d = std::abs(sampleA(x, y, channel) - sampleB(x, y, channel));
        return std::isfinite(d) ? d : std::numeric_limits<double>::infinity();
    }

    const Image a;
    const Image b;
    QStringList channels;

private:
    /// Returns a sample; 1 for a missing channel, which only alpha can be.
    static double sample(const Image& image, const std::vector<int>& indices, int x, int y, int channel)
    {
        const int index = indices[static_cast<size_t>(channel)];
        return index < 0 ? 1.0 : image.sample(x, y, index);
    }

    /// The index of each channel in the images, -1 if it is missing.
    std::vector<int> m_indicesA;
    std::vector<int> m_indicesB;
};

/// Returns the absolute differences as an image. With foldAlpha, a colour holds the difference of alpha if
/// that is larger, and there is no alpha channel, which would make a PNG transparent where the images agree.
Image differenceImage(const Pair& pair, bool foldAlpha)
{
    QStringList channels = pair.channels;
    const auto alpha = static_cast<int>(channels.indexOf(u"A"_s));
    foldAlpha = foldAlpha && alpha >= 0 && channels.size() > 1;
    if (foldAlpha) {
        channels.removeAt(alpha);
    }
    Image image{pair.a.width, pair.a.height, channels, {}};
    auto& samples = std::get<std::vector<float>>(image.samples);
    samples.reserve(image.numSamples());
    for (int y = 0; y < pair.a.height; ++y) {
        for (int x = 0; x < pair.a.width; ++x) {
            for (int c = 0; c < pair.channels.size(); ++c) {
                if (foldAlpha && c == alpha) {
                    continue;
                }
                const double own = pair.difference(x, y, c);
                samples.push_back(
                    static_cast<float>(foldAlpha ? std::max(own, pair.difference(x, y, alpha)) : own));
            }
        }
    }
    return image;
}

QString number(double value)
{
    return QString::number(value, 'g', 9);
}

} // namespace

ExitCode compare(const QStringList& arguments)
{
    Arguments options(
        u"compare"_s,
        u"Compares two images, PNG (values from 0 to 1) or EXR. Prints the largest and the mean difference\n"
        "of each channel, including alpha, and the worst pixels. NaN and infinity always differ.\n"
        "Exits with 1 if the largest difference exceeds the tolerance."_s);
    options.addPositional(u"A"_s, u"an image"_s);
    options.addPositional(u"B"_s, u"the image to compare it with"_s);
    options.addOption(u"tolerance"_s, u"X"_s, u"largest accepted difference; default 0"_s);
    options.addOption(u"difference"_s, u"FILE"_s, u"writes the absolute differences as an image"_s);
    if (!options.parse(arguments)) {
        return ExitCode::Done;
    }
    double tolerance = 0.0;
    if (options.isSet(u"tolerance"_s)) {
        bool isNumber = false;
        tolerance = options.value(u"tolerance"_s).toDouble(&isNumber);
        if (!isNumber || !(tolerance >= 0.0)) {
            options.fail(u"--tolerance %1 is not a number >= 0"_s.arg(options.value(u"tolerance"_s)));
        }
    }

    const Pair pair(options.positional(0), options.positional(1));
    std::vector<ChannelDifference> differences;
    for (const QString& channel : pair.channels) {
        differences.push_back({channel});
    }
    std::vector<PixelDifference> worst;
    double sumOfSquares = 0.0;
    double largest = 0.0;
    for (int y = 0; y < pair.a.height; ++y) {
        for (int x = 0; x < pair.a.width; ++x) {
            double ofPixel = 0.0;
            for (int c = 0; c < pair.channels.size(); ++c) {
                const double d = pair.difference(x, y, c);
                ChannelDifference& channel = differences[static_cast<size_t>(c)];
                channel.largest = std::max(channel.largest, d);
                channel.sum += d;
                sumOfSquares += d * d;
                ofPixel = std::max(ofPixel, d);
            }
            largest = std::max(largest, ofPixel);
            if (ofPixel > 0.0 && (worst.size() < numWorstPixels || ofPixel > worst.back().difference)) {
                const auto position = std::upper_bound(
                    worst.begin(), worst.end(), ofPixel,
                    [](double value, const PixelDifference& other) { return value > other.difference; });
                worst.insert(position, {x, y, ofPixel});
                worst.resize(std::min(worst.size(), numWorstPixels));
            }
        }
    }

    const double numPixels = static_cast<double>(pair.a.width) * static_cast<double>(pair.a.height);
    print(u"%1  %2  %3\n"_s.arg(u"channel"_s, -8).arg(u"largest"_s, 14).arg(u"mean"_s, 14));
    for (const ChannelDifference& channel : differences) {
        print(u"%1  %2  %3\n"_s.arg(printable(channel.channel), -8)
                  .arg(number(channel.largest), 14)
                  .arg(number(channel.sum / numPixels), 14));
    }
    if (!pair.a.isInteger() && !pair.b.isInteger()) {
        const double meanSquare = sumOfSquares / (numPixels * static_cast<double>(pair.channels.size()));
        print(u"PSNR %1 dB for a peak value of 1\n"_s.arg(number(-10.0 * std::log10(meanSquare))));
    }
    for (const PixelDifference& entry : worst) {
        QStringList valuesA;
        QStringList valuesB;
        for (int c = 0; c < pair.channels.size(); ++c) {
            valuesA << number(pair.sampleA(entry.x, entry.y, c));
            valuesB << number(pair.sampleB(entry.x, entry.y, c));
        }
        print(u"pixel (%1, %2) from the top left: %3 | %4, difference %5\n"_s.arg(entry.x).arg(entry.y).arg(
            valuesA.join(u' '), valuesB.join(u' '), number(entry.difference)));
    }
    const bool accepted = largest <= tolerance;
    print(largest == 0.0 ? u"the images are equal\n"_s
                         : u"the largest difference, %1, is %2 the tolerance, %3\n"_s.arg(
                               number(largest), accepted ? u"within"_s : u"above"_s, number(tolerance)));

    if (options.isSet(u"difference"_s)) {
        const QString path = options.value(u"difference"_s);
        QString error;
        const bool png = path.endsWith(QLatin1StringView(".png"), Qt::CaseInsensitive);
        if (!writeImage(differenceImage(pair, png), path, &error)) {
            throw Failure{ExitCode::WrongUse, {error}};
        }
    }
    return accepted ? ExitCode::Done : ExitCode::ComparisonFailed;
}

} // namespace Morvane::Qel::App
