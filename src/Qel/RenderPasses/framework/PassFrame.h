#pragma once

#include <QColor>
#include <QRect>
#include <QSharedPointer>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <array>
#include <concepts>
#include <initializer_list>
#include <memory>
#include <vector>

#include <Qel/RenderPasses/Export.h>
#include <Qel/RenderPasses/framework/FBOConfig.h>
#include <Qel/RenderPasses/framework/InputPointers.h>
#include <Qel/gl/ContextReference.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ResourceScope.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

/// The building blocks of a pass: GL objects created on first use, textures that the pass owns or borrows
/// from the pool, sampled inputs and full-screen draws. The library's passes use them, and yours can too.
namespace Morvane::Qel {

/// \name Objects created on first use
/// A pass keeps its GL objects in members: a std::unique_ptr if it owns the object, a plain pointer if it
/// deliberately never deletes it. What a pass never deletes is deleted with its graph (ResourceScope).
/// @{

/// Returns the object that a member owns, creating it if the member is null.
template<class Object>
Object& provide(std::unique_ptr<Object>& member)
{
    if (!member) {
        member = std::make_unique<Object>(nullptr);
    }
    return *member;
}

/// Returns the object that a member points to, creating it if the member is null. The pass never deletes it.
template<class Object>
Object& provide(Object*& member)
{
    if (!member) {
        member = new Object(nullptr);
        ResourceScope::leave(member);
    }
    return *member;
}
/// @}

/// \name Textures that a pass owns
/// @{

/// Creates a GL_TEXTURE_2D with nearest filtering whose level 0 is allocated but undefined. The caller owns
/// it.
///
/// A negative width or height becomes 0. A size above the driver's limit is logged and becomes 1 x 1.
QEL_RENDERPASSES_EXPORT Texture* makeTarget(const QSize& size, unsigned int internalFormat,
                                            unsigned int format, unsigned int type);

/// Creates a 1 x 1 texture (GL_RGBA, 8 bits per channel) with nearest filtering. The caller owns it.
QEL_RENDERPASSES_EXPORT Texture* makeTexelTexture(const QColor& color);

/// Returns the texture or, if it is null, the pass's own 1 x 1 transparent black texture, which is created on
/// first use.
QEL_RENDERPASSES_EXPORT Texture* orTransparent(Texture* texture, std::unique_ptr<Texture>& fallback);

/// One render target of a pass: its attachment point and the formats that glTexImage2D takes.
struct TargetDescription
{
    unsigned int attachment;
    unsigned int internalFormat;
    unsigned int format;
    unsigned int type;
};

/// A depth attachment with 32-bit float depth.
QEL_RENDERPASSES_EXPORT extern const TargetDescription depthTarget;

/// GL_COLOR_ATTACHMENT0.
constexpr unsigned int firstColorAttachment = 0x8CE0;

/// Whether a pass creates textures for an empty viewport (0 x 0), which is also the size it starts with.
enum class EmptyViewport
{
    NoTextures,
    EmptyTextures
};

/// Replaces attachments of a framebuffer with new textures of this size (see makeTarget) and deletes the old
/// ones. The pass deletes the last ones (deleteTarget) or leaves them to its graph.
QEL_RENDERPASSES_EXPORT void replaceTargets(FramebufferObject& framebuffer, const QSize& size,
                                            std::initializer_list<TargetDescription> targets);

/// Replaces the listed colour attachments, from GL_COLOR_ATTACHMENT0 on, and the depth attachment
/// (depthTarget) with new textures of this size, and deletes the old ones.
QEL_RENDERPASSES_EXPORT void replaceTargets(FramebufferObject& framebuffer, const QSize& size,
                                            const std::vector<FBOConfig>& attachments);

/// Gives a pass a framebuffer and render targets of its own. The framebuffer is created on first use, the
/// textures whenever the viewport's size differs from width x height, which are then updated. `targets` is
/// passed to replaceTargets. Returns whether textures were created.
template<class FramebufferMember, class Targets = std::initializer_list<TargetDescription>>
bool provideTargets(FramebufferMember& framebuffer, int& width, int& height, const QRect& viewport,
                    const Targets& targets, EmptyViewport empty = EmptyViewport::NoTextures)
{
    FramebufferObject& object = provide(framebuffer);
    const bool isMissing =
        empty == EmptyViewport::EmptyTextures && !object.hasAttachment(firstColorAttachment);
    if (viewport.width() == width && viewport.height() == height && !isMissing) {
        return false;
    }
    width = viewport.width();
    height = viewport.height();
    replaceTargets(object, viewport.size(), targets);
    return true;
}

/// Detaches and deletes the texture at an attachment; for the destructors of passes that own it. A null
/// framebuffer is ignored.
QEL_RENDERPASSES_EXPORT void deleteTarget(FramebufferObject* framebuffer, unsigned int attachment);

/// Returns the output value for a texture, a QVariant that holds it as a QObject*.
QEL_RENDERPASSES_EXPORT QVariant textureVariant(Texture* texture);

/// Returns the output value for the texture at an attachment; a null QObject* if there is none.
QEL_RENDERPASSES_EXPORT QVariant attachedTexture(const FramebufferObject* framebuffer,
                                                 unsigned int attachment);
/// @}

/// \name Textures from the pool
/// @{

/// Adds one pool reference for each user of an output and returns the output's value. The caller keeps its
/// own reference. No references are counted for null and for textures that the pool does not own.
QEL_RENDERPASSES_EXPORT QVariant publishTexture(Texture* texture, int users);

/// Owns one reference to a pooled texture and drops it when destroyed.
class QEL_RENDERPASSES_EXPORT PooledTexture
{
public:
    /// Holds no texture.
    PooledTexture() = default;
    /// Takes a texture from the pool, with linear filtering, clamped to its edges, contents undefined.
    PooledTexture(TextureFormat format, const QSize& size);
    ~PooledTexture();
    PooledTexture(PooledTexture&& other) noexcept;
    PooledTexture& operator=(PooledTexture&& other) noexcept;

