#include "Commands.h"

#include <QDir>
#include <QFileInfo>
#include <QImageReader>
#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <limits>

#include <Qel/graph/ImageIO.h>

#include "Arguments.h"
#include "Comparison.h"
#include "Console.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

Image load(const QString& path)
{
    QString error;
    std::optional<Image> image = [&] {
        const QuietErrors quiet;
        return readImage(path, &error);
    }();
    if (!image) {
        fail(error);
    }
    return std::move(*image);
}

/// Everything that the options set.
struct Settings
{
    ComparisonSettings comparison;
    double tolerance = 0.0;
    double gain = 1.0;
    /// Paths of images, or of folders if folders are compared; empty for none.
    QString difference;
    QString flipMap;
    bool json = false;
};

/// Reads the value of an option, from `low` to `high`, which `range` says in words.
double number(const Arguments& options, const QString& name, double initial, double low, double high,
              const QString& range)
{
    if (!options.isSet(name)) {
        return initial;
    }
    bool isNumber = false;
    const double value = options.value(name).toDouble(&isNumber);
    if (!isNumber || !(value >= low && value <= high)) {
        options.fail(u"--%1 %2 is not a number %3"_s.arg(name, options.value(name), range));
    }
    return value;
}

Settings settingsOf(const Arguments& options)
{
    constexpr double infinity = std::numeric_limits<double>::infinity();
    Settings settings;
    settings.comparison.withAlpha = options.isSet(u"alpha"_s);
    settings.comparison.encoding = options.isSet(u"linear"_s) ? ColorEncoding::Linear : ColorEncoding::Srgb;
    settings.comparison.pixelsPerDegree =
        number(options, u"pixels-per-degree"_s, defaultPixelsPerDegree, 1.0, 1000.0, u"from 1 to 1000"_s);
    settings.tolerance = number(options, u"tolerance"_s, 0.0, 0.0, infinity, u">= 0"_s);
    settings.gain = number(options, u"gain"_s, 1.0, 0.0, 1.0e6, u"from 0 to 1000000"_s);
    settings.difference = options.value(u"difference"_s);
    settings.flipMap = options.value(u"flip-map"_s);
    settings.json = options.isSet(u"json"_s);
    if (options.isSet(u"gain"_s) && settings.difference.isEmpty()) {
        options.fail(u"--gain needs --difference"_s);
    }
    return settings;
}

bool isPng(const QString& path)
{
    return path.endsWith(QLatin1StringView(".png"), Qt::CaseInsensitive);
}

void write(const Image& image, const QString& path)
{
    QString error;
    if (!writeImage(image, path, &error, {.pngAlpha = PngAlpha::Keep})) {
        fail(error);
    }
}

/// Writes the images that the options ask for; empty paths stand for none.
void writeImages(const Comparison& comparison, const QString& difference, double gain, const QString& flipMap)
{
    if (!difference.isEmpty()) {
        write(comparison.differenceImage(isPng(difference), gain), difference);
    }
    if (!flipMap.isEmpty()) {
        if (!comparison.flipMap()) {
            fail(u"%1: %2"_s.arg(flipMap, comparison.notes().filter(u"FLIP is undefined"_s).join(u"; "_s)));
        }
        write(isPng(flipMap) ? heatMap(*comparison.flipMap()) : *comparison.flipMap(), flipMap);
    }
}

void printJson(QJsonObject object, const Settings& settings, bool accepted)
{
    object[u"alpha"_s] = settings.comparison.withAlpha;
    object[u"encoding"_s] = settings.comparison.encoding == ColorEncoding::Linear ? u"linear"_s : u"srgb"_s;
    object[u"pixelsPerDegree"_s] = settings.comparison.pixelsPerDegree;
    object[u"tolerance"_s] = settings.tolerance;
    object[u"accepted"_s] = accepted;
    print(QString::fromUtf8(QJsonDocument(object).toJson()));
}

