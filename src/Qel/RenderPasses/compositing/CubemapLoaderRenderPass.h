#pragma once

#include <QString>

#include <array>
#include <memory>
#include <unordered_map>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>

namespace Morvane::Qel {

class Texture;

/// Turns six image files into a cube map with mipmaps, and keeps every cube map that it made: going back to
/// an earlier set of files reads nothing.
///
/// Reads any format that Qt reads; writes GL_RGBA faces (8 bits a channel, straight alpha), top row first as
/// cube maps want them, with linear filters and clamped to the edge. The cube maps are the pass's own and
/// live as long as it does.
///
/// Where a path names no readable image, or one larger than the driver allows, the face is one transparent
/// black texel; a line on the information channel says why, unless that path did not change. Faces must be
/// square and of one size: others are handed to GL as they are, which reports an error and leaves a cube map
/// that samples as black.
class QEL_RENDERPASSES_EXPORT CubemapLoaderRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        CubemapPathPosX,
        CubemapPathNegX,
        CubemapPathPosY,
        CubemapPathNegY,
        CubemapPathPosZ,
        CubemapPathNegZ
    };
    enum OutputPort
    {
        Cubemap
    };

    static const PassDescription& description();

    CubemapLoaderRenderPass();
    ~CubemapLoaderRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    /// One path a face, in the order of the inputs.
    using Paths = std::array<QString, 6>;
    static QString key(const Paths& paths);
    std::unique_ptr<Texture> build(const Paths& paths) const;

    Texture* m_current = nullptr;
    /// What the current cube map was made from.
    Paths m_paths;
    std::unordered_map<QString, std::unique_ptr<Texture>> m_cubemaps;
};

} // namespace Morvane::Qel
