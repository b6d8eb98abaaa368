#include <Qel/gl/Texture.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

std::atomic<quint64> lastSerial{0};

} // namespace

Texture::Texture(QObject* parent)
    : QObject(parent)
    , m_serial(++lastSerial)
    , m_target(GL_TEXTURE_2D)
    , m_parameters{GL_NEAREST_MIPMAP_LINEAR, GL_LINEAR, GL_REPEAT, GL_REPEAT, GL_REPEAT, 1000}
{
}

Texture::~Texture()
{
    if (m_name.isCurrent()) {
        OpenGLDeviceContext::current()->bindings().forgetTexture(&m_unit, m_target, m_serial);
    }
}

void Texture::setTarget(unsigned int target)
{
    m_target = target;
}

unsigned int Texture::textureID()
{
    return m_name.get();
}

void Texture::setReadOnly()
{
    m_readOnly = true;
}

void Texture::bind()
{
    const bool isNew = !m_name.exists();
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->bindings().bindTexture(&m_unit, m_target, textureID());
    // GL knows the texture only once it has been bound to a unit.
    if (isNew && m_unit >= 0) {
        context->label(GL_TEXTURE, textureID(), u"texture"_s);
    }
}

void Texture::release()
{
    OpenGLDeviceContext::current()->bindings().releaseTexture(&m_unit, m_target);
}

void Texture::setImage2D(int level, unsigned int internalFormat, int width, int height, unsigned int format,
                         unsigned int type, const void* pixels)
{
    setFaceImage(m_target, level, internalFormat, width, height, format, type, pixels);
}

void Texture::setFaceImage(unsigned int face, int level, unsigned int internalFormat, int width, int height,
                           unsigned int format, unsigned int type, const void* pixels)
{
    const AutoBinder binder(this);
    glTexImage2D(face, level, static_cast<int>(internalFormat), width, height, 0, format, type, pixels);
    if (level == 0 && (m_size != QSize(width, height) || m_internalFormat != internalFormat)) {
        m_size = QSize(width, height);
        m_internalFormat = internalFormat;
        m_levels = 0;
    }
    m_levels = std::max(m_levels, level + 1);
}

void Texture::setImage3D(unsigned int internalFormat, int width, int height, int layers, unsigned int format,
                         unsigned int type, const void* pixels)
{
    const AutoBinder binder(this);
    glTexImage3D(m_target, 0, static_cast<int>(internalFormat), width, height, layers, 0, format, type,
                 pixels);
    m_size = QSize(width, height);
    m_layers = layers;
    m_levels = 1;
    m_internalFormat = internalFormat;
}

void Texture::setBuffer(unsigned int internalFormat, BufferObject* buffer)
{
    const AutoBinder binder(this);
    glTexBuffer(m_target, internalFormat, buffer->getBO());
    m_internalFormat = internalFormat;
}

void Texture::generateMipmap()
{
    const AutoBinder binder(this);
    glGenerateMipmap(m_target);
    m_levels = std::bit_width(static_cast<unsigned int>(std::max(m_size.width(), m_size.height())));
}

int* Texture::parameterSlot(unsigned int name)
{
    switch (name) {
    case GL_TEXTURE_MIN_FILTER:
        return &m_parameters.minFilter;
    case GL_TEXTURE_MAG_FILTER:
        return &m_parameters.magFilter;
    case GL_TEXTURE_WRAP_S:
        return &m_parameters.wrapS;
    case GL_TEXTURE_WRAP_T:
        return &m_parameters.wrapT;
    case GL_TEXTURE_WRAP_R:
        return &m_parameters.wrapR;
    case GL_TEXTURE_MAX_LEVEL:
        return &m_parameters.maxLevel;
    default:
        logCritical(__FILE__, __LINE__,
                    u"texture parameter 0x%1 is not supported"_s.arg(name, 4, 16, QLatin1Char('0')));
        return nullptr;
    }
}

void Texture::setParameter(unsigned int name, int value)
{
    int* slot = parameterSlot(name);
    if (!slot || *slot == value) {
        return;
    }
    *slot = value;
    const AutoBinder binder(this);
    glTexParameteri(m_target, name, value);
}

int Texture::parameter(unsigned int name)
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
    const std::array<float, 4> components{color.x(), color.y(), color.z(), color.w()};
    const AutoBinder binder(this);
    glTexParameterfv(m_target, GL_TEXTURE_BORDER_COLOR, components.data());
}

} // namespace Morvane::Qel
