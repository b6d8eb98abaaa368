#pragma once

#include <Qel/graph/FrameReader.h>
#include <Qel/graph/FrameWriter.h>
#include <Qel/graph/ImageIO.h>
#include <Qel/graph/VideoFile.h>

#include "Arguments.h"
#include "Interruption.h"
#include "OutputFiles.h"

namespace Morvane::Qel {
class RenderGraph;
} // namespace Morvane::Qel

namespace Morvane::Qel::App {

/// The frames of a sequence that are asked for, both included.
struct FrameRange
{
    int first = 0;
    int last = 0;

    int count() const { return last - first + 1; }
};

/// The frames of --frames: "N" for the first N, "A..B" for those; `defaultCount` without that option. Throws
/// Failure on wrong use.
FrameRange frameRange(const Arguments& options, int defaultCount);

/// Renders a frame of a sequence, see renderSequenceFrame. Throws Failure.
void renderSequenceFrame(RenderGraph& graph, int frame);

/// Writes the frames of a sequence beside rendering, as numbered images or into a video. While it exists, a
/// signal that ends the program is held back until endIfInterrupted.
class SequenceOutput
{
public:
    /// `files` and `graph` must outlive it; `options` are for images.
    SequenceOutput(const OutputFiles& files, const RenderGraph& graph, const ImageFileOptions& options);
    /// Writes the images that are rendered; an unfinished video is lost.
    ~SequenceOutput();
    SequenceOutput(const SequenceOutput&) = delete;
    SequenceOutput& operator=(const SequenceOutput&) = delete;

    /// Writes the image of the graph as that of a frame. Throws Failure if writing has failed.
    void add(int frame);
    /// Waits until all frames are written. Throws Failure if writing failed.
    void finish();
    /// If there was a signal, finishes what is rendered, says what was written and ends the program with the
    /// signal.
    void endIfInterrupted();

private:
    bool write(const FramePixels& frame, QString* error);
    void takeFrame();
    /// Which frames are in the files, such as "frames 0 to 11 were written".
    QString summary() const;
    [[noreturn]] void fail();

    const OutputFiles& m_files;
    const RenderGraph& m_graph;
    ImageFileOptions m_options;
    Interruption m_interruption;
    int m_firstFrame = -1;
    /// If the output is a video.
    std::unique_ptr<VideoFile> m_video;
    FrameReader m_reader;
    FrameWriter m_writer;
};

} // namespace Morvane::Qel::App
