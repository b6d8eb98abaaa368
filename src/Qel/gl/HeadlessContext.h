#pragma once

#include <QSize>
#include <QString>

#include <memory>

#include <Qel/gl/OpenGLDeviceContext.h>

namespace Morvane::Qel {

/// A GL core context that needs no window and no display server. It is created through EGL with the highest
/// version that the driver offers, at least 3.2, and a pbuffer as framebuffer 0. KHR_debug messages go to the
/// log.
class QEL_GL_EXPORT HeadlessContext : public OpenGLDeviceContext
{
public:
    enum class Device
    {
        /// A GPU if there is one, otherwise the software rasteriser.
        Auto,
        Gpu,
        /// Mesa's software rasteriser.
        Software,
    };
    struct Options
    {
        Device device = Device::Auto;
        /// Requests a debug context, which reports errors inside the call that causes them.
        bool debug = false;
        /// The size of framebuffer 0.
        QSize size = {1, 1};
    };

    /// Creates a context and makes it current on this thread. Returns null on failure and puts one line in
    /// `error`: what was tried, why each attempt failed and what would help. `error` may be null.
    static std::unique_ptr<HeadlessContext> create(const Options& options, QString* error);
    /// If another context is current, it stays current.
    ~HeadlessContext() override;

    /// Makes the native context current on this thread too. While it is current on another thread, this
    /// fails, changes nothing and is reported as critical.
    void makeCurrent() override;
    /// Releases the native context too.
    void doneCurrent() override;

    /// Changes the size of framebuffer 0. Returns false and keeps the old size if the driver cannot.
    bool resize(const QSize& size);
    /// The EGL display in use, such as "EGL device 0 (/dev/dri/card0)" or "EGL surfaceless".
    QString deviceName() const;

private:
    struct Egl;
    explicit HeadlessContext(std::unique_ptr<Egl> egl);
    std::unique_ptr<Egl> m_egl;
};

} // namespace Morvane::Qel
