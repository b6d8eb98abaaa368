#pragma once

#include <QObject>
#include <QSize>

#include <array>
#include <memory>

#include <Qel/gl/Bindable.h>
#include <Qel/gl/ObjectName.h>

namespace Morvane::Qel {

class Texture;
struct AttachableTexture;

/// The attachments of a framebuffer in GL. Internal to the library: a context knows them rather than the
/// framebuffer itself, which may be destroyed on another thread.
struct AppliedAttachments
{
    static constexpr size_t numColorAttachments = 8;
    static constexpr size_t depthIndex = numColorAttachments;
    static constexpr size_t stencilIndex = numColorAttachments + 1;
    static constexpr size_t numPoints = numColorAttachments + 2;
    struct Attachment
    {
        /// That of the texture, 0 if there is none.
        quint64 serial = 0;
        int level = 0;
        int layer = -1;
    };

    unsigned int framebuffer = 0;
    std::array<Attachment, numPoints> points = {};
};

/// A framebuffer with texture attachments, which it does not own. While bound it is the target of draws and
/// clears; release restores the previous framebuffer and viewport.
///
/// A detached texture stays in the GL object until the next setDrawBuffers, so that a pass that gets the same
/// pooled texture in every frame causes no GL calls. One that is deleted leaves it at once.
///
/// Attachments and draw buffers that GL calls changed are set again by the first bind after
/// OpenGLDeviceContext::makeCurrent.
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
    /// Attaches a layer of an array texture.
    void attach3D(Texture* texture, unsigned int attachment, int layer, int level);
    /// Removes an attachment and returns its texture, null if there was none.
    Texture* detach(unsigned int attachment);
    /// Returns the texture at an attachment point, null if there is none.
    Texture* attachment(unsigned int attachment) const;
    bool hasAttachment(unsigned int attachment) const;

    /// Selects all colour attachments as draw buffers, in order, and sets the viewport to the size of the
    /// attachments. The framebuffer must be bound.
    void setDrawBuffers();
    /// Returns the GL name.
    unsigned int getFBO() const;
    /// Returns how many colour attachments the current context can draw into at once, at most 8.
    static int maxColorAttachments();

    /// Removes a texture that is about to be deleted, known by its serial, from all framebuffers of the
    /// current context.
    static void forgetTexture(quint64 serial);

private:
    static constexpr size_t numColorAttachments = AppliedAttachments::numColorAttachments;
    static constexpr size_t depthIndex = AppliedAttachments::depthIndex;
    static constexpr size_t stencilIndex = AppliedAttachments::stencilIndex;
    struct Attachment
    {
        /// Valid as long as `shared` is of a texture that is not destroyed.
        Texture* texture = nullptr;
        std::shared_ptr<const AttachableTexture> shared = {};
        /// The GL name, 0 for a texture of another context.
        unsigned int name = 0;
        int level = 0;
        /// -1 for the whole level.
        int layer = -1;

        /// The texture unless it was destroyed.
        Texture* get() const;
        bool reachesGL() const;
    };

    size_t indexOf(unsigned int attachment) const;
    void attachLayer(Texture* texture, unsigned int attachment, int layer, int level);
    void apply(size_t index);
    void selectDrawBuffers();
    void restore();
    void attachPlaceholder();
    QSize size() const;

    mutable ObjectName m_name{ObjectName::Kind::Framebuffer};
    bool m_isLabelled = false;
    /// BindingRecord::generation when GL and this object last agreed.
    mutable quint64 m_generation = 0;
    /// A renderbuffer for GL versions that cannot render without attachments.
    ObjectName m_placeholder{ObjectName::Kind::Renderbuffer};
    unsigned int m_drawBufferMask;
    std::array<Attachment, AppliedAttachments::numPoints> m_attachments;
    /// Destroyed before the GL name is given back.
    std::shared_ptr<AppliedAttachments> m_applied = std::make_shared<AppliedAttachments>();
};

} // namespace Morvane::Qel
