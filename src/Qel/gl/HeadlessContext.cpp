#include <Qel/gl/HeadlessContext.h>

#include <QStringList>

#include <array>
#include <utility>
#include <vector>

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/DebugOutput.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

bool hasToken(const char* list, const char* token)
{
    return list && QByteArray(list).split(' ').contains(token);
}

/// An EGL display to try.
struct Candidate
{
    QString name;
    EGLDisplay display;
};

/// The displays to try, in order.
std::vector<Candidate> findCandidates(HeadlessContext::Device wanted)
{
    using Device = HeadlessContext::Device;
    std::vector<Candidate> gpus;
    std::vector<Candidate> software;
    const char* extensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    const auto getPlatformDisplay =
        reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
    const auto queryDevices =
        reinterpret_cast<PFNEGLQUERYDEVICESEXTPROC>(eglGetProcAddress("eglQueryDevicesEXT"));
    const auto queryDeviceString =
        reinterpret_cast<PFNEGLQUERYDEVICESTRINGEXTPROC>(eglGetProcAddress("eglQueryDeviceStringEXT"));

    if (getPlatformDisplay && queryDevices && queryDeviceString &&
        hasToken(extensions, "EGL_EXT_platform_device")) {
        std::array<EGLDeviceEXT, 16> devices{};
        EGLint numDevices = 0;
        queryDevices(static_cast<EGLint>(devices.size()), devices.data(), &numDevices);
        for (EGLint i = 0; i < numDevices; ++i) {
            EGLDeviceEXT device = devices[static_cast<size_t>(i)];
            const char* deviceExtensions = queryDeviceString(device, EGL_EXTENSIONS);
            const bool isSoftware = hasToken(deviceExtensions, "EGL_MESA_device_software");
            const char* file = hasToken(deviceExtensions, "EGL_EXT_device_drm")
                                   ? queryDeviceString(device, EGL_DRM_DEVICE_FILE_EXT)
                                   : nullptr;
            const QString name = u"EGL device %1 (%2)"_s.arg(i).arg(isSoftware ? u"software"_s
                                                                    : file     ? QString::fromUtf8(file)
                                                                               : u"no device file"_s);
            (isSoftware ? software : gpus)
                .push_back({name, getPlatformDisplay(EGL_PLATFORM_DEVICE_EXT, device, nullptr)});
        }
    }
    if (wanted == Device::Gpu) {
        return gpus;
    }
    std::vector<Candidate> candidates;
    if (wanted == Device::Auto) {
        candidates = gpus;
    }
    candidates.insert(candidates.end(), software.begin(), software.end());
    if (getPlatformDisplay && hasToken(extensions, "EGL_MESA_platform_surfaceless")) {
        candidates.push_back({u"EGL surfaceless"_s, getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA,
                                                                       EGL_DEFAULT_DISPLAY, nullptr)});
    }
    return candidates;
}

} // namespace

struct HeadlessContext::Egl
{
    QString name;
    EGLDisplay display = EGL_NO_DISPLAY;
    EGLConfig config = nullptr;
    EGLContext context = EGL_NO_CONTEXT;
    EGLSurface surface = EGL_NO_SURFACE;

    Egl() = default;
    Egl(const Egl&) = delete;
    Egl& operator=(const Egl&) = delete;
    ~Egl();

    /// Creates the context and its surface and makes them current. Null on success, otherwise the reason.
    QString open(const Candidate& candidate, const Options& options);
    EGLSurface makeSurface(const QSize& size) const;
    /// Whether the context is current on this thread with its surface.
    bool isCurrent() const;
    bool makeCurrent() const;
    /// Makes no context current on this thread if the context is.
    void release() const;
};

HeadlessContext::Egl::~Egl()
{
    if (display == EGL_NO_DISPLAY) {
        return;
    }
    release();
    if (surface != EGL_NO_SURFACE) {
        eglDestroySurface(display, surface);
    }
    if (context != EGL_NO_CONTEXT) {
        eglDestroyContext(display, context);
    }
    // The display stays initialised: all contexts of the process share it, and drivers leak memory when their
    // libraries are unloaded and loaded again.
}

