#include <Qel/gl/Texture.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/MemoryAccount.h>
#include <Qel/gl/OpenGLDeviceContext.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

std::atomic<quint64> lastSerial{0};

/// A parameter that is recorded, with GL's initial value. It is in core GL from a version on and before that
/// in an extension; null if every context has it.
struct Parameter
{
    GLenum name;
    int initial;
    int version = 0;
    const char* extension = nullptr;
};
constexpr int never = 1000;
// Those that passes set in every frame are first, in the order of their names, so that they need no search.
constexpr std::array<Parameter, 19> recorded{{
    {GL_TEXTURE_MAG_FILTER, GL_LINEAR},
    {GL_TEXTURE_MIN_FILTER, GL_NEAREST_MIPMAP_LINEAR},
    {GL_TEXTURE_WRAP_S, GL_REPEAT},
    {GL_TEXTURE_WRAP_T, GL_REPEAT},
    {GL_TEXTURE_WRAP_R, GL_REPEAT},
    {GL_TEXTURE_MAX_LEVEL, 1000},
    {GL_TEXTURE_BASE_LEVEL, 0},
    {GL_TEXTURE_MIN_LOD, -1000},
    {GL_TEXTURE_MAX_LOD, 1000},
    {GL_TEXTURE_LOD_BIAS, 0},
    {GL_TEXTURE_COMPARE_MODE, GL_NONE},
    {GL_TEXTURE_COMPARE_FUNC, GL_LEQUAL},
    {GL_TEXTURE_SWIZZLE_R, GL_RED, 33, "ARB_texture_swizzle"},
    {GL_TEXTURE_SWIZZLE_G, GL_GREEN, 33, "ARB_texture_swizzle"},
    {GL_TEXTURE_SWIZZLE_B, GL_BLUE, 33, "ARB_texture_swizzle"},
    {GL_TEXTURE_SWIZZLE_A, GL_ALPHA, 33, "ARB_texture_swizzle"},
    {GL_DEPTH_STENCIL_TEXTURE_MODE, GL_DEPTH_COMPONENT, 43, "ARB_stencil_texturing"},
    {GL_TEXTURE_MAX_ANISOTROPY, 1, 46, "EXT_texture_filter_anisotropic"},
    {GL_TEXTURE_SRGB_DECODE_EXT, GL_DECODE_EXT, never, "EXT_texture_sRGB_decode"},
}};

constexpr GLenum firstName = GL_TEXTURE_MAG_FILTER;
constexpr size_t numDirect = 4;
static_assert(recorded[numDirect - 1].name == firstName + numDirect - 1);

/// The index of a recorded parameter; recorded.size() if it is not one.
size_t indexOf(GLenum name)
{
    if (name - firstName < numDirect) {
        return name - firstName;
    }
    const auto* found = std::find_if(recorded.begin(), recorded.end(),
                                     [name](const Parameter& parameter) { return parameter.name == name; });
    return static_cast<size_t>(found - recorded.begin());
}

BindingRecord& bindings()
{
    return OpenGLDeviceContext::current()->bindings();
}

/// The number of levels of a complete mip chain.
int numMipLevels(const QSize& size)
{
    return std::bit_width(static_cast<unsigned int>(std::max(size.width(), size.height())));
}

/// Accounts for the texels of a texture.
void account(const Texture& texture)
{
    qint64 numTexels = 0;
    for (int level = 0; level < texture.levels(); ++level) {
        numTexels += qint64{std::max(texture.size().width() >> level, 1)} *
                     std::max(texture.size().height() >> level, 1);
    }
    const int numLayers = texture.target() == GL_TEXTURE_CUBE_MAP ? 6 : texture.layers();
    MemoryAccount::allocated(&texture, numTexels * numLayers * bytesPerTexel(texture.internalFormat()));
}

/// Which of the recorded parameters a context has.
struct SupportedParameters : ContextData
{
    std::array<bool, recorded.size()> flags{};

    SupportedParameters()
    {
        const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
        std::transform(recorded.begin(), recorded.end(), flags.begin(), [=](const Parameter& parameter) {
            return context->version() >= parameter.version || context->hasExtension(parameter.extension);
        });
    }
};

