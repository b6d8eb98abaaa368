#include <Qel/gl/OpenGLDeviceContext.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <vector>

#include <epoxy/gl.h>

#include <Qel/gl/AssumedState.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/ContextReference.h>
#include <Qel/gl/GLErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

// Nearly every call reads it; with this model that takes no function call.
[[gnu::tls_model("initial-exec")]] thread_local constinit OpenGLDeviceContext* currentContext = nullptr;

/// The capabilities that the context records; the state of others is read from GL.
constexpr std::array recordedCapabilities{
    static_cast<GLenum>(GL_BLEND),
    static_cast<GLenum>(GL_COLOR_LOGIC_OP),
    static_cast<GLenum>(GL_CULL_FACE),
    static_cast<GLenum>(GL_DEPTH_CLAMP),
    static_cast<GLenum>(GL_DEPTH_TEST),
    static_cast<GLenum>(GL_FRAMEBUFFER_SRGB),
    static_cast<GLenum>(GL_MULTISAMPLE),
    static_cast<GLenum>(GL_POLYGON_OFFSET_FILL),
    static_cast<GLenum>(GL_PRIMITIVE_RESTART),
    static_cast<GLenum>(GL_PROGRAM_POINT_SIZE),
    static_cast<GLenum>(GL_RASTERIZER_DISCARD),
    static_cast<GLenum>(GL_SAMPLE_ALPHA_TO_COVERAGE),
    static_cast<GLenum>(GL_SCISSOR_TEST),
    static_cast<GLenum>(GL_STENCIL_TEST),
};

void setInGL(GLenum capability, bool enabled)
{
    if (enabled) {
        glEnable(capability);
    } else {
        glDisable(capability);
    }
}

QString stringOf(GLenum name)
{
    return QString::fromUtf8(reinterpret_cast<const char*>(glGetString(name)));
}

int integerOf(GLenum name)
{
    int value = 0;
    glGetIntegerv(name, &value);
    return value;
}

/// The number of bytes of a UTF-8 text up to a limit, without cutting a character in two.
int cutLength(const char* text, int limit)
{
    const std::string_view view(text);
    if (view.size() <= static_cast<size_t>(limit)) {
        return static_cast<int>(view.size());
    }
    const auto continues = [&](int byte) {
        return (static_cast<unsigned char>(text[byte]) & 0xC0U) == 0x80U;
    };
    while (limit > 0 && continues(limit)) {
        --limit;
    }
    return limit;
}

} // namespace

struct OpenGLDeviceContext::Private
{
    ContextReference reference = ContextReference::make();
    BindingRecord bindings;
    std::array<bool, recordedCapabilities.size()> capabilities{};
    unsigned int frontFace = GL_CCW;
    unsigned int depthFunction = GL_LESS;
    /// Without the "GL_" prefix, sorted.
    std::vector<std::string> extensions;
    int version = 0;
    int maxTextureSize = 0;
    bool hasDebugOutput = false;
    /// The most bytes of a label and of a debug group's name.
    int maxLabelLength = 0;
    int maxMessageLength = 0;
    QString labelPrefix;
    struct Data
    {
        const void* key;
        std::unique_ptr<ContextData> object;
    };
    std::vector<Data> data;

    void readCapabilities();
    bool* capability(GLenum name)
    {
        const auto* found = std::find(recordedCapabilities.begin(), recordedCapabilities.end(), name);
        return found == recordedCapabilities.end()
                   ? nullptr
                   : &capabilities[static_cast<size_t>(std::distance(recordedCapabilities.begin(), found))];
    }
};