    /// Takes a 1 x 1 transparent black texture from the pool, to replace a missing input.
    static PooledTexture transparent();

    Texture* get() const { return m_texture; }
    /// Adds a reference for each user of an output and returns the output's value.
    QVariant publish(int users) const { return publishTexture(m_texture, users); }

private:
    Texture* m_texture = nullptr;
    ContextReference m_context;
};

/// Binds a framebuffer with a texture at GL_COLOR_ATTACHMENT0 for its lifetime, selects the draw buffers and
/// sets the viewport to the texture's size. The destructor detaches the texture and restores the previous
/// framebuffer and viewport.
class QEL_RENDERPASSES_EXPORT BoundTarget
{
public:
    BoundTarget(FramebufferObject& framebuffer, Texture* texture);
    ~BoundTarget();
    BoundTarget(const BoundTarget&) = delete;
    BoundTarget& operator=(const BoundTarget&) = delete;

private:
    AutoBinder m_binder;
    FramebufferObject& m_framebuffer;
};

/// Attaches a depth texture, with or without stencil, at GL_DEPTH_STENCIL_ATTACHMENT for its lifetime; null
/// attaches nothing. Construct it before the framebuffer's BoundTarget or PooledTarget.
class QEL_RENDERPASSES_EXPORT AttachedDepth
{
public:
    AttachedDepth(FramebufferObject& framebuffer, Texture* depth);
    ~AttachedDepth();
    AttachedDepth(const AttachedDepth&) = delete;
    AttachedDepth& operator=(const AttachedDepth&) = delete;

private:
    FramebufferObject& m_framebuffer;
};

/// Takes a texture from the pool and binds it as the render target for its lifetime.
class PooledTarget
{
public:
    PooledTarget(FramebufferObject& framebuffer, TextureFormat format, const QSize& size)
        : m_texture(format, size)
        , m_target(framebuffer, m_texture.get())
    {
    }

