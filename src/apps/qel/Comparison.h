#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <limits>
#include <optional>
#include <vector>

#include <Qel/graph/ImageMetrics.h>

namespace Morvane::Qel::App {

/// What is compared, and how values are read.
struct ComparisonSettings
{
    bool withAlpha = false;
    ColorEncoding encoding = ColorEncoding::Srgb;
    double pixelsPerDegree = defaultPixelsPerDegree;
};

/// The scores of two images, or of many pairs. NaN is undefined.
struct Scores
{
    double largest = std::numeric_limits<double>::quiet_NaN();
    double mean = std::numeric_limits<double>::quiet_NaN();
    double psnr = std::numeric_limits<double>::quiet_NaN();
    double ssim = std::numeric_limits<double>::quiet_NaN();
    double flip = std::numeric_limits<double>::quiet_NaN();

    /// The worst of each score; undefined ones do not count.
    static Scores worstOf(const std::vector<Scores>& all);
    /// The mean of each score; undefined ones do not count. PSNR is that of the mean squared difference.
    static Scores meanOf(const std::vector<Scores>& all);

    /// Infinite and undefined scores become null.
    QJsonObject json() const;
};

/// Two images and the result of comparing them.
class Comparison
{
public:
    /// Throws Failure if the images cannot be compared pixel by pixel; `names` says which they are.
    Comparison(Image a, Image b, const ComparisonSettings& settings, const QString& names);
    Comparison(const Comparison&) = delete;
    Comparison& operator=(const Comparison&) = delete;

    const Scores& scores() const { return m_scores; }
    /// The names of the compared channels.
    const QStringList& channels() const { return m_pair.channels(); }
    /// Why scores are undefined, and whether alpha was left out although it differs.
    const QStringList& notes() const { return m_notes; }

    /// The differences of each channel, all scores with what they measure, the notes and the worst pixels.
    QString text(const ComparisonSettings& settings) const;
    QJsonObject json() const;

    /// Returns the absolute differences, multiplied by `gain`, as an image. With `foldAlpha`, a colour holds
    /// the difference of alpha if that is larger, and there is no alpha channel, which would make a PNG
    /// transparent where the images agree.
    Image differenceImage(bool foldAlpha, double gain) const;
    /// The map of FLIP; empty if it is undefined.
    const std::optional<Image>& flipMap() const { return m_flipMap; }

private:
    struct Channel
    {
        double largest = 0.0;
        double mean = 0.0;
    };
    struct Pixel
    {
        int x;
        int y;
        double difference;
    };
    void measureDifferences();
    void noteAlphaLeftOut();

    const Image m_a;
    const Image m_b;
    ImagePair m_pair;
    Scores m_scores;
    std::vector<Channel> m_channels;
    /// The pixels that differ most, the worst first.
    std::vector<Pixel> m_pixels;
    std::optional<Image> m_flipMap;
    QStringList m_notes;
};

/// What the scores measure, in words that follow their names.
struct Measures
{
    Measures(const QString& channels, const ComparisonSettings& settings);

    QString psnr;
    QString ssim;
    QString flip;
    /// A line about the values of the files.
    QString values;
};

/// Formats a score; "-" for NaN.
QString scoreText(double value);

} // namespace Morvane::Qel::App
