#include "Commands.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <iterator>

#include <Qel/gl/ShaderProgram.h>
#include <Qel/graph/GraphReview.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/RenderGraph.h>
#include <Qel/graph/Sequence.h>

#include "Arguments.h"
#include "Console.h"
#include "Dump.h"
#include "OutputFiles.h"
#include "Sequence.h"
#include "Setup.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

constexpr int numProfiledFrames = 32;

int wholeNumber(const Arguments& options, const QString& text, const QString& meaning)
{
    bool isNumber = false;
    const int number = text.toInt(&isNumber);
    if (!isNumber || number < 1) {
        options.fail(u"%1 is not an integer >= 1"_s.arg(meaning));
    }
    return number;
}

QSize parseSize(const Arguments& options, const QString& text)
{
    const QStringList sides = text.split(u'x');
    if (sides.size() != 2) {
        options.fail(u"--size %1 is not a size; write WIDTHxHEIGHT, such as 1280x720"_s.arg(text));
    }
    return {wholeNumber(options, sides[0], u"the width of --size %1"_s.arg(text)),
            wholeNumber(options, sides[1], u"the height of --size %1"_s.arg(text))};
}

/// Applies --camera: fits the view to the models, or restores the camera of the graph's file.
void chooseCamera(const Arguments& options, const GraphDescription& ofFile, GraphDescription* graph)
{
    graph->removeCamera();
    if (options.value(u"camera"_s) == QLatin1StringView("graph")) {
        if (!ofFile.camera) {
            options.fail(u"--camera graph: the graph has no camera"_s);
        }
        graph->camera = ofFile.camera;
        std::copy_if(ofFile.boundValues.begin(), ofFile.boundValues.end(),
                     std::back_inserter(graph->boundValues),
                     [](const BoundValue& bound) { return bound.isOf(u"camera"_s); });
    }
}

PngAlpha alphaChoice(const Arguments& options)
{
    const QString name = options.value(u"alpha"_s);
    if (!options.isSet(u"alpha"_s) || name == QLatin1StringView("opaque")) {
        return PngAlpha::Opaque;
    }
    if (name == QLatin1StringView("keep")) {
        return PngAlpha::Keep;
    }
    return PngAlpha::Straight;
}

/// How the graph's image is written.
ImageFileOptions fileOptionsFor(const GraphPlan& plan, PngAlpha alpha)
{
    const TextureMeaning meaning =
        plan.outputPass < 0 ? TextureMeaning() : meaningOf(plan, plan.outputPass, plan.outputPort);
    return {.pngAlpha = alpha, .encoding = meaning.encoding, .alpha = meaning.alpha};
}

/// Says why --alpha straight divides nothing, if that is so.
void noteAboutAlpha(AlphaMeaning alpha, const QString& output)
{
    if (alpha != AlphaMeaning::Premultiplied && alpha != AlphaMeaning::Unspecified) {
        printNote(
            u"--alpha straight: the alpha of %1 is %2, not premultiplied; the colours are unchanged"_s.arg(
                output, alpha == AlphaMeaning::Opaque ? u"1 everywhere"_s : nameOf(alpha)));
    }
}

/// Reads the graph's output image, or the screen if the graph has no output.
Image outputImage(const RenderGraph& graph, const GraphDescription& description)
{
    if (description.output.isEmpty()) {
        return readDefaultFramebuffer(graph.viewport().width(), graph.viewport().height());
    }
    std::vector<Image> images = readTexture(graph.image());
    if (images.size() != 1) {
        fail(u"%1: %2 is not one image but %3; write all of them with --dump"_s
                 .arg(description.displayName(), description.output)
                 .arg(images.size()));
    }
    return std::move(images.front());
}

} // namespace

