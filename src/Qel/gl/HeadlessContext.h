#pragma once

#include <QSize>
#include <QString>

#include <memory>

#include <Qel/gl/OpenGLDeviceContext.h>

namespace Morvane::Qel {

/// A GL core context without a window or a display server, made through EGL: the highest version that the
/// driver offers, at least 3.2, with a pbuffer as framebuffer 0. KHR_debug messages go to the log.
class QEL_GL_EXPORT HeadlessContext : public OpenGLDeviceContext
{
public:
    enum class Device
    {
        /// A GPU when there is one, else software.
        Auto,
        Gpu,
        /// Mesa's software rasteriser.
        Software,
    };
    struct Options
    {
        Device device = Device::Auto;
        /// Asks for a debug context, whose errors are reported where they happen.
        bool debug = false;
        /// Size of framebuffer 0.
        QSize size = {1, 1};
    };

    /// Makes a context and makes it current on this thread. Null on failure, with one line in `error` that
    /// says what was tried, what each attempt answered and what would help.
    static std::unique_ptr<HeadlessContext> create(const Options& options, QString* error);
    ~HeadlessContext() override;

    /// Gives framebuffer 0 another size; false when the driver cannot, and the old size stays.
    bool resize(const QSize& size);
    /// What EGL runs on, such as "EGL device 0 (/dev/dri/card0)" or "EGL surfaceless".
    QString deviceName() const;

private:
    struct Egl;
    explicit HeadlessContext(std::unique_ptr<Egl> egl);
    std::unique_ptr<Egl> m_egl;
};

} // namespace Morvane::Qel