void printVerdict(double largest, double tolerance)
{
    print(largest == 0.0 ? u"the compared channels are equal\n"_s
                         : u"the largest difference, %1, is %2 the tolerance, %3\n"_s.arg(
                               scoreText(largest), largest <= tolerance ? u"within"_s : u"above"_s,
                               scoreText(tolerance)));
}

ExitCode compareFiles(const QString& pathA, const QString& pathB, const Settings& settings)
{
    const Comparison comparison(load(pathA), load(pathB), settings.comparison,
                                u"%1 and %2"_s.arg(pathA, pathB));
    writeImages(comparison, settings.difference, settings.gain, settings.flipMap);
    const double largest = comparison.scores().largest;
    const bool accepted = largest <= settings.tolerance;
    if (settings.json) {
        printJson(comparison.json(), settings, accepted);
    } else {
        print(comparison.text(settings.comparison));
        printVerdict(largest, settings.tolerance);
    }
    return accepted ? ExitCode::Done : ExitCode::CheckFailed;
}

/// Returns the names of the images in a folder, in alphabetical order.
QStringList imageNames(const QString& folder)
{
    QStringList wildcards = {u"*.exr"_s, u"*.hdr"_s};
    for (const QByteArray& format : QImageReader::supportedImageFormats()) {
        wildcards << u"*."_s + QString::fromLatin1(format);
    }
    return QDir(folder).entryList(wildcards, QDir::Files, QDir::Name);
}

/// Returns the names of the images that both folders have. Throws Failure if one of them lacks any.
QStringList pairedNames(const QString& folderA, const QString& folderB)
{
    QStringList namesA = imageNames(folderA);
    const QStringList namesB = imageNames(folderB);
    QStringList errors;
    const auto checkHasAll = [&](const QString& folder, const QStringList& names, QStringList wanted,
                                 const QString& other) {
        wanted.removeIf([&](const QString& name) { return names.contains(name); });
        if (!wanted.isEmpty()) {
            errors << u"%1: lacks %2 of %3"_s.arg(folder, wanted.join(u", "_s), other);
        }
    };
    checkHasAll(folderB, namesB, namesA, folderA);
    checkHasAll(folderA, namesA, namesB, folderB);
    if (namesA.isEmpty() && namesB.isEmpty()) {
        errors << u"%1 and %2: neither holds an image"_s.arg(folderA, folderB);
    }
    if (!errors.isEmpty()) {
        throw Failure{ExitCode::WrongUse, errors};
    }
    return namesA;
}

/// Returns the path of an image in an output folder, which it creates; empty if there is none.
QString pathIn(const QString& folder, const QString& name)
{
    if (!folder.isEmpty() && !QDir().mkpath(folder)) {
        fail(u"%1: the folder cannot be created; name another one"_s.arg(folder));
    }
    return folder.isEmpty() ? QString() : QDir(folder).filePath(name);
}

