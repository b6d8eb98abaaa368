#pragma once

#include <QObject>
#include <QPointer>
#include <QSize>

#include <array>

#include <Qel/gl/Bindable.h>
#include <Qel/gl/ResourceScope.h>

namespace Morvane::Qel {

class Texture;

/// A framebuffer of texture attachments. While bound it is what draws and clears go to; release restores the
/// framebuffer and the viewport that were in force before. It never deletes its textures.
///
/// A detached texture leaves the GL object at the next setDrawBuffers, so that a pass that attaches a pooled
/// texture every frame and gets the same one again changes nothing in GL.
class QEL_GL_EXPORT FramebufferObject : public QObject, public Bindable
{
    Q_OBJECT
public:
    explicit FramebufferObject(QObject* parent = nullptr);
    ~FramebufferObject() override;

    void bind() override;
    void release() override;

    /// Attaches a level of a texture at GL_COLOR_ATTACHMENT0 + k (k below 8), GL_DEPTH_ATTACHMENT,
    /// GL_STENCIL_ATTACHMENT or GL_DEPTH_STENCIL_ATTACHMENT. A null texture detaches; a read-only one is
    /// refused and reported.
    void attach(Texture* texture, unsigned int attachment, int level);
    /// Attaches one layer of an array texture.
    void attach3D(Texture* texture, unsigned int attachment, int layer, int level);
    /// Removes an attachment and returns its texture, null where nothing was attached.
    Texture* detach(unsigned int attachment);
    /// The texture at an attachment, null where nothing is attached.
    Texture* attachment(unsigned int attachment) const;
    bool hasAttachment(unsigned int attachment) const;

    /// Selects all attached colour attachments as draw buffers, in order, and sets the viewport to the size
    /// of the attachments. With the framebuffer bound.
    void setDrawBuffers();
    /// The GL name.
    unsigned int getFBO() const;

private:
    struct Attachment
    {
        QPointer<Texture> texture;
        int level = 0;
        /// -1 for the whole level.
        int layer = -1;
        /// What the GL object holds: the serial of its texture, 0 for none.
        quint64 appliedSerial = 0;
        int appliedLevel = 0;
        int appliedLayer = -1;
    };
    static constexpr size_t numColorAttachments = 8;
    static constexpr size_t depthIndex = numColorAttachments;
    static constexpr size_t stencilIndex = numColorAttachments + 1;

    size_t indexOf(unsigned int attachment) const;
    void attachLayer(Texture* texture, unsigned int attachment, int layer, int level);
    void apply(size_t index);
    void selectDrawBuffers();
    void attachStandIn();
    QSize size() const;

    ResourceScope::Membership m_membership;
    mutable unsigned int m_name = 0;
    unsigned int m_standIn = 0;
    unsigned int m_drawBufferMask;
    std::array<Attachment, numColorAttachments + 2> m_attachments;
};

} // namespace Morvane::Qel
