#include <Qel/gl/FramebufferObject.h>

#include <algorithm>

#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BindingRecord.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// The mask before the first setDrawBuffers.
constexpr unsigned int unsetMask = ~0U;
/// Stands for whatever GL calls may have attached; it differs from every serial and from 0, which means none.
constexpr quint64 unknownSerial = ~quint64(0);

BindingRecord& bindings()
{
    return OpenGLDeviceContext::current()->bindings();
}

unsigned int attachmentPoint(size_t index)
{
    switch (index) {
    case AppliedAttachments::depthIndex:
        return GL_DEPTH_ATTACHMENT;
    case AppliedAttachments::stencilIndex:
        return GL_STENCIL_ATTACHMENT;
    default:
        return GL_COLOR_ATTACHMENT0 + static_cast<unsigned int>(index);
    }
}

} // namespace

Texture* FramebufferObject::Attachment::get() const
{
    return texture && !shared->isDestroyed ? texture : nullptr;
}

/// Whether the texture is also attached in GL. An empty one would make the framebuffer incomplete, and every
/// clear a GL error.
bool FramebufferObject::Attachment::reachesGL() const
{
    if (name == 0 || !get()) {
        return false;
    }
    if (!shared->hasOwnImage) {
        // GL calls of the application may have given it another image.
        texture->synchronize();
    }
    return !shared->size.isEmpty();
}

FramebufferObject::FramebufferObject(QObject* parent)
    : QObject(parent)
    , m_drawBufferMask(unsetMask)
{
}

FramebufferObject::~FramebufferObject()
{
    if (m_name.isCurrent()) {
        bindings().forget(this);
    }
}

void FramebufferObject::bind()
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->bindings().bindFramebuffer(this, getFBO());
    if (!m_isLabelled) {
        m_isLabelled = true;
        context->label(GL_FRAMEBUFFER, getFBO(), u"framebuffer"_s);
    }
    if (m_name.isCurrent() && m_generation != bindings().generation()) {
        restore();
    }
}

/// Sets everything in the GL object again; it must be bound.
void FramebufferObject::restore()
{
    m_generation = bindings().generation();
    for (size_t i = 0; i < m_attachments.size(); ++i) {
        m_applied->points[i].serial = unknownSerial;
        apply(i);
    }
    if (m_drawBufferMask != unsetMask) {
        m_drawBufferMask = unsetMask;
        selectDrawBuffers();
    }
}

void FramebufferObject::release()
{
    bindings().releaseFramebuffer(this);
}

void FramebufferObject::attach(Texture* texture, unsigned int attachment, int level)
{
    attachLayer(texture, attachment, -1, level);
}

void FramebufferObject::attach3D(Texture* texture, unsigned int attachment, int layer, int level)
{
    attachLayer(texture, attachment, layer, level);
}

size_t FramebufferObject::indexOf(unsigned int attachment) const
{
    if (attachment == GL_DEPTH_ATTACHMENT || attachment == GL_DEPTH_STENCIL_ATTACHMENT) {
        return depthIndex;
    }
    if (attachment == GL_STENCIL_ATTACHMENT) {
        return stencilIndex;
    }
    const size_t index = attachment - GL_COLOR_ATTACHMENT0;
    if (index < numColorAttachments) {
        return index;
    }
    logCritical(__FILE__, __LINE__,
                u"0x%1 is not an attachment point; colour attachment 0 is used"_s.arg(attachment, 4, 16,
                                                                                      QLatin1Char('0')));
    return 0;
}

void FramebufferObject::attachLayer(Texture* texture, unsigned int attachment, int layer, int level)
{
    if (!texture) {
        detach(attachment);
        return;
    }
    if (!QEL_CHECK(__FILE__, !texture->isReadOnly(), u"a read-only texture cannot be rendered into"_s)) {
        return;
    }
    const auto set = [&](size_t index) {
        Attachment& slot = m_attachments[index];
        slot.texture = texture;
        if (slot.shared != texture->attachable()) {
            slot.shared = texture->attachable();
        }
        slot.name = texture->textureID();
        slot.level = level;
        slot.layer = layer;
        apply(index);
    };
    set(indexOf(attachment));
    if (attachment != GL_DEPTH_STENCIL_ATTACHMENT) {
        return;
    }
    // GL rejects a depth texture without stencil at the combined point.
    if (formatFromInternalFormat(texture->internalFormat()) == GL_DEPTH_STENCIL) {
        set(stencilIndex);
    } else {
        m_attachments[stencilIndex].texture = nullptr;
    }
}

Texture* FramebufferObject::detach(unsigned int attachment)
{
    Attachment& slot = m_attachments[indexOf(attachment)];
    Texture* texture = slot.get();
    slot.texture = nullptr;
    if (attachment == GL_DEPTH_STENCIL_ATTACHMENT) {
        m_attachments[stencilIndex].texture = nullptr;
    }
    return texture;
}

Texture* FramebufferObject::attachment(unsigned int attachment) const
{
    return m_attachments[indexOf(attachment)].get();
}

bool FramebufferObject::hasAttachment(unsigned int attachment) const
{
    return m_attachments[indexOf(attachment)].get() != nullptr;
}

