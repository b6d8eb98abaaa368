#pragma once

#include <QRect>
#include <QSharedPointer>
#include <QString>

#include <memory>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

class BindingRecord;
class BufferObject;
class ContextReference;
class DrawBuffers;
class VertexArrayObject;

/// Base of what a class keeps for each context, such as the texture pool; see OpenGLDeviceContext::data.
class QEL_GL_EXPORT ContextData
{
public:
    ContextData() = default;
    virtual ~ContextData();
    ContextData(const ContextData&) = delete;
    ContextData& operator=(const ContextData&) = delete;

    /// Binds again what this object keeps bound. OpenGLDeviceContext::makeCurrent calls it, because GL calls
    /// of the application may have bound something else.
    virtual void restoreBindings();
};

/// The library's view of a native GL context: its capabilities, a record of what is bound and enabled, and
/// the objects that all passes share.
///
/// The application makes its native context current and then calls makeCurrent. If it later changes GL state
/// by calls of its own, it must call makeCurrent again. Passes set capabilities and the viewport through the
/// context rather than through GL, so that guards can restore them from the record. All operations except the
/// constructor and the destructor need the native context current.
///
/// GL objects belong to the context that is current when they are first used. A context is current on one
/// thread at a time; before another thread makes it current or destroys it, call doneCurrent. Several
/// contexts may be used at the same time, each on its own thread.
///
/// After calls to the library, an application must expect other GL state than before. Program and vertex
/// array are restored; so is the framebuffer, but TextureToScreenRenderPass leaves the default one bound. The
/// viewport and what applyBaseState sets have any value. What makeCurrent resets stays reset, except the
/// number of vertices of a patch. The first 48 texture units, the image units, the first 6 binding points of
/// GL_UNIFORM_BUFFER and the binding points of atomic counters may hold objects of the library or none, and
/// so may the targets of glBindBuffer and glBindRenderbuffer. Any texture unit may be active. Nothing else is
/// changed.
class QEL_GL_EXPORT OpenGLDeviceContext
{
public:
    OpenGLDeviceContext();
    /// Deletes the shared objects and all data. If the context is not current, GL deletes its objects
    /// together with the native context. Objects and graphs of the context may be destroyed later.
    virtual ~OpenGLDeviceContext();
    OpenGLDeviceContext(const OpenGLDeviceContext&) = delete;
    OpenGLDeviceContext& operator=(const OpenGLDeviceContext&) = delete;

    /// The context last made current on this thread, null if there is none.
    static OpenGLDeviceContext* current();

    /// Declares the native context current on this thread and brings GL, the record and the library's objects
    /// to agreement, whatever the application did by GL calls:
    /// - Program, vertex array, framebuffers, viewport, winding, depth function and the capabilities that
    ///   applyBaseState sets are read into the record.
    /// - State that passes assume and do not set gets GL's initial value: all other capabilities, points,
    ///   lines, provoking vertex, clip control, patches, current attributes, the hint for derivatives, pixel
    ///   storage and buffers for pixel transfers, the buffer for query results, clamping of reads. Only the
    ///   filtering of cube maps across the edges of their faces is on.
    /// - The first 48 texture units are emptied of textures and sampler objects. The library's uniform blocks
    ///   and the stand-ins for material textures are bound again.
    /// - Textures and framebuffers are brought up to date when they are used next; see Texture and
    ///   FramebufferObject.
    /// - Pending GL errors are reported, as the application's.
    /// - GL objects that were destroyed while the context was not current are deleted.
    ///
    /// The application chooses the framebuffer that passes to the screen draw into, and its draw buffers. It
    /// leaves the contents of the library's buffers, vertex arrays and programs alone, and ends conditional
    /// rendering and transform feedback before it calls the library.
    virtual void makeCurrent();
    /// Declares the native context no longer current on this thread.
    virtual void doneCurrent();
    /// Returns a reference that stays usable when the context is destroyed.
    const ContextReference& reference() const;

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
    /// GL_LESS, the initial value, or another one that glDepthFunc takes.
    void setDepthFunction(unsigned int function);
    unsigned int depthFunction() const;
    /// Binds a framebuffer by its GL name, 0 for the default one, to GL_READ_FRAMEBUFFER, GL_DRAW_FRAMEBUFFER
    /// or GL_FRAMEBUFFER, until something else is bound.
    void bindFramebuffer(unsigned int target, unsigned int name);
    /// Sets the state in which a graph starts every pass: depth and colour mask on; tests, blending, culling
    /// and scissor off; full stencil mask; clear colour 0; clear depth 1; default depth function, blend
    /// function and blend equation.
    void applyBaseState();
    /// @}

    /// \name Shared objects
    /// @{

    /// The first full-screen batch: a single oversized triangle whose texture coordinates run from 0 to 1
    /// across the viewport, so that there is no diagonal seam along which pixels are shaded twice. Its
    /// corners are (-1, -1), (3, -1) and (-1, 3) in clip space, with texture coordinates (0, 0), (2, 0) and
    /// (0, 2).
    virtual QSharedPointer<DrawBuffers> fullScreenTriangle();
    /// The second full-screen batch: a quad of two triangles whose corners are those of the viewport, with
    /// texture coordinates of exactly 0 and 1, for vertex shaders that compute values to be interpolated.
    virtual QSharedPointer<DrawBuffers> fullScreenQuad();
    /// A buffer for pixel uploads (GL_PIXEL_UNPACK_BUFFER). When the caller drops it, the context keeps it
    /// for the next call.
    virtual QSharedPointer<BufferObject> pixelTransferBuffer();
    virtual QSharedPointer<VertexArrayObject> createVertexArray();
    /// @}

    /// \name Debugging aids
    /// Names for tools such as frame debuggers. Without KHR_debug these do nothing. Names that are longer
    /// than the driver allows are cut.
    /// @{
    void pushDebugGroup(const char* name);
    void popDebugGroup();
    /// Sets a prefix, such as the name of the running pass, for the labels of objects created from now on.
    void setLabelPrefix(const QString& prefix);
    QString labelPrefix() const;
    void label(unsigned int identifier, unsigned int name, const QString& text) const;
    /// @}

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
    ContextData* findData(const void* key) const;
    ContextData* addData(const void* key, std::unique_ptr<ContextData> object);
    struct Private;
    std::unique_ptr<Private> d;
};

/// Whether the current context supports the named extension, such as "ARB_shader_image_load_store".
QEL_GL_EXPORT bool hasGLExtension(const char* name);

} // namespace Morvane::Qel