ExitCode compareFolders(const QString& folderA, const QString& folderB, const Settings& settings)
{
    const QStringList names = pairedNames(folderA, folderB);
    qsizetype width = 5;
    for (const QString& name : names) {
        width = std::max(width, name.size());
    }
    const auto printRow = [&](const QString& name, const QStringList& cells) {
        QString row = name.leftJustified(width);
        for (const QString& cell : cells) {
            row += cell.rightJustified(14);
        }
        print(row + u'\n');
    };
    const auto printScores = [&](const QString& name, const Scores& scores) {
        printRow(name, {scoreText(scores.largest), scoreText(scores.mean), scoreText(scores.psnr),
                        scoreText(scores.ssim), scoreText(scores.flip)});
    };
    if (!settings.json) {
        printRow(u"image"_s, {u"largest"_s, u"mean"_s, u"PSNR dB"_s, u"SSIM"_s, u"FLIP"_s});
    }
    std::vector<Scores> all;
    QStringList channels;
    QStringList notes;
    QJsonArray images;
    for (const QString& name : names) {
        const QString pathA = QDir(folderA).filePath(name);
        const QString pathB = QDir(folderB).filePath(name);
        const Comparison comparison(load(pathA), load(pathB), settings.comparison,
                                    u"%1 and %2"_s.arg(pathA, pathB));
        writeImages(comparison, pathIn(settings.difference, name), settings.gain,
                    pathIn(settings.flipMap, name));
        all.push_back(comparison.scores());
        channels << comparison.channels().join(u", "_s);
        for (const QString& note : comparison.notes()) {
            notes << u"%1: %2\n"_s.arg(name, note);
        }
        if (settings.json) {
            QJsonObject object = comparison.json();
            object[u"name"_s] = name;
            images.append(object);
        } else {
            printScores(name, comparison.scores());
        }
    }
    const Scores worst = Scores::worstOf(all);
    const bool accepted = worst.largest <= settings.tolerance;
    if (settings.json) {
        printJson(
            {{u"images"_s, images}, {u"worst"_s, worst.json()}, {u"mean"_s, Scores::meanOf(all).json()}},
            settings, accepted);
    } else {
        printScores(u"worst"_s, worst);
        printScores(u"mean"_s, Scores::meanOf(all));
        channels.removeDuplicates();
        const Measures measures(channels.join(u" or "_s), settings.comparison);
        print(u"PSNR %1\nSSIM %2\nFLIP %3\n%4\n%5"_s.arg(measures.psnr, measures.ssim, measures.flip,
                                                         measures.values, notes.join(QString())));
        printVerdict(worst.largest, settings.tolerance);
    }
    return accepted ? ExitCode::Done : ExitCode::CheckFailed;
}

} // namespace

void declareCompare(Arguments& options)
{
    options.describe(u"Compares two images, PNG (values from 0 to 1) or EXR. Prints the largest and the mean "
                     "difference of each channel, PSNR, SSIM, FLIP and the worst pixels. NaN and infinity "
                     "always differ."_s);
    options.describe(u"Folders are compared image by image, paired by file name."_s);
    options.describe(u"Exits with 1 if the largest difference exceeds the tolerance."_s);
    options.addPositional(u"A"_s, u"an image or a folder of images"_s, false, ValueKind::Image);
    options.addPositional(u"B"_s, u"what to compare it with"_s, false, ValueKind::Image);
    options.addOption(u"alpha"_s, {}, u"includes alpha, otherwise left out"_s);
    options.addOption(u"linear"_s, {},
                      u"SSIM and FLIP read values as linear light, otherwise as sRGB-encoded"_s);
    options.addOption(u"pixels-per-degree"_s, u"P"_s,
                      u"pixels in a degree of the field of view, for FLIP; default 67.0206"_s);
    options.addOption(u"tolerance"_s, u"X"_s, u"largest accepted difference; default 0"_s);
    options.addOption(u"difference"_s, u"PATH"_s, u"writes the absolute differences as an image"_s,
                      ValueKind::Image);
    options.addOption(u"gain"_s, u"G"_s, u"multiplies the image of the differences; default 1"_s);
    options.addOption(u"flip-map"_s, u"PATH"_s,
                      u"writes FLIP's value for each pixel, as a heat map (PNG) or as numbers (EXR)"_s,
                      ValueKind::Image);
    options.addOption(u"json"_s, {}, u"prints the results as JSON; null stands for infinite or undefined"_s);
    options.addExitCode(ExitCode::CheckFailed);
    options.addExample(u"qel compare --tolerance 0.004 --flip-map flip.png expected.png rendered.png"_s,
                       u"Accept differences of one step of 8 bits and show where they are visible"_s);
}

ExitCode compare(const Arguments& options)
{
    const Settings settings = settingsOf(options);
    const QString a = options.positional(0);
    const QString b = options.positional(1);
    if (QFileInfo(a).isDir() != QFileInfo(b).isDir()) {
        fail(u"%1 and %2: one is a folder; compare two images or two folders"_s.arg(a, b));
    }
    return QFileInfo(a).isDir() ? compareFolders(a, b, settings) : compareFiles(a, b, settings);
}

} // namespace Morvane::Qel::App
