#include "Commands.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSaveFile>

#include <Qel/core/MetaTypes.h>
#include <Qel/core/PassDescription.h>
#include <Qel/gl/Texture.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/RenderGraph.h>

#include "Arguments.h"
#include "Console.h"
#include "Setup.h"
#include "Values.h"

namespace Morvane::Qel::App {

namespace {

[[noreturn]] void fail(const QString& line)
{
    throw Failure{ExitCode::WrongUse, {line}};
}

int wholeNumber(const Arguments& options, const QString& text, const QString& meaning)
{
    bool isNumber = false;
    const int number = text.toInt(&isNumber);
    if (!isNumber || number < 1) {
        options.fail(QStringLiteral("%1 is not a whole number of 1 or more").arg(meaning));
    }
    return number;
}

QSize parseSize(const Arguments& options, const QString& text)
{
    const QStringList sides = text.split(u'x');
    if (sides.size() != 2) {
        options.fail(QStringLiteral("--size %1 is no size; write WIDTHxHEIGHT, such as 1280x720").arg(text));
    }
    return {wholeNumber(options, sides[0], QStringLiteral("the width of --size %1").arg(text)),
            wholeNumber(options, sides[1], QStringLiteral("the height of --size %1").arg(text))};
}

/// What --output asks for: one file, or one for each frame where its name holds a conversion such as %04d.
class OutputFiles
{
public:
    OutputFiles(const Arguments& options, const QString& pattern)
    {
        static const QRegularExpression conversion(QStringLiteral("%(?:(%)|(0?)([1-9][0-9]?)?d|)"));
        qsizetype end = 0;
        for (auto matches = conversion.globalMatch(pattern); matches.hasNext();) {
            const QRegularExpressionMatch match = matches.next();
            m_parts.back() += pattern.sliced(end, match.capturedStart() - end);
            end = match.capturedEnd();
            if (match.hasCaptured(1)) {
                m_parts.back() += u'%';
            } else if (match.capturedLength() > 1 && m_parts.size() == 1) {
                m_fill = match.captured(2).isEmpty() ? u' ' : u'0';
                m_width = match.captured(3).toInt();
                m_parts.append(QString());
            } else {
                options.fail(
                    QStringLiteral("--output %1: only one number such as %04d may stand in the name; "
                                   "write %% for a percent sign")
                        .arg(pattern));
            }
        }
        m_parts.back() += pattern.sliced(end);
    }

    bool isNumbered() const { return m_parts.size() == 2; }

    QString name(int frame) const
    {
        return isNumbered() ? m_parts[0] + QStringLiteral("%1").arg(frame, m_width, 10, m_fill) + m_parts[1]
                            : m_parts[0];
    }

private:
    /// What stands before and after the number.
    QStringList m_parts = {QString()};
    QChar m_fill;
    int m_width = 0;
};

void write(const Image& image, const QString& path)
{
    checkReports();
    QString error;
    if (!writeImage(image, path, &error)) {
        fail(error);
    }
}

/// The graph's picture, or the screen for a graph that only draws there.
Image pictureOf(const RenderGraph& graph, const GraphDescription& description)
{
    if (description.output.isEmpty()) {
        return readDefaultFramebuffer(graph.viewport().width(), graph.viewport().height());
    }
    std::vector<Image> images = readTexture(graph.picture());
    if (images.size() != 1) {
        fail(QStringLiteral("%1: %2 is not one picture but %3; write all of them with --dump")
                 .arg(description.displayName(), description.output)
                 .arg(images.size()));
    }
    return std::move(images.front());
}

void dump(const RenderGraph& graph, const QString& folderPath)
{
    const QDir folder(folderPath);
    if (!folder.mkpath(QStringLiteral("."))) {
        fail(QStringLiteral("%1: the folder cannot be made; name another one").arg(folderPath));
    }
    QJsonObject otherValues;
    for (const RenderGraph::Output& output : graph.outputs()) {
        const QString name = QStringLiteral("%1.%2").arg(output.pass, PortName::parse(output.port).name);
        Texture* texture = pointerFromVariant<Texture>(output.value);
        if (!texture) {
            otherValues[name] = jsonFromValue(output.value);
            continue;
        }
        const std::vector<Image> images = readTexture(texture);
        for (size_t layer = 0; layer < images.size(); ++layer) {
            const QString number = images.size() > 1 ? QStringLiteral(".%1").arg(layer) : QString();
            write(images[layer], folder.filePath(name + number + QStringLiteral(".exr")));
        }
    }
    QSaveFile file(folder.filePath(QStringLiteral("outputs.json")));
    if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(otherValues).toJson()) < 0 ||
        !file.commit()) {
        fail(QStringLiteral("%1: cannot be written: %2; see that the folder is yours and the disk has room")
                 .arg(file.fileName(), file.errorString()));
    }
    for (const PlannedPass& pass : graph.plan().passes) {
        if (!pass.leftOut.isEmpty()) {
            printNote(QStringLiteral("%1 is left out and has no outputs: %2").arg(pass.name, pass.leftOut));
        }
    }
}

} // namespace

