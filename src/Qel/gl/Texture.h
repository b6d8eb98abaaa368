#pragma once

#include <QObject>
#include <QSize>
#include <QVector4D>

#include <Qel/gl/Bindable.h>
#include <Qel/gl/ObjectName.h>

namespace Morvane::Qel {

class BufferObject;

/// A GL texture, created on first use and deleted with the object; empty until it gets an image. Its context
/// must be current for every call except the destructor (see ObjectName).
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
    unsigned int textureID();
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
    /// The size of level 0, as set through this object.
    QSize size() const { return m_size; }
    int layers() const { return m_layers; }
    /// The number of mip levels with an image, as set through this object.
    int levels() const { return m_levels; }
    unsigned int internalFormat() const { return m_internalFormat; }
    /// @}

    /// \name Parameters
    /// Recorded in this object, so that setting an equal value costs no GL call and reading needs no query.
    /// Do not call glTexParameter for them.
    /// @{

    /// Sets GL_TEXTURE_MIN_FILTER, GL_TEXTURE_MAG_FILTER, GL_TEXTURE_WRAP_S, _T, _R or GL_TEXTURE_MAX_LEVEL.
    void setParameter(unsigned int name, int value);
    int parameter(unsigned int name);
    void setFilter(int minFilter, int magFilter);
    /// Sets the wrap mode of all three directions.
    void setWrap(int mode);
    /// Sets the colour outside the image for GL_CLAMP_TO_BORDER. Not recorded: every call reaches GL.
    void setBorderColor(const QVector4D& color);
    /// @}

    /// A number that, unlike a GL name, is never reused for another texture of the process.
    quint64 serial() const { return m_serial; }

private:
    struct Parameters
    {
        int minFilter;
        int magFilter;
        int wrapS;
        int wrapT;
        int wrapR;
        int maxLevel;
    };
    int* parameterSlot(unsigned int name);

    quint64 m_serial;
    unsigned int m_target;
    ObjectName m_name{ObjectName::Kind::Texture};
    int m_unit = -1;
    bool m_readOnly = false;
    QSize m_size;
    int m_layers = 1;
    int m_levels = 0;
    unsigned int m_internalFormat = 0;
    Parameters m_parameters;
};

} // namespace Morvane::Qel
