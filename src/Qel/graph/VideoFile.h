#pragma once

#include <QString>

#include <memory>

#include <Qel/graph/Export.h>

namespace Morvane::Qel {

class FramePixels;

/// A video file that the installed program ffmpeg encodes: H.264 in .mp4, VP9 in .webm, or an animated .gif
/// with a palette made from its frames. An existing file is replaced only once the new one is complete
/// (OutputFile). Frames are opaque and count as encoded for display (sRGB).
class QEL_GRAPH_EXPORT VideoFile
{
public:
    /// Whether a file name has the extension of a video.
    static bool isVideo(const QString& path);
    /// Checks ahead that ffmpeg is installed and that the file can be written. Returns false with one line in
    /// `error` if not.
    static bool check(const QString& path, QString* error);

    VideoFile(const QString& path, float framesPerSecond);
    /// Ends an unfinished video, of which nothing is kept.
    ~VideoFile();
    VideoFile(const VideoFile&) = delete;
    VideoFile& operator=(const VideoFile&) = delete;

    /// Appends a frame, which must be as large as the first. Returns false with one line in `error` on
    /// failure.
    bool add(const FramePixels& frame, QString* error);
    /// Completes the file; a video without frames is no file. Returns false with one line in `error` on
    /// failure.
    bool finish(QString* error);

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace Morvane::Qel