ExitCode render(const QStringList& arguments)
{
    Arguments options(QStringLiteral("render"), QStringLiteral("Renders a graph and writes its picture."));
    options.addPositional(QStringLiteral("GRAPH"), QStringLiteral("a graph file"));
    options.addOption(QStringLiteral("model"), QStringLiteral("FILE"),
                      QStringLiteral("takes this model instead of the graph's first one"));
    options.addOption(QStringLiteral("size"), QStringLiteral("WxH"),
                      QStringLiteral("size of the picture in pixels instead of the graph's"));
    options.addOption(QStringLiteral("frames"), QStringLiteral("N"),
                      QStringLiteral("number of frames; 1 if not given"));
    options.addOption(QStringLiteral("set"), QStringLiteral("PASS.PORT=VALUE"),
                      QStringLiteral("sets an input; may be given several times"));
    options.addOption(
        QStringLiteral("output"), QStringLiteral("FILE"),
        QStringLiteral(
            "writes the last frame as PNG or EXR, or with a name such as frame%04d.png every frame, from 0"));
    options.addOption(QStringLiteral("dump"), QStringLiteral("DIR"),
                      QStringLiteral("writes every output of every pass of the last frame"));
    options.addOption(QStringLiteral("profile"), {},
                      QStringLiteral("prints the GPU and CPU time of each pass"));
    addDeviceOption(options);
    if (!options.parse(arguments)) {
        return ExitCode::Done;
    }
    const bool hasOutput = options.isSet(QStringLiteral("output"));
    const bool hasDump = options.isSet(QStringLiteral("dump"));
    const bool hasFrames = options.isSet(QStringLiteral("frames"));
    const QString frames = options.value(QStringLiteral("frames"));
    const int numFrames =
        hasFrames ? wholeNumber(options, frames, QStringLiteral("--frames %1").arg(frames)) : 1;
    const OutputFiles files(options, options.value(QStringLiteral("output")));
    const HeadlessContext::Device wanted = device(options);

    QString error;
    GraphDescription description = loadGraphFile(options.positional(0));
    if (options.isSet(QStringLiteral("model"))) {
        description.replaceModel(options.value(QStringLiteral("model")));
    }
    if (options.isSet(QStringLiteral("size"))) {
        description.viewport = parseSize(options, options.value(QStringLiteral("size")));
    }
    for (const QString& assignment : options.values(QStringLiteral("set"))) {
        if (!description.set(assignment, &error)) {
            fail(error);
        }
    }
    checkGraph(description);
    if (hasOutput && !checkImagePath(files.name(0), &error)) {
        fail(error);
    }

    const std::unique_ptr<HeadlessContext> context = makeContext(wanted);
    RenderGraph::Options graphOptions;
    graphOptions.profile = options.isSet(QStringLiteral("profile"));
    graphOptions.keepOutputs = hasDump;
    const std::unique_ptr<RenderGraph> graph = makeGraph(description, graphOptions);
    resizeScreen(*context, graph->viewport());

    {
        Progress progress(QStringLiteral("frame"), numFrames);
        for (int frame = 0; frame < numFrames; ++frame) {
            renderFrame(*graph);
            if (hasOutput && (files.isNumbered() || frame == numFrames - 1)) {
                write(pictureOf(*graph, description), files.name(frame));
            }
            progress.update(frame + 1);
        }
    }
    if (hasDump) {
        dump(*graph, options.value(QStringLiteral("dump")));
    }
    if (graphOptions.profile) {
        print(Profiler::table(graph->profile()));
    }
    if (!hasOutput && !hasDump && !hasFrames && !graphOptions.profile) {
        printNote(QStringLiteral("nothing is written; name a file with --output"));
    }
    return ExitCode::Done;
}

} // namespace Morvane::Qel::App
