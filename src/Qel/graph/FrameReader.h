#pragma once

#include <QByteArray>
#include <QSize>
#include <QString>

#include <memory>

#include <Qel/gl/Image.h>
#include <Qel/graph/Export.h>

namespace Morvane::Qel {

class Texture;
struct PixelLayout;

/// A frame that was read from GL and is not converted yet. Converting it needs no context, so that any thread
/// can do it.
class QEL_GRAPH_EXPORT FramePixels
{
public:
    FramePixels(int number, const QSize& size, PixelLayout layout, QByteArray pixels);

    int number() const { return m_number; }
    QSize size() const { return m_size; }
    /// The same image as from readTexture.
    Image toImage() const;
    /// Three bytes per pixel, rows from top to bottom: clamped and rounded as in a PNG file, without alpha;
    /// an image with one channel becomes grey.
    QByteArray toRgb8() const;

private:
    int m_number;
    QSize m_size;
    std::shared_ptr<const PixelLayout> m_layout;
    /// As GL returns them.
    QByteArray m_pixels;
};

/// Reads frames through pixel buffer objects, so that the GPU renders the next frame while the last one is
/// copied. The context in which it was created must be current.
class QEL_GRAPH_EXPORT FrameReader
{
public:
    FrameReader();
    /// Leaves its buffers to the context if that is not current.
    ~FrameReader();
    FrameReader(const FrameReader&) = delete;
    FrameReader& operator=(const FrameReader&) = delete;

    /// The number of frames that can be under way.
    static constexpr int numBuffers = 2;
    /// Starts to read a 2D texture. If `numBuffers` frames are under way, take one first. Returns false for
    /// other textures and null.
    bool start(int number, Texture* texture);
    /// Starts to read the lower left corner of the default framebuffer.
    void startScreen(int number, const QSize& size);
    /// The number of frames that are under way.
    int numStarted() const;
    /// Waits for the frame that was started first, and removes it.
    FramePixels take();

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace Morvane::Qel
