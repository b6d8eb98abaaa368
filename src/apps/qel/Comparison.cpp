#include "Comparison.h"

#include <QJsonArray>

#include <algorithm>
#include <cmath>

#include <Qel/core/Text.h>

#include "Failure.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

constexpr size_t numWorstPixels = 5;

/// The mean of numbers that are not NaN; NaN without any.
double meanOfDefined(const std::vector<Scores>& all, double (*number)(const Scores&))
{
    double sum = 0.0;
    int count = 0;
    for (const Scores& scores : all) {
        if (!std::isnan(number(scores))) {
            sum += number(scores);
            ++count;
        }
    }
    return sum / count;
}

} // namespace

Scores Scores::worstOf(const std::vector<Scores>& all)
{
    Scores worst;
    for (const Scores& scores : all) {
        // fmax and fmin return the other number if one is NaN.
        worst.largest = std::fmax(worst.largest, scores.largest);
        worst.mean = std::fmax(worst.mean, scores.mean);
        worst.psnr = std::fmin(worst.psnr, scores.psnr);
        worst.ssim = std::fmin(worst.ssim, scores.ssim);
        worst.flip = std::fmax(worst.flip, scores.flip);
    }
    return worst;
}

Scores Scores::meanOf(const std::vector<Scores>& all)
{
    const double meanSquare =
        meanOfDefined(all, [](const Scores& scores) { return std::pow(10.0, -0.1 * scores.psnr); });
    return {meanOfDefined(all, [](const Scores& scores) { return scores.largest; }),
            meanOfDefined(all, [](const Scores& scores) { return scores.mean; }),
            10.0 * std::log10(1.0 / meanSquare),
            meanOfDefined(all, [](const Scores& scores) { return scores.ssim; }),
            meanOfDefined(all, [](const Scores& scores) { return scores.flip; })};
}

QJsonObject Scores::json() const
{
    return {
        {u"largest"_s, largest}, {u"mean"_s, mean}, {u"psnr"_s, psnr}, {u"ssim"_s, ssim}, {u"flip"_s, flip}};
}

Comparison::Comparison(Image a, Image b, const ComparisonSettings& settings, const QString& names)
    : m_a(std::move(a))
    , m_b(std::move(b))
    , m_pair([&] {
        QString error;
        std::optional<ImagePair> pair = ImagePair::match(m_a, m_b, settings.withAlpha, &error);
        if (!pair) {
            throw Failure{ExitCode::CheckFailed, {u"%1: %2"_s.arg(names, error)}};
        }
        return std::move(*pair);
    }())
    , m_channels(static_cast<size_t>(m_pair.channels().size()))
{
    measureDifferences();
    m_scores.psnr = psnr(m_pair);
    if (std::isnan(m_scores.psnr)) {
        m_notes << (m_pair.hasIntegers() ? u"PSNR is undefined: the values are integers"_s
                                         : u"PSNR is undefined: some values are NaN or infinite"_s);
    }
    QString error;
    if (const std::optional<ImageMetric> metric = ssim(m_pair, settings.encoding, &error)) {
        m_scores.ssim = metric->mean;
    } else {
        m_notes << u"SSIM is undefined: %1"_s.arg(error);
    }
    if (std::optional<ImageMetric> metric =
            flip(m_pair, settings.encoding, settings.pixelsPerDegree, &error)) {
        m_scores.flip = metric->mean;
        m_flipMap = std::move(metric->map);
    } else {
        m_notes << u"FLIP is undefined: %1"_s.arg(error);
    }
    if (!settings.withAlpha) {
        noteAlphaLeftOut();
    }
}

void Comparison::measureDifferences()
{
    m_scores.largest = 0.0;
    for (int y = 0; y < m_pair.height(); ++y) {
        for (int x = 0; x < m_pair.width(); ++x) {
            double ofPixel = 0.0;
            for (int c = 0; c < m_pair.channels().size(); ++c) {
                const double d = m_pair.difference(x, y, c);
                Channel& channel = m_channels[static_cast<size_t>(c)];
                channel.largest = std::max(channel.largest, d);
                channel.mean += d;
                ofPixel = std::max(ofPixel, d);
            }
            m_scores.largest = std::max(m_scores.largest, ofPixel);
            if (ofPixel > 0.0 && (m_pixels.size() < numWorstPixels || ofPixel > m_pixels.back().difference)) {
                const auto position = std::upper_bound(
                    m_pixels.begin(), m_pixels.end(), ofPixel,
                    [](double value, const Pixel& other) { return value > other.difference; });
                m_pixels.insert(position, {x, y, ofPixel});
                m_pixels.resize(std::min(m_pixels.size(), numWorstPixels));
            }
        }
    }
    m_scores.mean = 0.0;
    for (Channel& channel : m_channels) {
        channel.mean /= static_cast<double>(m_pair.width()) * static_cast<double>(m_pair.height());
        m_scores.mean += channel.mean / static_cast<double>(m_channels.size());
    }
}

