#pragma once

#include <QString>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/RenderPasses/framework/ImageLoader.h>
#include <Qel/core/RenderPassHelper.h>

namespace Morvane::Qel {

class Texture;

/// Loads an image file into a mipmapped texture.
///
/// Reads every format that Qt reads into a GL_RGBA texture (8 bits per channel, straight alpha, values as in
/// the file), and OpenEXR and Radiance HDR files, told by their contents, into a GL_RGBA16F texture with the
/// values of the file, or into a GL_RGBA32F texture if half floats cannot hold all of them exactly. By
/// convention, these values are linear, and alpha of EXR files is premultiplied. A single channel other than
/// R, G, B and A, such as Y or Z, becomes grey. The first row of the texture is the bottom row of the image.
/// The pass owns the texture and publishes the same object for its whole lifetime; a new path only replaces
/// the image. A file that changes on disk is not reloaded. The texture keeps GL's default filters, mipmapped
/// minification, and repeats unless setWrapMode says otherwise.
///
/// If the file cannot be read, or the image is larger than the driver allows, the texture is one opaque white
/// texel, and imageProblem() says why until another path is set. Qt itself refuses images that need more
/// memory than QImageReader::allocationLimit(). Until a path is set, the texture has no image.
class QEL_RENDERPASSES_EXPORT TextureLoaderRenderPass : public RenderPassHelper, public ImageLoader
{
public:
    enum InputPort
    {
        /// QString, path of an image file.
        TexturePath
    };
    enum OutputPort
    {
        /// RGBA8 with straight alpha; RGBA16F or RGBA32F for EXR and HDR files. Owned by the pass.
        LoadedTexture
    };

    /// What texture coordinates outside of 0 to 1 read.
    enum class WrapMode
    {
        Repeat,
        Clamp,
        Mirror
    };

    static const PassDescription& description();

    TextureLoaderRenderPass();
    ~TextureLoaderRenderPass() override;

    /// Sets the wrap mode of the texture (WrapMode::Repeat by default) from the next start on. Passes that
    /// set their own wrap mode on their inputs ignore it.
    void setWrapMode(WrapMode mode);

    void start(RenderCallbacks* callbacks) override;

private:
    void load(Texture& texture, const QString& path);

    WrapMode m_wrapMode = WrapMode::Repeat;
    std::unique_ptr<Texture> m_texture;
    /// The path of the last load, successful or not.
    QString m_path;
};

} // namespace Morvane::Qel
