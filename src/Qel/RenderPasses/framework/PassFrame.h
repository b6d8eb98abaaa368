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
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

/// What every pass does around its own work: keep GL objects, borrow and publish textures, bind inputs, draw
/// full-screen. The passes of the library are written with it, and so can yours be.
namespace Morvane::Qel {

/// \name Objects made on first use
/// A pass keeps its objects in members, owned (std::unique_ptr) or deliberately never deleted (plain
/// pointers).
/// @{

/// Returns the object that a member points to, and makes it first if the member is null.
template<class Object>
Object& provide(std::unique_ptr<Object>& member)
{
    if (!member) {
        member = std::make_unique<Object>(nullptr);
    }
    return *member;
}

template<class Object>
Object& provide(Object*& member)
{
    if (!member) {
        member = new Object(nullptr);
    }
    return *member;
}
/// @}

/// \name Textures that a pass owns
/// @{

/// Makes a GL_TEXTURE_2D with nearest filtering and level 0 allocated, contents undefined; the caller owns
/// it.
///
/// A negative size becomes 0. A size over the driver's limit is logged and becomes 1 x 1.
QEL_RENDERPASSES_EXPORT Texture* makeTarget(const QSize& size, unsigned int internalFormat,
                                            unsigned int format, unsigned int type);

/// Makes a texture of one texel with nearest filtering, GL_RGBA with 8 bits a channel; the caller owns it.
QEL_RENDERPASSES_EXPORT Texture* makeTexelTexture(const QColor& color);

/// Returns the texture, or the pass's own transparent black texel in place of a missing one. The texel is
/// made on first use.
QEL_RENDERPASSES_EXPORT Texture* orTransparent(Texture* texture, std::unique_ptr<Texture>& fallback);

/// One texture that a pass attaches to its framebuffer, as glTexImage2D takes its formats.
struct TargetDescription
{
    unsigned int attachment;
    unsigned int internalFormat;
    unsigned int format;
    unsigned int type;
};

/// A depth attachment of 32-bit floats.
QEL_RENDERPASSES_EXPORT extern const TargetDescription depthTarget;

/// GL_COLOR_ATTACHMENT0.
constexpr unsigned int firstColorAttachment = 0x8CE0;

/// Whether a pass has textures while its viewport is empty (0 x 0), the size that every pass starts with.
enum class EmptyViewport
{
    NoTextures,
    EmptyTextures
};

/// Replaces attachments of a framebuffer by new textures of a size, made by makeTarget, and deletes the old
/// ones.
QEL_RENDERPASSES_EXPORT void replaceTargets(FramebufferObject& framebuffer, const QSize& size,
                                            std::initializer_list<TargetDescription> targets);

/// Replaces the colour attachments of a list, from GL_COLOR_ATTACHMENT0 on, and the depth attachment behind
/// them (depthTarget) by new textures of a size, and deletes the old ones.
QEL_RENDERPASSES_EXPORT void replaceTargets(FramebufferObject& framebuffer, const QSize& size,
                                            const std::vector<FBOConfig>& attachments);

/// Provides a framebuffer with textures that the pass owns: makes both on first need, and the textures anew
/// when the size of the viewport is no longer width x height, which are then updated. `targets` is what
/// replaceTargets takes. Returns whether textures were made.
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

/// Deletes the texture at an attachment; for destructors of passes that own it. A null framebuffer has none.
QEL_RENDERPASSES_EXPORT void deleteTarget(FramebufferObject* framebuffer, unsigned int attachment);

/// A texture as passes publish it, a QObject*.
QEL_RENDERPASSES_EXPORT QVariant textureVariant(Texture* texture);

/// The texture at an attachment, as passes publish it; a null QObject* when there is none.
QEL_RENDERPASSES_EXPORT QVariant attachedTexture(const FramebufferObject* framebuffer,
                                                 unsigned int attachment);
/// @}

/// \name Textures from the pool
/// @{

/// Publishes a texture: registers one reference for each user of the output and returns the value to put
/// there. The caller's own reference stays. Textures that the pool does not own, and null, are published as
/// they are.
QEL_RENDERPASSES_EXPORT QVariant publishTexture(Texture* texture, int users);

/// A reference to a pooled texture, dropped at the end of the scope.
class QEL_RENDERPASSES_EXPORT PooledTexture
{
public:
    /// Holds nothing.
    PooledTexture() = default;
    /// Takes a texture with linear filters, clamped to its edge, contents undefined; see TextureManager.
    PooledTexture(TextureFormat format, const QSize& size);
    ~PooledTexture();
    PooledTexture(PooledTexture&& other) noexcept;
    PooledTexture& operator=(PooledTexture&& other) noexcept;

    /// Takes a texture of one texel, transparent black, for use in place of a missing input.
    static PooledTexture transparent();

