#include "AnimationExport.h"

#include <QFileInfo>

#include <algorithm>
#include <thread>
#include <utility>

#include <Qel/graph/GraphReview.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/Sequence.h>

#include "TextureView.h"

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Viewer {

namespace {

float fpsOf(const RenderGraph& graph)
{
    return graph.plan().graph.animation.value_or(AnimationDescription()).fps;
}

/// How the graph's image is written.
ImageFileOptions fileOptionsFor(const GraphPlan& plan)
{
    const TextureMeaning meaning =
        plan.outputPass < 0 ? TextureMeaning() : meaningOf(plan, plan.outputPass, plan.outputPort);
    return {.encoding = meaning.encoding, .alpha = meaning.alpha};
}

} // namespace

AnimationExport::AnimationExport(std::unique_ptr<RenderGraph> graph, int last, const QString& file,
                                 TextureView& view, QObject* parent)
    : QObject(parent)
    , m_graph(std::move(graph))
    , m_last(last)
    , m_next(0)
    , m_view(view)
{
    if (VideoFile::isVideo(file)) {
        m_video = std::make_unique<VideoFile>(file, fpsOf(*m_graph));
    }
    const auto write = [this, file, options = fileOptionsFor(m_graph->plan())](const FramePixels& frame,
                                                                               QString* error) {
        return m_video ? m_video->add(frame, error)
                       : writeImage(frame.toImage(), fileOf(file, frame.number()), error, options);
    };
    // A video has one encoder, which has threads of its own.
    const auto numThreads =
        m_video ? 1 : static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1U, 16U));
    m_view.withContext([&] { m_reader = std::make_unique<FrameReader>(); });
    m_writer = std::make_unique<FrameWriter>(write, numThreads);
    connect(&m_timer, &QTimer::timeout, this, &AnimationExport::renderNext);
    m_timer.start(0);
}

AnimationExport::~AnimationExport()
{
    m_view.withContext([&] {
        m_reader.reset();
        m_graph.reset();
    });
    m_writer.reset();
}

bool AnimationExport::check(const QString& file, QString* error)
{
    return VideoFile::isVideo(file) ? VideoFile::check(file, error) : checkImagePath(file, error);
}

QString AnimationExport::fileOf(const QString& file, int frame)
{
    const QFileInfo info(file);
    constexpr int numDigits = 4;
    return VideoFile::isVideo(file) ? file
                                    : u"%1/%2%3.%4"_s.arg(info.path(), info.completeBaseName())
                                          .arg(frame, numDigits, 10, QLatin1Char('0'))
                                          .arg(info.suffix());
}

bool AnimationExport::handOver()
{
    return m_writer->add(m_reader->take());
}

void AnimationExport::renderNext()
{
    QString error;
    bool good = true;
    m_view.withContext([&] {
        good = renderSequenceFrame(*m_graph, m_next, &error);
        if (good && m_reader->numStarted() == FrameReader::numBuffers) {
            good = handOver();
        }
        if (good && !m_reader->start(m_next, m_graph->image())) {
            error = tr("The output of the graph is not one image.");
            good = false;
        }
    });
    if (good && m_next < m_last) {
        ++m_next;
        Q_EMIT progressed(m_next);
        return;
    }
    m_timer.stop();
    end(good && complete(&error) ? QString() : error);
}

/// Waits for the frames that are under way.
bool AnimationExport::complete(QString* error)
{
    bool good = true;
    m_view.withContext([&] {
        while (good && m_reader->numStarted() > 0) {
            good = handOver();
        }
    });
    return m_writer->finish(error) && good && (!m_video || m_video->finish(error));
}

void AnimationExport::cancel()
{
    m_timer.stop();
    QString error;
    m_writer->finish(&error);
    const int number = m_writer->numWritten();
    end(m_video       ? tr("Cancelled. No video was written.")
        : number == 0 ? tr("Cancelled. No frame was written.")
                      : tr("Cancelled. Frames 0 to %1 were written.").arg(number - 1));
}

void AnimationExport::end(const QString& error)
{
    QString what = error;
    if (what.isEmpty()) {
        m_writer->finish(&what);
    }
    Q_EMIT finished(what);
}

} // namespace Morvane::Qel::Viewer