void FramebufferObject::apply(size_t index)
{
    const Attachment& slot = m_attachments[index];
    AppliedAttachments::Attachment& applied = m_applied->points[index];
    const bool isAttached = slot.reachesGL();
    const quint64 serial = isAttached ? slot.shared->serial : 0;
    if (applied.serial == serial &&
        (!isAttached || (applied.level == slot.level && applied.layer == slot.layer))) {
        return;
    }
    if (m_name.exists() && !m_name.isCurrent()) {
        return;
    }
    applied = {serial, slot.level, slot.layer};

    const unsigned int point = attachmentPoint(index);
    const unsigned int name = isAttached ? slot.name : 0;
    const bool isBound = bindings().isBound(this);
    if (!isBound) {
        glBindFramebuffer(GL_DRAW_FRAMEBUFFER, getFBO());
    }
    if (isAttached && slot.layer >= 0) {
        glFramebufferTextureLayer(GL_DRAW_FRAMEBUFFER, point, name, slot.level, slot.layer);
    } else {
        glFramebufferTexture(GL_DRAW_FRAMEBUFFER, point, name, slot.level);
    }
    if (!isBound) {
        glBindFramebuffer(GL_DRAW_FRAMEBUFFER, bindings().drawFramebuffer());
    }
}

void FramebufferObject::setDrawBuffers()
{
    for (size_t i = 0; i < m_attachments.size(); ++i) {
        apply(i);
    }
    selectDrawBuffers();
    const QSize attachmentSize = size();
    if (!attachmentSize.isEmpty()) {
        bindings().setViewport(QRect(QPoint(0, 0), attachmentSize));
    }
}

void FramebufferObject::selectDrawBuffers()
{
    unsigned int mask = 0;
    for (size_t i = 0; i < numColorAttachments; ++i) {
        mask |= m_applied->points[i].serial != 0 ? 1U << i : 0U;
    }
    if (mask == 0 && m_applied->points[depthIndex].serial == 0) {
        attachPlaceholder();
    } else if (m_placeholder.exists() && (mask & 1U) == 0) {
        // It would limit rendering to one pixel.
        glFramebufferRenderbuffer(GL_DRAW_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, 0);
    }
    if (mask == m_drawBufferMask) {
        return;
    }
    m_drawBufferMask = mask;
    std::array<GLenum, numColorAttachments> buffers{};
    int count = 0;
    for (size_t i = 0; i < numColorAttachments; ++i) {
        const bool attached = (mask >> i & 1U) != 0;
        buffers[i] = attached ? GL_COLOR_ATTACHMENT0 + static_cast<GLenum>(i) : GL_NONE;
        count = attached ? static_cast<int>(i) + 1 : count;
    }
    glDrawBuffers(std::max(count, 1), buffers.data());
    const auto* first = std::find_if(buffers.begin(), buffers.end(), [](GLenum b) { return b != GL_NONE; });
    glReadBuffer(first == buffers.end() ? GL_NONE : *first);
}

void FramebufferObject::attachPlaceholder()
{
    // A framebuffer without attachments is incomplete, and clearing it or drawing into it is a GL error.
    const OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    if (context->version() >= 43 || context->hasExtension("ARB_framebuffer_no_attachments")) {
        glFramebufferParameteri(GL_DRAW_FRAMEBUFFER, GL_FRAMEBUFFER_DEFAULT_WIDTH, context->maxTextureSize());
        glFramebufferParameteri(GL_DRAW_FRAMEBUFFER, GL_FRAMEBUFFER_DEFAULT_HEIGHT,
                                context->maxTextureSize());
        return;
    }
    if (!m_placeholder.exists()) {
        glBindRenderbuffer(GL_RENDERBUFFER, m_placeholder.get());
        glRenderbufferStorage(GL_RENDERBUFFER, GL_RGBA8, 1, 1);
        glBindRenderbuffer(GL_RENDERBUFFER, 0);
    }
    glFramebufferRenderbuffer(GL_DRAW_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER,
                              m_placeholder.get());
}

QSize FramebufferObject::size() const
{
    for (size_t i = 0; i < m_attachments.size(); ++i) {
        const Attachment& slot = m_attachments[i];
        if (m_applied->points[i].serial != 0) {
            const QSize base = slot.shared->size;
            return {std::max(1, base.width() >> slot.level), std::max(1, base.height() >> slot.level)};
        }
    }
    return {};
}

int FramebufferObject::maxColorAttachments()
{
    int attachments = 0;
    int drawBuffers = 0;
    glGetIntegerv(GL_MAX_COLOR_ATTACHMENTS, &attachments);
    glGetIntegerv(GL_MAX_DRAW_BUFFERS, &drawBuffers);
    return std::min({attachments, drawBuffers, static_cast<int>(numColorAttachments)});
}

unsigned int FramebufferObject::getFBO() const
{
    if (!m_name.exists()) {
        m_generation = bindings().generation();
        m_applied->framebuffer = m_name.get();
        bindings().addFramebuffer(m_applied);
    }
    return m_name.get();
}

void FramebufferObject::forgetTexture(quint64 serial)
{
    for (const std::weak_ptr<AppliedAttachments>& known : bindings().framebuffers()) {
        const std::shared_ptr<AppliedAttachments> attachments = known.lock();
        for (size_t i = 0; attachments && i < attachments->points.size(); ++i) {
            if (attachments->points[i].serial != serial) {
                continue;
            }
            attachments->points[i].serial = 0;
            // Not from the record: makeCurrent reads it after it has called what waits.
            int bound = 0;
            glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING, &bound);
            glBindFramebuffer(GL_DRAW_FRAMEBUFFER, attachments->framebuffer);
            glFramebufferTexture(GL_DRAW_FRAMEBUFFER, attachmentPoint(i), 0, 0);
            glBindFramebuffer(GL_DRAW_FRAMEBUFFER, static_cast<unsigned int>(bound));
        }
    }
}

} // namespace Morvane::Qel