void OpenGLDeviceContext::Private::readCapabilities()
{
    constexpr std::string_view prefix = "GL_";
    const int numExtensions = integerOf(GL_NUM_EXTENSIONS);
    for (int i = 0; i < numExtensions; ++i) {
        std::string name(reinterpret_cast<const char*>(glGetStringi(GL_EXTENSIONS, static_cast<GLuint>(i))));
        extensions.push_back(name.starts_with(prefix) ? name.substr(prefix.size()) : name);
    }
    std::sort(extensions.begin(), extensions.end());
    version = 10 * integerOf(GL_MAJOR_VERSION) + integerOf(GL_MINOR_VERSION);
    maxTextureSize = integerOf(GL_MAX_TEXTURE_SIZE);
    hasDebugOutput = version >= 43 || std::binary_search(extensions.begin(), extensions.end(), "KHR_debug");
    if (hasDebugOutput) {
        // Both limits include a final zero.
        maxLabelLength = integerOf(GL_MAX_LABEL_LENGTH) - 1;
        maxMessageLength = integerOf(GL_MAX_DEBUG_MESSAGE_LENGTH) - 1;
    }
}

ContextData::~ContextData() = default;

void ContextData::restoreBindings() {}

OpenGLDeviceContext::OpenGLDeviceContext()
    : d(std::make_unique<Private>())
{
}

OpenGLDeviceContext::~OpenGLDeviceContext()
{
    releaseObjects();
}

void OpenGLDeviceContext::releaseObjects()
{
    // While another context is current, this one's GL objects cannot be deleted. With no current context,
    // their destructors make no GL calls.
    OpenGLDeviceContext* const other = currentContext == this ? nullptr : currentContext;
    if (other) {
        currentContext = nullptr;
    }
    while (!d->data.empty()) {
        d->data.pop_back();
    }
    d->reference.end();
    currentContext = other;
}

ContextData* OpenGLDeviceContext::findData(const void* key) const
{
    const auto found = std::find_if(d->data.begin(), d->data.end(),
                                    [key](const Private::Data& data) { return data.key == key; });
    return found != d->data.end() ? found->object.get() : nullptr;
}

ContextData* OpenGLDeviceContext::addData(const void* key, std::unique_ptr<ContextData> object)
{
    d->data.push_back({key, std::move(object)});
    return d->data.back().object.get();
}

OpenGLDeviceContext* OpenGLDeviceContext::current()
{
    return currentContext;
}

void OpenGLDeviceContext::makeCurrent()
{
    if (currentContext && currentContext != this) {
        currentContext->d->bindings.clear();
    }
    currentContext = this;
    d->reference.callWaiting();
    if (d->version == 0) {
        d->readCapabilities();
    }
    // Otherwise the first pass that checks for errors would take them for its own and fail.
    checkGLError("GL calls of the application", 0);
    restoreAssumedState(*this);
    d->bindings.readFromGL();
    d->frontFace = static_cast<unsigned int>(integerOf(GL_FRONT_FACE));
    d->depthFunction = static_cast<unsigned int>(integerOf(GL_DEPTH_FUNC));
    for (size_t i = 0; i < recordedCapabilities.size(); ++i) {
        d->capabilities[i] = glIsEnabled(recordedCapabilities[i]) == GL_TRUE;
    }
    // By index, because an object may add others.
    for (size_t i = 0; i < d->data.size(); ++i) {
        d->data[i].object->restoreBindings();
    }
}

void OpenGLDeviceContext::doneCurrent()
{
    if (currentContext == this) {
        d->bindings.clear();
        currentContext = nullptr;
    }
}

const ContextReference& OpenGLDeviceContext::reference() const
{
    return d->reference;
}

int OpenGLDeviceContext::version() const
{
    return d->version;
}

bool OpenGLDeviceContext::hasExtension(const char* name) const
{
    std::string_view wanted(name);
    if (wanted.starts_with("GL_")) {
        wanted.remove_prefix(3);
    }
    return std::binary_search(d->extensions.begin(), d->extensions.end(), wanted, std::less<>());
}

int OpenGLDeviceContext::maxTextureSize() const
{
    return d->maxTextureSize;
}

QString OpenGLDeviceContext::renderer() const
{
    return stringOf(GL_RENDERER);
}

QString OpenGLDeviceContext::vendor() const
{
    return stringOf(GL_VENDOR);
}

QString OpenGLDeviceContext::versionString() const
{
    return stringOf(GL_VERSION);
}