    Texture* get() const { return m_texture; }
    /// Publishes the texture for this many users of an output.
    QVariant publish(int users) const { return publishTexture(m_texture, users); }

private:
    Texture* m_texture = nullptr;
};

/// Binds a framebuffer with a texture at GL_COLOR_ATTACHMENT0 for a scope, selects its draw buffers and sets
/// the viewport to its size. Afterwards the texture is detached, and what was bound before is bound again.
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

/// Attaches a depth texture, with or without stencil, at GL_DEPTH_STENCIL_ATTACHMENT for a scope; null
/// attaches nothing. Make it before the framebuffer is bound as a target.
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

/// A pooled texture to draw into: borrowed, and bound as a target, for a scope.
class PooledTarget
{
public:
    PooledTarget(FramebufferObject& framebuffer, TextureFormat format, const QSize& size)
        : m_texture(format, size)
        , m_target(framebuffer, m_texture.get())
    {
    }

    Texture* get() const { return m_texture.get(); }
    /// Publishes the texture for this many users of an output.
    QVariant publish(int users) const { return m_texture.publish(users); }

private:
    PooledTexture m_texture;
    BoundTarget m_target;
};
/// @}

/// \name Inputs
/// @{

/// Drops one reference of each texture at the end of the scope. A pass makes one of its texture inputs, so
/// that every path through start returns them. Null and textures that the pool does not own are ignored.
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
    /// With the parameters that are set on the texture.
    Own,
    /// The nearest texel of level 0, clamped to the edge.
    Nearest,
    /// The nearest texel of the nearest mip level, clamped to the edge; as Nearest where the texture has no
    /// complete chain of levels.
    NearestMipmap,
    /// The four nearest texels of level 0, blended, clamped to the edge.
    Linear,
    /// As Linear, but repeated in the horizontal direction; for images in latitude and longitude.
    LinearAround,
};

/// Binds a texture for a scope, with the filters and wrap modes that the pass needs, and sets a sampler to
/// its unit. The texture's own parameters are back at the end, so that no pass changes what another one
/// samples.
///
/// Integer formats are sampled at nearest whatever is asked for: with other filters they would be incomplete.
/// For a null texture nothing is bound, and the sampler reads opaque black. The program must be bound.
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
        int wrapR;
    };
    static Parameters parametersOf(Texture& texture);
    static void apply(Texture& texture, const Parameters& parameters);

    Texture* m_texture;
    Parameters m_own{};
};
/// @}

/// \name Full-screen draws
/// @{

/// The vertex stage of full-screen passes: va_Vertex, in clip space, becomes the position and va_TexCoord the
/// varying vo_TexCoord.
QEL_RENDERPASSES_EXPORT extern const QString fullScreenVertexSource;

/// Which full-screen batch a pass draws.
enum class Screen
{
    /// One oversized triangle: no seam, no pixel shaded twice.
    Triangle,
    /// Two triangles with corners at exactly 0 and 1, for vertex stages that interpolate something of their
    /// own.
    Quad
};

/// The sources of a program that draws full-screen.
struct ScreenSources
{
    QString fragment;
    /// A shader file added to the fragment stage, such as "QelUtilities.glslc"; none when empty.
    QString fragmentFile = {};
    QString vertex = fullScreenVertexSource;
    /// The fragment outputs, in the order of the draw buffers; "out_FragColor" alone when empty.
    QStringList outputs = {};
    /// Needed for sources with defines of the pass's own; must live during the call.
    GLSLMacroProcessor* macroProcessor = nullptr;
};

/// Builds a program from full-screen sources. Errors are logged by the program, which then draws nothing.
QEL_RENDERPASSES_EXPORT void buildScreenProgram(ShaderProgram& program, const ScreenSources& sources);

/// Fetches a full-screen batch of the current context unless the member holds one, and enables the arrays
/// that a program reads.
QEL_RENDERPASSES_EXPORT void provideScreenBatch(QSharedPointer<DrawBuffers>& batch,
                                                const ShaderProgram& program, Screen screen);

/// Provides a program and the batch that it draws. Both are made when the program is null.
template<class ProgramMember>
void provideScreenProgram(ProgramMember& program, QSharedPointer<DrawBuffers>& batch,
                          const ScreenSources& sources, Screen screen = Screen::Triangle)
{
    if (!program) {
        buildScreenProgram(provide(program), sources);
        provideScreenBatch(batch, *program, screen);
    }
}

/// Builds a program that has its sources, by binding it once; the program logs what is wrong with them.
QEL_RENDERPASSES_EXPORT void buildProgram(ShaderProgram& program);

/// Enables the arrays that a program reads on a batch's vertex array.
QEL_RENDERPASSES_EXPORT void enableArrays(const QSharedPointer<DrawBuffers>& batch,
                                          const ShaderProgram& program);

/// Draws a batch with its vertex array bound for the call. Returns false when nothing was drawn.
QEL_RENDERPASSES_EXPORT bool drawBatch(const QSharedPointer<DrawBuffers>& batch);
QEL_RENDERPASSES_EXPORT bool drawBatch(DrawBuffers* batch);
/// @}

} // namespace Morvane::Qel
