#pragma once

#include <QRect>
#include <QSharedPointer>
#include <QString>

#include <memory>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

class BindingRecord;
class BufferObject;
class DrawBuffers;
class ResourceScope;
class VertexArrayObject;

/// Base of what a class keeps for each context, such as the texture pool; see OpenGLDeviceContext::data.
class QEL_GL_EXPORT ContextData
{
public:
    ContextData() = default;
    virtual ~ContextData();
    ContextData(const ContextData&) = delete;
    ContextData& operator=(const ContextData&) = delete;
};

/// The library's view of a native GL context: its capabilities, a record of what is bound and enabled, and
/// the objects that all passes share.
///
/// The application makes its native context current and then calls makeCurrent. If it later changes GL state
/// by calls of its own, it must call makeCurrent again. Passes set capabilities and the viewport through the
/// context rather than through GL, so that guards can restore them from the record. All operations except the
/// constructor need the native context current.
class QEL_GL_EXPORT OpenGLDeviceContext
{
public:
    OpenGLDeviceContext();
    /// Deletes the shared objects and all data. If the native context is not current, GL deletes its
    /// objects together with it.
    virtual ~OpenGLDeviceContext();
    OpenGLDeviceContext(const OpenGLDeviceContext&) = delete;
    OpenGLDeviceContext& operator=(const OpenGLDeviceContext&) = delete;

    /// The context last made current on this thread, null if there is none.
    static OpenGLDeviceContext* current();

    /// Declares the native context current on this thread and reads its state into the record: program,
    /// vertex array, framebuffers, viewport and capabilities. Texture bindings are not read: the library
    /// binds over what it finds and leaves nothing bound on the units that it used. Enables seamless
    /// filtering of cube maps.
    void makeCurrent();
    /// Declares the native context no longer current on this thread.
    void doneCurrent();

    /// \name Capabilities of the driver
    /// @{

    /// The GL version as 10 * major + minor.
    int version() const;
    /// Whether the context supports an extension, named with or without the "GL_" prefix.
    bool hasExtension(const char* name) const;
    /// The largest width and height of a 2D texture.
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
    /// Sets the viewport in pixels, with the origin at the lower left as for glViewport.
    void setViewport(int x, int y, int width, int height);
    QRect viewport() const;
    /// GL_CCW, the initial value, or GL_CW.
    void setFrontFace(unsigned int winding);
    unsigned int frontFace() const;
    /// Binds a framebuffer by its GL name, 0 for the default one, to GL_READ_FRAMEBUFFER, GL_DRAW_FRAMEBUFFER
    /// or GL_FRAMEBUFFER, until something else is bound.
    void bindFramebuffer(unsigned int target, unsigned int name);
    /// Sets the state in which a graph starts every pass: depth and colour mask on; tests, blending, culling
    /// and scissor off; full stencil mask; clear colour 0; clear depth 1; default blend function and
    /// equation.
    void applyBaseState();
    /// @}

    /// \name Shared objects
    /// @{

    /// The first full-screen batch: a single oversized triangle whose texture coordinates run from 0 to 1
    /// across the viewport, so that there is no diagonal seam along which pixels are shaded twice.
    virtual QSharedPointer<DrawBuffers> fullScreenTriangle();
    /// The second full-screen batch: a quad of two triangles with corners at exactly 0 and 1, for vertex
    /// shaders that compute values to be interpolated across the viewport.
    virtual QSharedPointer<DrawBuffers> fullScreenQuad();
    /// A buffer for pixel uploads (GL_PIXEL_UNPACK_BUFFER). When the caller drops it, the context keeps it
    /// for the next call.
    virtual QSharedPointer<BufferObject> pixelTransferBuffer();
    virtual QSharedPointer<VertexArrayObject> createVertexArray();
    /// @}

    /// \name Debugging aids
    /// Names for tools such as frame debuggers. Without KHR_debug these do nothing.
    /// @{
    void pushDebugGroup(const char* name);
    void popDebugGroup();
    /// Sets a prefix, such as the name of the running pass, for the labels of objects created from now on.
    void setLabelPrefix(const QString& prefix);
    void label(unsigned int identifier, unsigned int name, const QString& text) const;
    /// @}

    /// The scope that new objects belong to, null if there is none.
    ResourceScope* resourceScope() const;

    /// The record of what is bound; for the Bindable classes of this library.
    BindingRecord& bindings();
    /// The object of class T, derived from ContextData, that belongs to this context. It is created by the
    /// first call and deleted together with the context, latest first.
    template<class T>
    T& data()
    {
        // Its address identifies the class.
        static const char key = 0;
        ContextData* found = findData(&key);
        return static_cast<T&>(found ? *found : *addData(&key, std::make_unique<T>()));
    }

protected:
    /// Deletes the shared objects and all data, and stops being current; for destructors of subclasses that
    /// own their native context.
    void releaseObjects();

private:
    friend class ResourceScope;
    void setResourceScope(ResourceScope* scope);
    ContextData* findData(const void* key) const;
    ContextData* addData(const void* key, std::unique_ptr<ContextData> object);
    struct Private;
    std::unique_ptr<Private> d;
};

/// Whether the current context supports the named extension, such as "ARB_shader_image_load_store".
QEL_GL_EXPORT bool hasGLExtension(const char* name);

} // namespace Morvane::Qel