QString OpenGLDeviceContext::shadingLanguageVersion() const
{
    return stringOf(GL_SHADING_LANGUAGE_VERSION);
}

void OpenGLDeviceContext::enable(unsigned int capability)
{
    setEnabled(capability, true);
}

void OpenGLDeviceContext::disable(unsigned int capability)
{
    setEnabled(capability, false);
}

void OpenGLDeviceContext::setEnabled(unsigned int capability, bool enabled)
{
    if (bool* record = d->capability(capability)) {
        *record = enabled;
    }
    setInGL(capability, enabled);
}

bool OpenGLDeviceContext::isEnabled(unsigned int capability) const
{
    const bool* record = d->capability(capability);
    return record ? *record : glIsEnabled(capability) == GL_TRUE;
}

void OpenGLDeviceContext::setViewport(int x, int y, int width, int height)
{
    d->bindings.setViewport(QRect(x, y, width, height));
}

QRect OpenGLDeviceContext::viewport() const
{
    return d->bindings.viewport();
}

void OpenGLDeviceContext::setFrontFace(unsigned int winding)
{
    d->frontFace = winding;
    glFrontFace(winding);
}

unsigned int OpenGLDeviceContext::frontFace() const
{
    return d->frontFace;
}

void OpenGLDeviceContext::setDepthFunction(unsigned int function)
{
    d->depthFunction = function;
    glDepthFunc(function);
}

unsigned int OpenGLDeviceContext::depthFunction() const
{
    return d->depthFunction;
}

void OpenGLDeviceContext::bindFramebuffer(unsigned int target, unsigned int name)
{
    d->bindings.bindFramebufferName(target, name);
}

void OpenGLDeviceContext::applyBaseState()
{
    for (size_t i = 0; i < recordedCapabilities.size(); ++i) {
        d->capabilities[i] = recordedCapabilities[i] == GL_MULTISAMPLE;
        setInGL(recordedCapabilities[i], d->capabilities[i]);
    }
    glDepthMask(GL_TRUE);
    setDepthFunction(GL_LESS);
    glDepthRange(0.0, 1.0);
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
    glStencilMask(~0U);
    glStencilFunc(GL_ALWAYS, 0, ~0U);
    glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
    glBlendFunc(GL_ONE, GL_ZERO);
    glBlendEquation(GL_FUNC_ADD);
    glCullFace(GL_BACK);
    glPolygonMode(GL_FRONT_AND_BACK, GL_FILL);
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
    glClearDepth(1.0);
    glClearStencil(0);
    setFrontFace(GL_CCW);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glPixelStorei(GL_PACK_ALIGNMENT, 4);
    glPixelStorei(GL_PACK_ROW_LENGTH, 0);
}

void OpenGLDeviceContext::pushDebugGroup(const char* name)
{
    if (d->hasDebugOutput) {
        glPushDebugGroup(GL_DEBUG_SOURCE_APPLICATION, 0, cutLength(name, d->maxMessageLength), name);
    }
}

void OpenGLDeviceContext::popDebugGroup()
{
    if (d->hasDebugOutput) {
        glPopDebugGroup();
    }
}

void OpenGLDeviceContext::setLabelPrefix(const QString& prefix)
{
    d->labelPrefix = prefix;
}

QString OpenGLDeviceContext::labelPrefix() const
{
    return d->labelPrefix;
}

void OpenGLDeviceContext::label(unsigned int identifier, unsigned int name, const QString& text) const
{
    if (d->hasDebugOutput) {
        const QByteArray full = (d->labelPrefix.isEmpty() ? text : d->labelPrefix + u": "_s + text).toUtf8();
        glObjectLabel(identifier, name, cutLength(full.constData(), d->maxLabelLength), full.constData());
    }
}

BindingRecord& OpenGLDeviceContext::bindings()
{
    return d->bindings;
}

bool hasGLExtension(const char* name)
{
    const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    return context && context->hasExtension(name);
}

} // namespace Morvane::Qel