    Texture* get() const { return m_texture.get(); }
    /// Adds a reference for each user of an output and returns the output's value.
    QVariant publish(int users) const { return m_texture.publish(users); }

private:
    PooledTexture m_texture;
    BoundTarget m_target;
};
/// @}

/// \name Inputs
/// @{

/// Drops one pool reference of each texture when destroyed. A pass constructs it from its texture inputs, so
/// that every path through start releases them. Null and textures that the pool does not own are ignored.
template<size_t N>
class InputReferences
{
public:
    template<std::convertible_to<Texture*>... Textures>
    explicit InputReferences(Textures... textures)
        : m_textures{textures...}
    {
    }
    ~InputReferences()
    {
        for (Texture* texture : m_textures) {
            TextureManager::Instance()->releaseTempTextureRef(texture, 1);
        }
    }
    InputReferences(const InputReferences&) = delete;
    InputReferences& operator=(const InputReferences&) = delete;

private:
    std::array<Texture*, N> m_textures;
};
template<class... Textures>
InputReferences(Textures...) -> InputReferences<sizeof...(Textures)>;

/// How a pass samples an input.
enum class Sampling
{
    /// With the texture's own parameters.
    Own,
    /// Nearest texel of level 0, clamped to the edge.
    Nearest,
    /// Nearest texel of the nearest mip level, clamped to the edge; of level 0 if the mip chain is
    /// incomplete.
    NearestMipmap,
    /// Bilinear filtering of level 0, clamped to the edge.
    Linear,
    /// For latitude-longitude images: linear minification from level 0, the texture's own magnification,
    /// repeated horizontally and clamped vertically.
    LatLong,
};

/// Returns how to read an input once for every pixel of a viewport: `Nearest` if it has the viewport's size,
/// so that each pixel gets exactly its texel, else `resized`. Filters do not give the texel itself: texture
/// coordinates are rounded, and some 1e-4 of the neighbouring texels gets in.
QEL_RENDERPASSES_EXPORT Sampling texelSampling(const Texture& input, const QSize& viewport, Sampling resized);

/// Binds a texture for its lifetime with the filters and wrap modes that the pass needs, and sets a sampler
/// uniform to its unit. The destructor restores the texture's own parameters, so that no pass affects how
/// another one samples it.
///
/// Integer formats always get nearest filters; with others they would be incomplete. For a null texture
/// nothing is bound, and the sampler reads opaque black. The program must be bound.
class QEL_RENDERPASSES_EXPORT BoundSampler
{
public:
    BoundSampler(ShaderProgram& program, Uniform& sampler, Texture* texture, Sampling sampling);
    ~BoundSampler();
    BoundSampler(const BoundSampler&) = delete;
    BoundSampler& operator=(const BoundSampler&) = delete;

private:
    struct Parameters
    {
        int minFilter;
        int magFilter;
        int wrapS;
        int wrapT;
    };
    static Parameters parametersOf(Texture& texture);
    Parameters parametersFor(Sampling sampling) const;
    static void apply(Texture& texture, const Parameters& parameters);

    Texture* m_texture;
    Parameters m_own{};
};
/// @}

/// \name Full-screen draws
/// @{

/// The vertex stage of full-screen passes. Passes va_Vertex, in clip space, on as the position and
/// va_TexCoord as vo_TexCoord.
QEL_RENDERPASSES_EXPORT extern const QString fullScreenVertexSource;

/// Which full-screen batch a pass draws.
enum class Screen
{
    /// One oversized triangle: no seam and no pixels shaded twice.
    Triangle,
    /// Two triangles with texture coordinates of exactly 0 and 1 at the corners, for vertex stages whose
    /// other outputs must be exact there.
    Quad
};

/// The shader sources of a full-screen program.
struct ScreenSources
{
    QString fragment;
    /// A shader file to add to the fragment stage, such as "QelUtilities.glslc"; none if empty.
    QString fragmentFile = {};
    QString vertex = fullScreenVertexSource;
    /// The fragment outputs, in the order of the draw buffers; "out_FragColor" alone if empty.
    QStringList outputs = {};
    /// Supplies the pass's own defines, if not null. Used only during the call.
    GLSLMacroProcessor* macroProcessor = nullptr;
};

/// Builds a full-screen program. The program logs its build errors; drawing with it then has no effect.
QEL_RENDERPASSES_EXPORT void buildScreenProgram(ShaderProgram& program, const ScreenSources& sources);

/// Takes a full-screen batch from the current context if the member holds none, and enables the arrays that
/// the program reads.
QEL_RENDERPASSES_EXPORT void provideScreenBatch(QSharedPointer<DrawBuffers>& batch,
                                                const ShaderProgram& program, Screen screen);

/// Builds a full-screen program and provides its batch, if the program is null.
template<class ProgramMember>
void provideScreenProgram(ProgramMember& program, QSharedPointer<DrawBuffers>& batch,
                          const ScreenSources& sources, Screen screen = Screen::Triangle)
{
    if (!program) {
        buildScreenProgram(provide(program), sources);
        provideScreenBatch(batch, *program, screen);
    }
}

/// Builds a program from the sources added to it, by binding it once. The program logs its build errors.
QEL_RENDERPASSES_EXPORT void buildProgram(ShaderProgram& program);

/// Enables the arrays that a program reads on the batch's vertex array object.
QEL_RENDERPASSES_EXPORT void enableArrays(const QSharedPointer<DrawBuffers>& batch,
                                          const ShaderProgram& program);

/// Draws a batch with its vertex array object bound for the call. Returns false if nothing was drawn.
QEL_RENDERPASSES_EXPORT bool drawBatch(const QSharedPointer<DrawBuffers>& batch);
/// Draws a batch with its vertex array object bound for the call. Returns false if nothing was drawn.
QEL_RENDERPASSES_EXPORT bool drawBatch(DrawBuffers* batch);
/// @}

} // namespace Morvane::Qel
