#include "Sequence.h"

#include <QRegularExpression>

#include <algorithm>
#include <limits>
#include <thread>

#include <Qel/graph/RenderGraph.h>
#include <Qel/graph/Sequence.h>

#include "Console.h"
#include "Failure.h"
#include "Setup.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::App {

namespace {

std::unique_ptr<VideoFile> videoFor(const OutputFiles& files, const RenderGraph& graph)
{
    const QString name = files.name(0);
    const AnimationDescription animation = graph.plan().graph.animation.value_or(AnimationDescription());
    return VideoFile::isVideo(name) ? std::make_unique<VideoFile>(name, animation.fps) : nullptr;
}

/// A video has one encoder, which has threads of its own.
int numWriters(bool isVideo)
{
    return isVideo ? 1 : static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1U, 16U));
}

} // namespace

FrameRange frameRange(const Arguments& options, int defaultCount)
{
    if (!options.isSet(u"frames"_s)) {
        return {0, defaultCount - 1};
    }
    const QString text = options.value(u"frames"_s);
    static const QRegularExpression syntax(uR"(^(?:(\d+)|(\d+)\.\.(\d+))$)"_s);
    const QRegularExpressionMatch match = syntax.match(text);
    const auto number = [&](int group) {
        bool isSmall = false;
        const int value = match.captured(group).toInt(&isSmall);
        return isSmall ? value : -1;
    };
    const bool isCount = match.hasCaptured(1);
    const FrameRange range = isCount ? FrameRange{0, number(1) - 1} : FrameRange{number(2), number(3)};
    if (!match.hasMatch() || range.first < 0 || range.last < range.first) {
        options.fail(u"--frames %1 must be a number of frames >= 1, or a range such as 100..199"_s.arg(text));
    }
    return range;
}

void renderSequenceFrame(RenderGraph& graph, int frame)
{
    QString error;
    finishFrame(Qel::renderSequenceFrame(graph, frame, &error), error);
}

SequenceOutput::SequenceOutput(const OutputFiles& files, const RenderGraph& graph,
                               const ImageFileOptions& options)
    : m_files(files)
    , m_graph(graph)
    , m_options(options)
    , m_video(videoFor(files, graph))
    , m_writer([this](const FramePixels& frame, QString* error) { return write(frame, error); },
               numWriters(m_video != nullptr))
{
}

SequenceOutput::~SequenceOutput()
{
    QString error;
    m_writer.finish(&error);
}

bool SequenceOutput::write(const FramePixels& frame, QString* error)
{
    return m_video ? m_video->add(frame, error)
                   : writeImage(frame.toImage(), m_files.name(frame.number()), error, m_options);
}

void SequenceOutput::takeFrame()
{
    FramePixels frame = m_reader.take();
    checkReports();
    if (!m_writer.add(std::move(frame))) {
        fail();
    }
}

void SequenceOutput::add(int frame)
{
    if (m_firstFrame < 0) {
        m_firstFrame = frame;
    }
    if (m_reader.numStarted() == FrameReader::numBuffers) {
        takeFrame();
    }
    const GraphDescription& graph = m_graph.plan().graph;
    if (graph.output.isEmpty()) {
        m_reader.startScreen(frame, graph.viewport);
    } else if (!m_reader.start(frame, m_graph.image())) {
        App::fail(u"%1: %2 is not one image; write all of them with --dump"_s.arg(graph.displayName(),
                                                                                  graph.output));
    }
}

void SequenceOutput::finish()
{
    while (m_reader.numStarted() > 0) {
        takeFrame();
    }
    QString error;
    if (!m_writer.finish(&error)) {
        fail();
    }
    if (m_video && !m_video->finish(&error)) {
        App::fail(error);
    }
}

void SequenceOutput::endIfInterrupted()
{
    if (m_interruption.isRequested()) {
        finish();
        printNote(u"interrupted; "_s + summary());
        m_interruption.endProgram();
    }
}

QString SequenceOutput::summary() const
{
    const int number = m_writer.numWritten();
    if (number == 0) {
        return u"no frame was written"_s;
    }
    const int last = m_firstFrame + number - 1;
    return m_video      ? u"%1 holds frames %2 to %3"_s.arg(m_files.name(0)).arg(m_firstFrame).arg(last)
           : number > 1 ? u"frames %1 to %2 were written"_s.arg(m_firstFrame).arg(last)
                        : u"frame %1 was written"_s.arg(last);
}

void SequenceOutput::fail()
{
    QString error;
    m_writer.finish(&error);
    App::fail(m_video ? error : u"%1; %2"_s.arg(error, summary()));
}

} // namespace Morvane::Qel::App
