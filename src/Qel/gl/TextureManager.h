#pragma once

#include <QString>

#include <vector>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

class Texture;

/// Formats of pooled textures.
enum class TextureFormat : int
{
    /// GL_RGBA8. Anti-aliasing needs its edge and weight targets in 8 bits.
    RGBA8 = 3,
    /// GL_RGBA32F with its whole mip chain allocated; for positions.
    RGBA32FMipmapped = 6,
    /// GL_RGBA16F.
    RGBA16F = 7,
    /// GL_DEPTH24_STENCIL8.
    Depth24Stencil8 = 21,
};

/// The pool of temporary textures, one a process, its textures kept apart by context.
///
/// Reference protocol: a producer takes a texture with one reference, adds one reference for every consumer
/// of the output on which it publishes it, and drops its own; every consumer drops one reference of each
/// texture input it read. At zero the texture is free for the next loan. Textures that the pool does not own
/// and null are accepted everywhere and ignored, so that passes treat every input alike.
class QEL_GL_EXPORT TextureManager
{
public:
    static TextureManager* Instance();

    /// A texture of this format and size, with linear filters and clamped to its edge, whose contents are
    /// undefined. A size below 1 becomes 1; one over the driver's limit is logged and becomes 1. `count`
    /// references are held by the caller; -1 stands for one.
    Texture* tempTexture(TextureFormat format, int width, int height, int count = -1);
    void addTempTextureRef(Texture* texture, int references);
    void releaseTempTextureRef(Texture* texture, int references);

    /// Says that a frame of the current context is over; textures that nobody took for some frames are
    /// deleted. RenderGraph calls it; a host that drives passes by hand does so itself.
    void endFrame();
    /// Deletes every free texture of the current context.
    void releaseFreeTextures();

    struct Loan
    {
        Texture* texture;
        TextureFormat format;
        int references;
    };
    /// The textures of the current context that are still referenced; empty when the protocol is kept.
    std::vector<Loan> loans() const;
    /// How many references of the current context's textures are out.
    int numReferences() const;
    /// How many textures the pool holds for the current context.
    int numTextures() const;

    /// \name Textures of materials
    /// Slot 0 is a material's diffuse map, slot 1 its specular map. Shaders read them with
    /// managedTexture(getMap_Kd(), uv) of "TextureManager.glslh".
    /// @{

    /// Puts a texture into a slot of the current context; null puts the stand-in there.
    void bindManagedTexture(int slot, Texture* texture);
    /// What materials sample on the current context where they have no map, at once in the slots that hold
    /// the stand-in; null stands for opaque white, the initial one. Not owned; once it is deleted, white is
    /// back. Returns what it was before, for whoever sets it around a draw.
    Texture* setManagedTextureStandIn(Texture* texture);
    /// @}

private:
    TextureManager();
    ~TextureManager();
};

} // namespace Morvane::Qel
