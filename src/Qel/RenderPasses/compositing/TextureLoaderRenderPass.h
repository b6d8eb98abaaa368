#pragma once

#include <QString>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>

namespace Morvane::Qel {

class Texture;

/// Loads an image file into a texture with mip levels.
///
/// Reads every format that Qt reads. Writes a GL_RGBA texture (8 bits a channel, straight alpha, values as in
/// the file) whose first row is the bottom row of the image. The pass owns the texture, one object for its
/// whole life: its image is replaced when the path changes. A file that changes on disk is not read again.
/// The texture keeps GL's default parameters: mipmapped minification and repeat.
///
/// If the file cannot be read, or the image is larger than the driver allows, the texture is one opaque white
/// texel, and a line on the information channel says why. Qt itself refuses images that need more memory than
/// QImageReader::allocationLimit(). Until a path is set, the texture has no image.
class QEL_RENDERPASSES_EXPORT TextureLoaderRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QString, path of an image file.
        TexturePath
    };
    enum OutputPort
    {
        /// RGBA8, straight alpha, owned by the pass.
        LoadedTexture
    };

    static const PassDescription& description();

    TextureLoaderRenderPass();
    ~TextureLoaderRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    static void load(Texture& texture, const QString& path);

    std::unique_ptr<Texture> m_texture;
    /// The path loaded last, also if loading failed.
    QString m_path;
};

} // namespace Morvane::Qel
