#pragma once

#include <QString>

#include <functional>
#include <memory>

#include <Qel/graph/Export.h>
#include <Qel/graph/FrameReader.h>

namespace Morvane::Qel {

/// Writes frames on threads of its own, beside rendering. Holds only as many frames as the threads need, so
/// that rendering waits for slow writing.
class QEL_GRAPH_EXPORT FrameWriter
{
public:
    /// Writes one frame. Returns false with one line in `error` on failure, after which no other frame is
    /// begun. With several threads, it is called on them at once.
    using Write = std::function<bool(const FramePixels& frame, QString* error)>;

    /// With one thread, frames are written in order.
    FrameWriter(Write write, int numThreads);
    /// Waits for the frames that are being written and drops the others.
    ~FrameWriter();
    FrameWriter(const FrameWriter&) = delete;
    FrameWriter& operator=(const FrameWriter&) = delete;

    /// Hands over a frame, after waiting for room. Returns false if writing has failed.
    bool add(FramePixels frame);
    /// Waits until all frames are written. Returns false with one line in `error` if writing failed.
    bool finish(QString* error);
    /// How many frames were written without a gap, from the first on.
    int numWritten() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace Morvane::Qel