QString HeadlessContext::Egl::open(const Candidate& candidate, const Options& options)
{
    if (candidate.display == EGL_NO_DISPLAY || !eglInitialize(candidate.display, nullptr, nullptr)) {
        return u"the display cannot be initialised"_s;
    }
    display = candidate.display;
    name = candidate.name;

    const std::array<EGLint, 15> configAttributes{EGL_SURFACE_TYPE,
                                                  EGL_PBUFFER_BIT,
                                                  EGL_RENDERABLE_TYPE,
                                                  EGL_OPENGL_BIT,
                                                  EGL_RED_SIZE,
                                                  8,
                                                  EGL_GREEN_SIZE,
                                                  8,
                                                  EGL_BLUE_SIZE,
                                                  8,
                                                  EGL_ALPHA_SIZE,
                                                  8,
                                                  EGL_DEPTH_SIZE,
                                                  24,
                                                  EGL_NONE};
    EGLint numConfigs = 0;
    if (!eglBindAPI(EGL_OPENGL_API) ||
        !eglChooseConfig(display, configAttributes.data(), &config, 1, &numConfigs) || numConfigs == 0) {
        return u"no OpenGL configuration supports pbuffers"_s;
    }
    constexpr std::array<std::array<EGLint, 2>, 9> versions{
        {{4, 6}, {4, 5}, {4, 4}, {4, 3}, {4, 2}, {4, 1}, {4, 0}, {3, 3}, {3, 2}}};
    for (const auto& [major, minor] : versions) {
        const std::array<EGLint, 9> contextAttributes{EGL_CONTEXT_MAJOR_VERSION,
                                                      major,
                                                      EGL_CONTEXT_MINOR_VERSION,
                                                      minor,
                                                      EGL_CONTEXT_OPENGL_PROFILE_MASK,
                                                      EGL_CONTEXT_OPENGL_CORE_PROFILE_BIT,
                                                      EGL_CONTEXT_OPENGL_DEBUG,
                                                      options.debug ? EGL_TRUE : EGL_FALSE,
                                                      EGL_NONE};
        context = eglCreateContext(display, config, EGL_NO_CONTEXT, contextAttributes.data());
        if (context != EGL_NO_CONTEXT) {
            break;
        }
    }
    if (context == EGL_NO_CONTEXT) {
        return u"no OpenGL 3.2 core context is available"_s;
    }
    surface = makeSurface(options.size);
    if (surface == EGL_NO_SURFACE) {
        return u"a pbuffer of %1x%2 cannot be created"_s.arg(options.size.width()).arg(options.size.height());
    }
    if (!makeCurrent()) {
        return u"the context cannot be made current"_s;
    }
    return {};
}

EGLSurface HeadlessContext::Egl::makeSurface(const QSize& size) const
{
    const std::array<EGLint, 5> attributes{EGL_WIDTH, size.width(), EGL_HEIGHT, size.height(), EGL_NONE};
    return eglCreatePbufferSurface(display, config, attributes.data());
}

bool HeadlessContext::Egl::isCurrent() const
{
    // Each thread starts with OpenGL ES, which has a current context of its own.
    return eglBindAPI(EGL_OPENGL_API) && eglGetCurrentContext() == context &&
           eglGetCurrentSurface(EGL_DRAW) == surface;
}

bool HeadlessContext::Egl::makeCurrent() const
{
    return isCurrent() || eglMakeCurrent(display, surface, surface, context);
}

void HeadlessContext::Egl::release() const
{
    if (isCurrent()) {
        eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    }
}

HeadlessContext::HeadlessContext(std::unique_ptr<Egl> egl)
    : m_egl(std::move(egl))
{
}

std::unique_ptr<HeadlessContext> HeadlessContext::create(const Options& options, QString* error)
{
    QStringList attempts;
    for (const Candidate& candidate : findCandidates(options.device)) {
        auto egl = std::make_unique<Egl>();
        const QString reason = egl->open(candidate, options);
        if (!reason.isNull()) {
            attempts.append(u"%1: %2"_s.arg(candidate.name, reason));
            continue;
        }
        std::unique_ptr<HeadlessContext> context(new HeadlessContext(std::move(egl)));
        context->makeCurrent();
        enableDebugOutput(*context, options.debug);
        return context;
    }
    if (error) {
        const QString wanted = options.device == Device::Gpu ? u"GPU "_s : QString();
        *error = u"no usable OpenGL %1driver: %2; install a driver with EGL (on Debian: "
                 "libegl-mesa0 and libgl1-mesa-dri) or choose another device"_s.arg(
                     wanted, attempts.isEmpty() ? u"EGL lists no device"_s : attempts.join(u", "));
    }
    return nullptr;
}

HeadlessContext::~HeadlessContext()
{
    releaseObjects();
}

void HeadlessContext::makeCurrent()
{
    if (m_egl->makeCurrent()) {
        OpenGLDeviceContext::makeCurrent();
    } else {
        logCritical(
            __FILE__, __LINE__,
            u"the context cannot be made current (EGL error 0x%1); if it is current on another thread, "
            "call doneCurrent there first"_s.arg(eglGetError(), 0, 16));
    }
}

void HeadlessContext::doneCurrent()
{
    OpenGLDeviceContext::doneCurrent();
    m_egl->release();
}

bool HeadlessContext::resize(const QSize& size)
{
    EGLSurface surface = m_egl->makeSurface(size);
    if (surface == EGL_NO_SURFACE) {
        return false;
    }
    const bool wasCurrent = m_egl->isCurrent();
    EGLSurface former = std::exchange(m_egl->surface, surface);
    if (wasCurrent) {
        m_egl->makeCurrent();
    }
    eglDestroySurface(m_egl->display, former);
    return true;
}

QString HeadlessContext::deviceName() const
{
    return m_egl->name;
}

} // namespace Morvane::Qel