void declareRender(Arguments& options)
{
    options.describe(u"Renders a graph and writes its output image."_s);
    options.addPositional(u"GRAPH"_s, u"a graph file; - for standard input"_s, false, ValueKind::GraphFile);
    options.addOption(u"model"_s, u"FILE"_s, u"replaces the graph's first model"_s, ValueKind::File);
    options.addOption(u"camera"_s, u"fitted|graph"_s,
                      u"fits the view to the models, as --model does, or keeps the graph's camera"_s);
    options.addOption(u"size"_s, u"WxH"_s, u"replaces the graph's image size, in pixels"_s);
    options.addOption(
        u"frames"_s, u"RANGE"_s,
        u"the first N frames, or frames A to B with A..B; default: all frames of the animation if --output "
        "writes all, else frame 0"_s);
    options.addOption(
        u"set"_s, u"WHAT=VALUE"_s,
        u"sets a parameter, PASS.PORT, PASS.OPTION, viewport, camera.MEMBER or lights.N.MEMBER; "
        "may be repeated"_s,
        ValueKind::Repeated);
    options.addOption(
        u"output"_s, u"FILE"_s,
        u"writes the last frame as PNG or EXR; with a name such as frame%04d.png every frame with "
        "its number; as .mp4, .webm or .gif a video of all frames (needs ffmpeg)"_s,
        ValueKind::Image);
    options.addOption(u"dump"_s, u"DIR"_s,
                      u"writes every output of every pass of the last frame, as EXR and as PNG previews"_s,
                      ValueKind::Folder);
    options.addOption(u"shaders"_s, u"DIR"_s, u"writes the GLSL of every program as the driver gets it"_s,
                      ValueKind::Folder);
    options.addOption(
        u"profile"_s, {},
        u"prints the GPU and CPU time and the memory of each pass in the frames of --frames (default %1), "
        "after %2 more to warm up; the images stay the same"_s.arg(numProfiledFrames)
            .arg(Profiler::numWarmUpFrames));
    options.addOption(u"json"_s, {}, u"prints what --profile measures as JSON"_s);
    options.addOption(u"keep-going"_s, {},
                      u"renders on without image files that cannot be read: a texel of one colour replaces "
                      "each"_s);
    options.addOption(u"alpha"_s, u"opaque|keep|straight"_s,
                      u"alpha in PNG files: left out (default), as it is, or with colours divided by it"_s);
    options.addOption(u"check"_s, {},
                      u"looks for mistakes in what flows between the passes, such as NaN; exit code 1 if "
                      "there are any"_s);
    addDeviceOption(options);
    options.addExitCode(ExitCode::CheckFailed);
    options.addExample(u"qel render examples/graphs/forward.json --model bunny.obj --output bunny.png"_s,
                       u"Render a model of your own"_s);
    options.addExample(u"qel render glow.json --size 640x360 --set glow.Width=9 --output glow.png"_s,
                       u"Try another value of an input in a small image"_s);
}

