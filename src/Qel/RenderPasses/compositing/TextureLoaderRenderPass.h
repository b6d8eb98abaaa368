#pragma once

#include <QString>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>

namespace Morvane::Qel {

class Texture;

/// Turns an image file into a texture with mipmaps.
///
/// Reads any format that Qt reads; writes a GL_RGBA texture (8 bits a channel, straight alpha, values as they
/// are in the file) whose first row is the bottom row of the picture. The texture is the pass's own and the
/// same object for the pass's whole life; only its image changes, and only when the path does: a file that
/// changes on disk is not read again. GL's default parameters apply, mipmapped minification and repeat.
///
/// Where the path names no readable image, or one larger than the driver allows, the texture is one opaque
/// white texel and a line on the information channel says why. Qt itself refuses images that take more memory
/// than QImageReader::allocationLimit(). Before a path was ever set, the texture has no image at all.
class QEL_RENDERPASSES_EXPORT TextureLoaderRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        TexturePath
    };
    enum OutputPort
    {
        LoadedTexture
    };

    static const PassDescription& description();

    TextureLoaderRenderPass();
    ~TextureLoaderRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void load(const QString& path);

    std::unique_ptr<Texture> m_texture;
    /// The path that the image was loaded from, also when that failed.
    QString m_path;
};

} // namespace Morvane::Qel
