#pragma once

#include <QString>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>

namespace Morvane::Qel {

class Texture;

/// Loads an image file into a mipmapped texture.
///
/// Reads every format that Qt reads. Writes a GL_RGBA texture (8 bits per channel, straight alpha, values as
/// in the file) whose first row is the bottom row of the image. The pass owns the texture and publishes the
/// same object for its whole lifetime; a new path only replaces the image. A file that changes on disk is not
/// reloaded. The texture keeps GL's default parameters: mipmapped minification and repeat.
///
/// If the file cannot be read, or the image is larger than the driver allows, the texture is one opaque white
/// texel, and an informational message says why. Qt itself refuses images that need more memory than
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
    /// The path of the last load, successful or not.
    QString m_path;
};

} // namespace Morvane::Qel
