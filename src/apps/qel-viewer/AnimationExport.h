#pragma once

#include <QObject>
#include <QTimer>

#include <memory>

#include <Qel/graph/FrameReader.h>
#include <Qel/graph/FrameWriter.h>
#include <Qel/graph/RenderGraph.h>
#include <Qel/graph/VideoFile.h>

namespace Morvane::Qel::Viewer {

class TextureView;

/// Writes all frames of an animation as `qel render` does, one after the other while the window stays usable.
class AnimationExport : public QObject
{
    Q_OBJECT
public:
    /// Writes a video, or numbered images if `file` has the extension of an image. The graph has frames 0 to
    /// `last`, and its context is that of the view.
    AnimationExport(std::unique_ptr<RenderGraph> graph, int last, const QString& file, TextureView& view,
                    QObject* parent = nullptr);
    ~AnimationExport() override;

    /// Checks ahead what a file needs: its extension, its folder, and ffmpeg for a video. Returns false with
    /// one line in `error` if something is missing.
    static bool check(const QString& file, QString* error);
    /// The file of a frame: "turn0012.png" for "turn.png", or the video.
    static QString fileOf(const QString& file, int frame);

    /// Ends early. Images that are written stay; an unfinished video does not.
    void cancel();

Q_SIGNALS:
    void progressed(int numFrames);
    /// All frames are written, or `error` says why not.
    void finished(const QString& error);

private:
    void renderNext();
    bool handOver();
    bool complete(QString* error);
    void end(const QString& error);

    std::unique_ptr<RenderGraph> m_graph;
    int m_last;
    int m_next;
    TextureView& m_view;
    /// If the file is one.
    std::unique_ptr<VideoFile> m_video;
    std::unique_ptr<FrameReader> m_reader;
    std::unique_ptr<FrameWriter> m_writer;
    QTimer m_timer;
};

} // namespace Morvane::Qel::Viewer
