#pragma once

#include <QString>

#include <vector>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

class Texture;

/// Formats of pooled textures.
enum class TextureFormat : int
{
    /// GL_RGBA8, which anti-aliasing requires for its edges and weights.
    RGBA8 = 3,
    /// GL_RGBA32F with a full mip chain, for positions.
    RGBA32FMipmapped = 6,
    /// GL_RGBA16F.
    RGBA16F = 7,
    /// GL_DEPTH24_STENCIL8.
    Depth24Stencil8 = 21,
    // For the outputs of user shaders.
    RGBA32F = 101,
    R16F = 102,
    RG16F = 103,
    R32F = 104,
    RG32F = 105,
    R32UI = 106,
    RG32UI = 107,
    RGBA32UI = 108,
    R32I = 109,
    RGBA32I = 110,
};

/// The pool of temporary textures. Every context has its own; the process-wide manager, which has no state,
/// always acts on that of the current context.
///
/// Reference protocol: a producer takes a texture with one reference, adds one for each consumer of the
/// output that publishes it, and releases its own. Each consumer releases one reference of every texture
/// input that it read. At zero the texture is free to be taken again. Null and textures from elsewhere are
/// ignored, so that passes can treat all inputs alike.
class QEL_GL_EXPORT TextureManager
{
public:
    static TextureManager* Instance();

    /// Takes a texture with undefined contents, linear filters and wrap mode GL_CLAMP_TO_EDGE. The caller
    /// holds `count` references; -1 means one. A size below 1 becomes 1; one above the driver's limit is
    /// reported and becomes 1x1.
    Texture* tempTexture(TextureFormat format, int width, int height, int count = -1);
    void addTempTextureRef(Texture* texture, int references);
    void releaseTempTextureRef(Texture* texture, int references);

    /// Ends a frame of the current context and deletes textures that were not taken for several frames.
    /// RenderGraph calls it; hosts without one must call it themselves.
    void endFrame();
    /// Deletes all free textures of the current context.
    void releaseFreeTextures();

    struct Loan
    {
        Texture* texture;
        TextureFormat format;
        int references;
    };
    /// Returns the referenced textures of the current context; empty between frames if all passes follow the
    /// protocol.
    std::vector<Loan> loans() const;
    /// Returns the number of references to textures of the current context.
    int numReferences() const;
    /// Returns the number of textures in the pool for the current context.
    int numTextures() const;

    /// \name Material textures
    /// Slot 0 is the diffuse map, slot 1 the specular map. Shaders sample them with
    /// managedTexture(getMap_Kd(), uv) of "TextureManager.glslh".
    /// @{

    /// Binds a texture to a slot of the current context; null binds the stand-in.
    void bindManagedTexture(int slot, Texture* texture);
    /// Sets the stand-in for missing maps on the current context, also in slots that already hold it. Null,
    /// the default, means opaque white, and so does a texture that was deleted since. Not owned. Returns the
    /// previous one, to be restored after a draw.
    Texture* setManagedTextureStandIn(Texture* texture);
    /// @}

private:
    TextureManager() = default;
    ~TextureManager() = default;
};

} // namespace Morvane::Qel
