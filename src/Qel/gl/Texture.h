#pragma once

#include <QObject>
#include <QSize>
#include <QVector4D>

#include <array>
#include <atomic>
#include <memory>

#include <Qel/gl/Bindable.h>
#include <Qel/gl/ObjectName.h>

namespace Morvane::Qel {

class BufferObject;

/// What framebuffers need to know of a texture that is attached to them. It outlives the texture, which may
/// be destroyed on another thread. Internal to the library.
struct AttachableTexture
{
    quint64 serial;
    QSize size = {};
    /// Whether the image was set through the Texture.
    bool hasOwnImage = false;
    /// The only member that another thread than that of the context may write.
    std::atomic<bool> isDestroyed = false;
};

/// A GL texture, created on first use and deleted with the object; empty until it gets an image. Its context
/// must be current for every call except the destructor (see ObjectName).
///
/// The image may come from this object or from GL calls on textureID(), followed by
/// OpenGLDeviceContext::makeCurrent. In the second case, size, format and parameters are read from GL after
/// every makeCurrent. In the first case this object decides: a parameter that was changed by GL calls is set
/// again after makeCurrent.
class QEL_GL_EXPORT Texture : public QObject, public Bindable
{
    Q_OBJECT
public:
    explicit Texture(QObject* parent = nullptr);
    ~Texture() override;

    /// Sets the GL target: GL_TEXTURE_2D (the default), GL_TEXTURE_CUBE_MAP, GL_TEXTURE_2D_ARRAY or
    /// GL_TEXTURE_BUFFER. Call it before the first bind.
    void setTarget(unsigned int target);
    unsigned int target() const { return m_target; }
    /// Returns the GL name.
    unsigned int textureID() const;
    /// The unit of the latest binding, -1 while unbound; the value for sampler uniforms.
    int unit() const { return m_unit; }
    /// Forbids rendering into the texture.
    void setReadOnly();
    bool isReadOnly() const { return m_readOnly; }

    /// Binds the texture to the context's next free unit.
    void bind() override;
    void release() override;

    /// \name Images
    /// @{

    /// Specifies a mip level of a 2D texture, with parameters as in glTexImage2D. Level 0 sets size and
    /// internal format. Null `pixels` leave the contents undefined.
    void setImage2D(int level, unsigned int internalFormat, int width, int height, unsigned int format,
                    unsigned int type, const void* pixels);
    /// Specifies a mip level of a cube map face (GL_TEXTURE_CUBE_MAP_POSITIVE_X, ...).
    void setFaceImage(unsigned int face, int level, unsigned int internalFormat, int width, int height,
                      unsigned int format, unsigned int type, const void* pixels);
    /// Specifies level 0 of a 2D array texture, with parameters as in glTexImage3D.
    void setImage3D(unsigned int internalFormat, int width, int height, int layers, unsigned int format,
                    unsigned int type, const void* pixels);
    /// Makes a buffer texture read a buffer as texels of a sized format, including later uploads. The caller
    /// keeps the buffer alive.
    void setBuffer(unsigned int internalFormat, BufferObject* buffer);
    void generateMipmap();
    /// The size of level 0; empty if it has no image.
    QSize size() const
    {
        image();
        return m_shared->size;
    }
    int layers() const { return image().layers; }
    /// The number of mip levels with an image.
    int levels() const { return image().levels; }
    unsigned int internalFormat() const { return image().internalFormat; }
    /// @}

    /// \name Parameters
    /// Recorded in this object, so that setting an equal value costs no GL call and reading needs no query.
    /// @{

    /// Sets an integer parameter of glTexParameteri: filters, wrap modes, levels, level of detail,
    /// comparison, swizzle, GL_DEPTH_STENCIL_TEXTURE_MODE, GL_TEXTURE_MAX_ANISOTROPY or
    /// GL_TEXTURE_SRGB_DECODE_EXT. Any other is reported and ignored.
    void setParameter(unsigned int name, int value);
    int parameter(unsigned int name) const;
    void setFilter(int minFilter, int magFilter);
    /// Sets the wrap mode of all three directions.
    void setWrap(int mode);
    /// Sets the colour outside the image for GL_CLAMP_TO_BORDER.
    void setBorderColor(const QVector4D& color);
    /// @}

    /// A number that, unlike a GL name, is never reused for another texture of the process.
    quint64 serial() const { return m_shared->serial; }
    const std::shared_ptr<AttachableTexture>& attachable() const { return m_shared; }

    /// Makes GL and this object agree again if makeCurrent was called since the last time. Binding does so
    /// too; this is for classes that bind the texture by its GL name.
    void synchronize() const;

private:
    static constexpr size_t numParameters = 19;
    using Parameters = std::array<int, numParameters>;
    struct Image
    {
        int layers = 1;
        int levels = 0;
        unsigned int internalFormat = 0;
    };
    /// Makes the texture the one that GL calls on the active unit change, for its lifetime.
    class Change;
    const Image& image() const
    {
        if (!m_shared->hasOwnImage) {
            synchronize();
        }
        return m_image;
    }
    int* parameterSlot(unsigned int name) const;
    void synchronizeBound() const;
    void restoreParameters() const;
    void readFromGL() const;

    std::shared_ptr<AttachableTexture> m_shared;
    unsigned int m_target;
    mutable ObjectName m_name{ObjectName::Kind::Texture};
    int m_unit = -1;
    bool m_readOnly = false;
    std::array<float, 4> m_borderColor{};
    // Set through this object or, if GL calls set the image, read from GL when asked for.
    mutable Image m_image;
    mutable Parameters m_parameters;
    /// BindingRecord::generation when GL and this object last agreed.
    mutable quint64 m_generation = 0;
    mutable bool m_isLabelled = false;
};

} // namespace Morvane::Qel
