#pragma once

#include <QSharedPointer>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class Texture;

/// Shades the material G-buffer of ModelRenderPass by one directional light that stands still relative to the
/// camera, by the Blinn-Phong model (J. F. Blinn: Models of light reflection for computer synthesized
/// pictures, 1977): the picture of ForwardRenderPass, but for normals, which the G-buffer holds at unit
/// length.
///
/// Reads diffuse and specular colours, the latter with the shininess as alpha, and normals in eye space;
/// writes the lit colours in 8 bits, clamped, with the dissolve from the diffuse alpha as alpha. The texture
/// is owned by the pass and is replaced when the size changes. Matrices and depth are not read; that a
/// depth was missing decides what stands in for other missing textures.
///
/// GL state: relies on blending and scissor test being off; leaves the depth test disabled.
///
/// Framebuffer, textures and program are deliberately not deleted with the pass. A graph's resource scope
/// deletes them.
class QEL_RENDERPASSES_EXPORT ModelDeferredPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        ProjectionMatrix,
        CameraMatrix,
        Diffuse,
        Specular,
        Normal,
        Depth
    };
    enum OutputPort
    {
        Frame
    };

    static const PassDescription& description();

    ModelDeferredPass();
    ~ModelDeferredPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    void resize(int width, int height);
    void buildProgram();

    FramebufferObject* m_framebuffer = nullptr;
    ShaderProgram* m_program = nullptr;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    Texture* m_fallback = nullptr;
    int m_width = 0;
    int m_height = 0;
    Uniform m_samplerDiffuse{"u_SamplerDiffuse"};
    Uniform m_samplerSpecular{"u_SamplerSpecular"};
    Uniform m_samplerNormal{"u_SamplerNormal"};
};

} // namespace Morvane::Qel