ExitCode render(const Arguments& options)
{
    const bool hasOutput = options.isSet(u"output"_s);
    const bool hasDump = options.isSet(u"dump"_s);
    const bool hasFrames = options.isSet(u"frames"_s);
    const bool hasProfile = options.isSet(u"profile"_s);
    const bool hasJson = options.isSet(u"json"_s);
    if (hasJson && !hasProfile) {
        options.fail(u"--json needs --profile"_s);
    }
    const bool hasCheck = options.isSet(u"check"_s);
    const PngAlpha pngAlpha = alphaChoice(options);
    const OutputFiles files(options, options.value(u"output"_s));
    const bool isVideo = VideoFile::isVideo(files.name(0));
    if (isVideo && files.isNumbered()) {
        options.fail(
            u"--output %1: a video holds all frames; leave out the number"_s.arg(options.value(u"output"_s)));
    }
    const bool writesAll = isVideo || files.isNumbered();
    const HeadlessContext::Device wanted = device(options);

    QString error;
    GraphDescription description = loadGraphFile(options.positional(0));
    const GraphDescription ofFile = description;
    if (options.isSet(u"model"_s)) {
        const QString file = options.value(u"model"_s);
        description.replaceModel(file, u"--model "_s + file);
    }
    if (options.isSet(u"camera"_s)) {
        chooseCamera(options, ofFile, &description);
    }
    if (options.isSet(u"size"_s)) {
        description.viewport = parseSize(options, options.value(u"size"_s));
    }
    for (const QString& assignment : options.values(u"set"_s)) {
        if (!description.set(assignment, &error)) {
            fail(error);
        }
    }
    const GraphPlan plan = planOf(description);
    const FrameRange frames =
        frameRange(options, writesAll && description.animation ? description.animation->frames : 1);
    const QString firstFile = files.name(frames.first);
    if (hasOutput && !(isVideo ? VideoFile::check(firstFile, &error) : checkImagePath(firstFile, &error))) {
        fail(error);
    }

    const std::unique_ptr<HeadlessContext> context = makeContext(wanted);
    if (options.isSet(u"shaders"_s)) {
        makeFolder(options.value(u"shaders"_s));
        ShaderProgram::writeSourcesTo(options.value(u"shaders"_s));
    }
    RenderGraph::Options graphOptions;
    graphOptions.profile = hasProfile;
    graphOptions.keepOutputs = hasDump;
    graphOptions.keepGoing = options.isSet(u"keep-going"_s);
    graphOptions.check = hasCheck;
    const std::unique_ptr<RenderGraph> graph = makeGraph(plan, graphOptions);
    resizeScreen(*context, graph->viewport());

    const ImageFileOptions fileOptions = fileOptionsFor(graph->plan(), pngAlpha);
    if (hasOutput && pngAlpha == PngAlpha::Straight) {
        noteAboutAlpha(fileOptions.alpha, description.output);
    }

    const int start = runUpStart(graph->plan(), frames.first);
    const int numFrames = frames.last - start + 1;
    // Frames that only the profile needs come last, so that the images do not depend on it.
    const int numRendered = hasProfile
                                ? std::max(numFrames, (hasFrames ? frames.count() : numProfiledFrames) +
                                                          Profiler::numWarmUpFrames)
                                : numFrames;
    {
        const auto sequence =
            hasOutput && writesAll ? std::make_unique<SequenceOutput>(files, *graph, fileOptions) : nullptr;
        Progress progress(u"frame"_s, numRendered);
        for (int i = 0; i < numRendered; ++i) {
            const int frame = start + i;
            if (frame > frames.last) {
                renderFrame(*graph);
            } else {
                renderSequenceFrame(*graph, frame);
            }
            if (sequence && frame >= frames.first && frame <= frames.last) {
                sequence->add(frame);
            }
            if (hasOutput && !sequence && frame == frames.last) {
                write(outputImage(*graph, description), files.name(frame), fileOptions);
            }
            if (hasDump && frame == frames.last) {
                dump(*graph, options.value(u"dump"_s));
            }
            progress.update(i + 1);
            if (sequence) {
                sequence->endIfInterrupted();
            }
        }
        if (sequence) {
            sequence->finish();
        }
    }
    if (ShaderProgram::hasUnwrittenSources()) {
        throw Failure{ExitCode::WrongUse, {}}; // Each file was reported.
    }
    if (hasProfile) {
        const Profiler::Report report = graph->profile();
        print(hasJson ? QString::fromUtf8(QJsonDocument(report.json()).toJson()) : report.table());
    }
    if (hasCheck) {
        const QStringList findings = graph->findings();
        for (const QString& line : findings) {
            printNote(u"%1: %2"_s.arg(description.displayName(), line));
        }
        if (!findings.isEmpty()) {
            return ExitCode::CheckFailed;
        }
        printNote(u"%1: the check found nothing"_s.arg(description.displayName()));
    }
    if (!hasOutput && !hasDump && !hasFrames && !hasProfile && !hasCheck && !options.isSet(u"shaders"_s)) {
        printNote(u"nothing is written; name a file with --output"_s);
    }
    return ExitCode::Done;
}

} // namespace Morvane::Qel::App
