#pragma once

#include <QString>

#include <array>
#include <memory>
#include <unordered_map>

#include <Qel/RenderPasses/Export.h>
#include <Qel/RenderPasses/framework/ImageLoader.h>
#include <Qel/core/RenderPassHelper.h>

namespace Morvane::Qel {

class Texture;

/// Loads six image files into a mipmapped cube map. Keeps every cube map that it has loaded, so that
/// returning to an earlier set of files reads nothing.
///
/// Reads every format that Qt reads into GL_RGBA faces (8 bits per channel, straight alpha, values as in the
/// file). OpenEXR and Radiance HDR files, read as by TextureLoaderRenderPass, make all faces GL_RGBA16F or
/// GL_RGBA32F. Faces are written top row first as GL's cube maps expect, with linear filters and clamped to
/// the edge. The cube maps are owned by the pass and deleted with it.
///
/// If a file cannot be read, or its image is larger than the driver allows, the face is one transparent black
/// texel, and imageProblem() says why for the first such face. Faces must be
/// square and of equal size: others are logged and passed to GL as they are, which reports an error and
/// leaves an incomplete cube map that samples as black.
class QEL_RENDERPASSES_EXPORT CubemapLoaderRenderPass : public RenderPassHelper, public ImageLoader
{
public:
    enum InputPort
    {
        /// QString, path of the image file of the +x (right) face.
        CubemapPathPosX,
        /// QString, path of the image file of the -x (left) face.
        CubemapPathNegX,
        /// QString, path of the image file of the +y (top) face.
        CubemapPathPosY,
        /// QString, path of the image file of the -y (bottom) face.
        CubemapPathNegY,
        /// QString, path of the image file of the +z (back) face.
        CubemapPathPosZ,
        /// QString, path of the image file of the -z (front) face.
        CubemapPathNegZ
    };
    enum OutputPort
    {
        /// GL_TEXTURE_CUBE_MAP, RGBA8 with straight alpha; RGBA16F or RGBA32F with an EXR or HDR file. Owned
        /// by the pass.
        Cubemap
    };

    static const PassDescription& description();

    CubemapLoaderRenderPass();
    ~CubemapLoaderRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    /// One path per face, in the order of the inputs.
    using Paths = std::array<QString, 6>;
    static QString key(const Paths& paths);
    struct LoadedCubemap
    {
        std::unique_ptr<Texture> texture;
        QString problem;
    };
    static LoadedCubemap build(const Paths& paths);

    Texture* m_current = nullptr;
    /// The files of the current cube map.
    Paths m_paths;
    std::unordered_map<QString, LoadedCubemap> m_cubemaps;
};

} // namespace Morvane::Qel
