#pragma once

#include <QObject>
#include <QSize>
#include <QVector4D>

#include <Qel/gl/Bindable.h>
#include <Qel/gl/ResourceScope.h>

namespace Morvane::Qel {

class BufferObject;

/// A GL texture. Empty until an image is given; the GL name is made on first need and deleted with the
/// object. Not thread-safe; the context in which it was made must be current for every operation, the
/// destructor included.
class QEL_GL_EXPORT Texture : public QObject, public Bindable
{
    Q_OBJECT
public:
    explicit Texture(QObject* parent = nullptr);
    ~Texture() override;

    /// GL target for binding: GL_TEXTURE_2D (the initial one), GL_TEXTURE_CUBE_MAP, GL_TEXTURE_2D_ARRAY,
    /// GL_TEXTURE_BUFFER. Set it before the first bind.
    void setTarget(unsigned int target);
    unsigned int target() const { return m_target; }
    /// The GL name.
    unsigned int textureID();
    /// The unit that the latest bind in force took, -1 while unbound. Sampler uniforms are set to it.
    int unit() const { return m_unit; }
    /// Marks a texture that consumers must not render into.
    void setReadOnly();
    bool isReadOnly() const { return m_readOnly; }

    /// Makes the texture current on the context's next free unit.
    void bind() override;
    void release() override;

    /// \name Images
    /// @{

    /// glTexImage2D of a level of a GL_TEXTURE_2D (or of a face, for cube maps), with the texture bound for
    /// the call. Level 0 sets width, height and internal format. `pixels` may be null.
    void setImage2D(int level, unsigned int internalFormat, int width, int height, unsigned int format,
                    unsigned int type, const void* pixels);
    void setFaceImage(unsigned int face, int level, unsigned int internalFormat, int width, int height,
                      unsigned int format, unsigned int type, const void* pixels);
    /// glTexImage3D of level 0, for GL_TEXTURE_2D_ARRAY.
    void setImage3D(unsigned int internalFormat, int width, int height, int layers, unsigned int format,
                    unsigned int type, const void* pixels);
    /// glTexBuffer: shows a buffer, for GL_TEXTURE_BUFFER, as texels of a sized format. The caller keeps the
    /// buffer; contents that it gets later show too.
    void setBuffer(unsigned int internalFormat, BufferObject* buffer);
    void generateMipmap();
    /// Size of level 0, as far as it was set through this object.
    QSize size() const { return m_size; }
    int layers() const { return m_layers; }
    /// How many mip levels have an image, as far as they were set through this object; 0 without any.
    int levels() const { return m_levels; }
    unsigned int internalFormat() const { return m_internalFormat; }
    /// @}

    /// \name Parameters
    /// Kept as a record, so that setting what is already set costs no GL call and saving and restoring reads
    /// nothing back. Set parameters through here rather than through glTexParameter.
    /// @{

    /// GL_TEXTURE_MIN_FILTER, GL_TEXTURE_MAG_FILTER, GL_TEXTURE_WRAP_S, _T, _R, GL_TEXTURE_MAX_LEVEL.
    void setParameter(unsigned int name, int value);
    int parameter(unsigned int name);
    void setFilter(int minFilter, int magFilter);
    /// All three directions.
    void setWrap(int mode);
    /// What lies outside where a direction wraps by GL_CLAMP_TO_BORDER. Not kept: every call reaches GL.
    void setBorderColor(const QVector4D& color);
    /// @}

    /// A number that no other texture of this process ever had, unlike its GL name.
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

    ResourceScope::Membership m_membership;
    quint64 m_serial;
    unsigned int m_target;
    unsigned int m_name = 0;
    int m_unit = -1;
    bool m_readOnly = false;
    QSize m_size;
    int m_layers = 1;
    int m_levels = 0;
    unsigned int m_internalFormat = 0;
    Parameters m_parameters;
};

} // namespace Morvane::Qel
