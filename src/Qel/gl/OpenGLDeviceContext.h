#pragma once

#include <QHash>
#include <QRect>
#include <QSharedPointer>
#include <QString>

#include <memory>

#include <Qel/gl/Export.h>
#include <Qel/gl/ResourceScope.h>

namespace Morvane::Qel {

class BindingRecord;
class BufferObject;
class DrawBuffers;
class InstanceDataPlan;
class ProgramCache;
class VertexArrayObject;

/// What the GPU services know of one native GL context: its capabilities, what is bound and enabled, and the
/// objects that every pass shares. The application makes its native context current and says so through
/// makeCurrent; GL state that it changes afterwards by its own calls must be told by another makeCurrent.
///
/// Passes switch capabilities and set the viewport through the context rather than through GL, so that the
/// guards can restore from its record. All operations but the constructor need the native context current.
class QEL_GL_EXPORT OpenGLDeviceContext
{
public:
    OpenGLDeviceContext();
    /// Deletes the shared objects; the native context must be current.
    virtual ~OpenGLDeviceContext();
    OpenGLDeviceContext(const OpenGLDeviceContext&) = delete;
    OpenGLDeviceContext& operator=(const OpenGLDeviceContext&) = delete;

    /// The context last made current on this thread, null when there is none.
    static OpenGLDeviceContext* current();

    /// Says that the native context is current on this thread, and reads its state into the record: program,
    /// vertex array, framebuffers, viewport and capabilities. Texture bindings are not kept: the services
    /// bind over what they find and leave nothing bound on the units that they used.
    void makeCurrent();
    /// Says that the native context is no longer current on this thread.
    void doneCurrent();

    /// \name What the context offers
    /// @{

    /// GL version as 10 * major + minor.
    int version() const;
    /// Whether the context exposes an extension; the name with or without the "GL_" in front.
    bool hasExtension(const char* name) const;
    /// Largest width and height of a 2D texture.
    int maxTextureSize() const;
    /// GL_RENDERER, GL_VENDOR, GL_VERSION and GL_SHADING_LANGUAGE_VERSION.
    QString renderer() const;
    QString vendor() const;
    QString versionString() const;
    QString shadingLanguageVersion() const;
    /// @}

    /// \name Recorded state
    /// @{
    void enable(unsigned int capability);
    void disable(unsigned int capability);
    void setEnabled(unsigned int capability, bool enabled);
    bool isEnabled(unsigned int capability) const;
    /// Rectangle in pixels, origin at the lower left, as glViewport takes it.
    void setViewport(int x, int y, int width, int height);
    QRect viewport() const;
    /// GL_CCW, the initial one, or GL_CW.
    void setFrontFace(unsigned int winding);
    unsigned int frontFace() const;
    /// Binds a framebuffer by its GL name, 0 for the default one, to GL_READ_FRAMEBUFFER, GL_DRAW_FRAMEBUFFER
    /// or GL_FRAMEBUFFER, until something else is bound.
    void bindFramebuffer(unsigned int target, unsigned int name);
    /// Sets the state in which a graph starts every pass: depth and colour mask on, tests, blending, culling
    /// and scissor off, stencil mask full, clear colour 0, clear depth 1, default blend function and
    /// equation.
    void applyBaseState();
    /// @}

    /// \name Shared objects
    /// @{

    /// The first full-screen batch: one oversized triangle whose texture coordinates span 0 to 1 across the
    /// viewport, so that no seam runs through the picture and no pixel quad is shaded twice.
    virtual QSharedPointer<DrawBuffers> fullScreenTriangle();
    /// The second full-screen batch: two triangles with corners at exactly 0 and 1, for vertex stages that
    /// interpolate something across the batch.
    virtual QSharedPointer<DrawBuffers> fullScreenQuad();
    /// A buffer for uploading pixels (GL_PIXEL_UNPACK_BUFFER); the context takes it back when the caller
    /// drops it and hands it out again.
    virtual QSharedPointer<BufferObject> pixelTransferBuffer();
    virtual QSharedPointer<VertexArrayObject> createVertexArray();
    /// @}

    /// \name For debuggers
    /// Names shown by tools such as frame debuggers; nothing happens without KHR_debug.
    /// @{
    void pushDebugGroup(const char* name);
    void popDebugGroup();
    /// Prefix of the labels of objects created from now on, such as the name of the pass that runs.
    void setLabelPrefix(const QString& prefix);
    void label(unsigned int identifier, unsigned int name, const QString& text) const;
    /// @}

    /// The scope that objects created now belong to, null when there is none.
    ResourceScope* resourceScope() const;

    /// What is bound; for the classes of this library that are Bindable.
    BindingRecord& bindings();
    /// The programs that are kept for the next build; for ShaderProgram.
    ProgramCache& programCache();

protected:
    /// Deletes the shared objects and ends being current; for destructors of contexts that own their native
    /// one.
    void releaseObjects();

private:
    friend class InstanceDataPlan;
    friend class ResourceScope::Activation;
    void setResourceScope(ResourceScope* scope);
    struct Private;
    std::unique_ptr<Private> d;
    /// The default data of the plans that were used on this context; a shared object like those above.
    QHash<const InstanceDataPlan*, QSharedPointer<BufferObject>> m_defaultInstanceData;
};

/// Whether the current context exposes the named extension, such as "ARB_shader_image_load_store".
QEL_GL_EXPORT bool hasGLExtension(const char* name);

} // namespace Morvane::Qel