const std::array<bool, recorded.size()>& supportedParameters()
{
    return OpenGLDeviceContext::current()->data<SupportedParameters>().flags;
}

} // namespace

class Texture::Change
{
public:
    explicit Change(const Texture* texture)
        : m_texture(texture)
    {
        bindings().beginTextureChange(m_texture->m_unit, m_texture->m_target, m_texture->textureID());
        m_texture->synchronizeBound();
    }
    ~Change() { bindings().endTextureChange(m_texture->m_unit, m_texture->m_target); }
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

private:
    const Texture* m_texture;
};

Texture::Texture(QObject* parent)
    : QObject(parent)
    , m_shared(std::make_shared<AttachableTexture>())
    , m_target(GL_TEXTURE_2D)
{
    static_assert(recorded.size() == numParameters);
    m_shared->serial = ++lastSerial;
    std::transform(recorded.begin(), recorded.end(), m_parameters.begin(),
                   [](const Parameter& parameter) { return parameter.initial; });
}

Texture::~Texture()
{
    m_shared->isDestroyed = true;
    MemoryAccount::freed(this);
    // GL keeps the storage of a deleted texture as long as a framebuffer holds it.
    m_name.whenCurrent([serial = serial()] { FramebufferObject::forgetTexture(serial); });
    if (m_name.isCurrent()) {
        bindings().forgetTexture(&m_unit, m_target, serial());
    }
}

void Texture::setTarget(unsigned int target)
{
    m_target = target;
}

unsigned int Texture::textureID() const
{
    if (!m_name.exists()) {
        m_generation = bindings().generation();
    }
    return m_name.get();
}

void Texture::setReadOnly()
{
    m_readOnly = true;
}

void Texture::bind()
{
    bindings().bindTexture(&m_unit, m_target, textureID());
    if (m_unit >= 0) {
        synchronizeBound();
    }
}

void Texture::release()
{
    bindings().releaseTexture(&m_unit, m_target);
}

void Texture::synchronize() const
{
    if (m_name.isCurrent() && m_generation != bindings().generation()) {
        const Change change(this);
    }
}

/// Synchronizes the texture, which is bound on the active unit.
void Texture::synchronizeBound() const
{
    if (!m_name.isCurrent()) {
        return; // A texture of another context, so none is bound.
    }
    if (!m_isLabelled) {
        // GL knows the texture only once it has been bound.
        m_isLabelled = true;
        OpenGLDeviceContext::current()->label(GL_TEXTURE, textureID(), u"texture"_s);
    }
    const quint64 generation = bindings().generation();
    if (m_generation == generation) {
        return;
    }
    m_generation = generation;
    if (m_target == GL_TEXTURE_BUFFER) {
        return; // It has no parameters.
    }
    if (m_shared->hasOwnImage) {
        restoreParameters();
    } else {
        readFromGL();
    }
}

void Texture::restoreParameters() const
{
    const auto& isSupported = supportedParameters();
    for (size_t i = 0; i < recorded.size(); ++i) {
        if (isSupported[i]) {
            glTexParameteri(m_target, recorded[i].name, m_parameters[i]);
        }
    }
    glTexParameterfv(m_target, GL_TEXTURE_BORDER_COLOR, m_borderColor.data());
}

void Texture::readFromGL() const
{
    const unsigned int levelTarget =
        m_target == GL_TEXTURE_CUBE_MAP ? GL_TEXTURE_CUBE_MAP_POSITIVE_X : m_target;
    const auto levelParameter = [levelTarget](int level, GLenum name) {
        int value = 0;
        glGetTexLevelParameteriv(levelTarget, level, name, &value);
        return value;
    };
    m_shared->size = {levelParameter(0, GL_TEXTURE_WIDTH), levelParameter(0, GL_TEXTURE_HEIGHT)};
    m_image.layers = std::max(levelParameter(0, GL_TEXTURE_DEPTH), 1);
    m_image.internalFormat = static_cast<unsigned int>(levelParameter(0, GL_TEXTURE_INTERNAL_FORMAT));
    const int numLevels = numMipLevels(m_shared->size);
    for (m_image.levels = 0; m_image.levels < numLevels; ++m_image.levels) {
        if (levelParameter(m_image.levels, GL_TEXTURE_WIDTH) == 0) {
            break;
        }
    }
    const auto& isSupported = supportedParameters();
    for (size_t i = 0; i < recorded.size(); ++i) {
        if (isSupported[i]) {
            glGetTexParameteriv(m_target, recorded[i].name, &m_parameters[i]);
        }
    }
}