void Comparison::noteAlphaLeftOut()
{
    QString error;
    const std::optional<ImagePair> pair = ImagePair::match(m_a, m_b, true, &error);
    const auto alpha = static_cast<int>(pair->channels().indexOf(u"A"_s));
    if (alpha < 0 || pair->channels() == channels()) {
        return;
    }
    double largest = 0.0;
    for (int y = 0; y < pair->height(); ++y) {
        for (int x = 0; x < pair->width(); ++x) {
            largest = std::max(largest, pair->difference(x, y, alpha));
        }
    }
    if (largest > 0.0) {
        m_notes << u"alpha is left out and differs by up to %1; --alpha includes it"_s.arg(
            scoreText(largest));
    }
}

QString Comparison::text(const ComparisonSettings& settings) const
{
    QString text = u"%1  %2  %3\n"_s.arg(u"channel"_s, -8).arg(u"largest"_s, 14).arg(u"mean"_s, 14);
    for (size_t c = 0; c < m_channels.size(); ++c) {
        text += u"%1  %2  %3\n"_s.arg(printable(channels()[static_cast<qsizetype>(c)]), -8)
                    .arg(scoreText(m_channels[c].largest), 14)
                    .arg(scoreText(m_channels[c].mean), 14);
    }
    const Measures measures(printable(channels().join(u", "_s)), settings);
    text += u"PSNR %1 dB %2\nSSIM %3 %4\nFLIP %5 %6\n%7\n"_s.arg(
        scoreText(m_scores.psnr), measures.psnr, scoreText(m_scores.ssim), measures.ssim,
        scoreText(m_scores.flip), measures.flip, measures.values);
    for (const QString& note : m_notes) {
        text += note + u'\n';
    }
    for (const Pixel& pixel : m_pixels) {
        std::array<QStringList, 2> values;
        for (size_t image = 0; image < 2; ++image) {
            for (int c = 0; c < channels().size(); ++c) {
                values[image] << scoreText(m_pair.sample(image, pixel.x, pixel.y, c));
            }
        }
        text += u"pixel (%1, %2) from the top left: %3 | %4, difference %5\n"_s.arg(pixel.x).arg(pixel.y).arg(
            values[0].join(u' '), values[1].join(u' '), scoreText(pixel.difference));
    }
    return text;
}

QJsonObject Comparison::json() const
{
    QJsonObject channelObject;
    for (size_t c = 0; c < m_channels.size(); ++c) {
        channelObject[channels()[static_cast<qsizetype>(c)]] =
            QJsonObject{{u"largest"_s, m_channels[c].largest}, {u"mean"_s, m_channels[c].mean}};
    }
    QJsonArray pixels;
    for (const Pixel& pixel : m_pixels) {
        pixels.append(QJsonObject{{u"x"_s, pixel.x}, {u"y"_s, pixel.y}, {u"difference"_s, pixel.difference}});
    }
    QJsonObject object = m_scores.json();
    object[u"channels"_s] = channelObject;
    object[u"worstPixels"_s] = pixels;
    object[u"notes"_s] = QJsonArray::fromStringList(m_notes);
    return object;
}

Image Comparison::differenceImage(bool foldAlpha, double gain) const
{
    QStringList imageChannels = channels();
    const auto alpha = static_cast<int>(imageChannels.indexOf(u"A"_s));
    foldAlpha = foldAlpha && alpha >= 0 && imageChannels.size() > 1;
    if (foldAlpha) {
        imageChannels.removeAt(alpha);
    }
    Image image{m_pair.width(), m_pair.height(), imageChannels, {}};
    auto& samples = std::get<std::vector<float>>(image.samples);
    samples.reserve(image.numSamples());
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x) {
            for (int c = 0; c < channels().size(); ++c) {
                if (foldAlpha && c == alpha) {
                    continue;
                }
                const double own = m_pair.difference(x, y, c);
                samples.push_back(static_cast<float>(
                    gain * (foldAlpha ? std::max(own, m_pair.difference(x, y, alpha)) : own)));
            }
        }
    }
    return image;
}

Measures::Measures(const QString& channels, const ComparisonSettings& settings)
    : psnr(u"over %1 as stored, for a peak value of 1"_s.arg(channels))
    , ssim(u"over the luma 0.2126 R + 0.7152 G + 0.0722 B of sRGB-encoded values"_s)
    , flip(u"over linear light, at %1 pixels per degree"_s.arg(scoreText(settings.pixelsPerDegree)))
    , values(
          settings.encoding == ColorEncoding::Linear
              ? u"values of PNG and EXR files alike are read as linear light"_s
              : u"values of PNG and EXR files alike are read as sRGB-encoded; --linear reads linear light"_s)
{
}

QString scoreText(double value)
{
    return std::isnan(value) ? u"-"_s : QString::number(value, 'g', 9);
}

} // namespace Morvane::Qel::App