void Texture::setImage2D(int level, unsigned int internalFormat, int width, int height, unsigned int format,
                         unsigned int type, const void* pixels)
{
    setFaceImage(m_target, level, internalFormat, width, height, format, type, pixels);
}

void Texture::setFaceImage(unsigned int face, int level, unsigned int internalFormat, int width, int height,
                           unsigned int format, unsigned int type, const void* pixels)
{
    const Change change(this);
    glTexImage2D(face, level, static_cast<int>(internalFormat), width, height, 0, format, type, pixels);
    m_shared->hasOwnImage = true;
    if (level == 0 && (m_shared->size != QSize(width, height) || m_image.internalFormat != internalFormat)) {
        m_shared->size = QSize(width, height);
        m_image = {1, 0, internalFormat};
    }
    m_image.levels = std::max(m_image.levels, level + 1);
    account(*this);
}

void Texture::setImage3D(unsigned int internalFormat, int width, int height, int layers, unsigned int format,
                         unsigned int type, const void* pixels)
{
    const Change change(this);
    glTexImage3D(m_target, 0, static_cast<int>(internalFormat), width, height, layers, 0, format, type,
                 pixels);
    m_shared->hasOwnImage = true;
    m_shared->size = QSize(width, height);
    m_image = {layers, 1, internalFormat};
    account(*this);
}

void Texture::setBuffer(unsigned int internalFormat, BufferObject* buffer)
{
    const Change change(this);
    glTexBuffer(m_target, internalFormat, buffer->getBO());
    m_shared->hasOwnImage = true;
    m_image.internalFormat = internalFormat;
}

void Texture::generateMipmap()
{
    const Change change(this);
    glGenerateMipmap(m_target);
    // Passes do this in every frame.
    if (const int numLevels = numMipLevels(m_shared->size); m_image.levels != numLevels) {
        m_image.levels = numLevels;
        account(*this);
    }
}

int* Texture::parameterSlot(unsigned int name) const
{
    const size_t index = indexOf(name);
    if (index == recorded.size()) {
        logCritical(__FILE__, __LINE__,
                    u"texture parameter 0x%1 is not supported"_s.arg(name, 4, 16, QLatin1Char('0')));
        return nullptr;
    }
    if (!m_shared->hasOwnImage) {
        synchronize();
    }
    return &m_parameters[index];
}

void Texture::setParameter(unsigned int name, int value)
{
    int* slot = parameterSlot(name);
    if (!slot || *slot == value) {
        return;
    }
    *slot = value;
    const Change change(this);
    glTexParameteri(m_target, name, value);
}

int Texture::parameter(unsigned int name) const
{
    const int* slot = parameterSlot(name);
    return slot ? *slot : 0;
}

void Texture::setFilter(int minFilter, int magFilter)
{
    setParameter(GL_TEXTURE_MIN_FILTER, minFilter);
    setParameter(GL_TEXTURE_MAG_FILTER, magFilter);
}

void Texture::setWrap(int mode)
{
    setParameter(GL_TEXTURE_WRAP_S, mode);
    setParameter(GL_TEXTURE_WRAP_T, mode);
    setParameter(GL_TEXTURE_WRAP_R, mode);
}

void Texture::setBorderColor(const QVector4D& color)
{
    m_borderColor = {color.x(), color.y(), color.z(), color.w()};
    const Change change(this);
    glTexParameterfv(m_target, GL_TEXTURE_BORDER_COLOR, m_borderColor.data());
}

} // namespace Morvane::Qel
