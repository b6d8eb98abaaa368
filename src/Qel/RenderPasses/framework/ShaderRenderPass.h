#pragma once

#include <QSharedPointer>
#include <QSize>

#include <memory>
#include <vector>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class Texture;

/// Runs user-written GLSL on the full-screen batch or on a geometry input.
///
/// The host declares the ports before the first start, and the pass derives everything from their names:
/// - an input Qel_QelTexture*_X is bound to the sampler "u_X". During the draw it has linear filters (integer
///   formats: nearest ones) and is clamped to its edges. An unconnected input reads transparent black;
/// - an input Qel_QelDrawBuffers*_X is drawn instead of the full-screen batch;
/// - an input of a plain type sets the uniform with the port's full name;
/// - an output Qel_QelTexture*_X receives a pooled texture (RGBA8), written by the fragment output "o_X"; its
///   consumers own its references.
/// The size is that of the input Qel_QRect_Viewport, else of the first connected texture, else 1 x 1.
///
/// GL state: leaves depth test and blending disabled.
class QEL_RENDERPASSES_EXPORT ShaderRenderPass : public RenderPassHelper
{
public:
    /// How the draw is blended into the outputs.
    enum class BlendMode : int
    {
        /// No blending.
        None = 0,
        /// source * (1 - source alpha) + destination * source alpha. Deliberately the reverse of the usual
        /// over operator: the source's alpha says how much of the destination is kept.
        KeepByAlpha = 1,
        /// source + destination.
        Add = 2,
    };

    static const PassDescription& description();

    ShaderRenderPass();
    ~ShaderRenderPass() override;

    /// \name Stage sources
    /// Sources of the program's stages. The program is built on the first start; later changes have no
    /// effect. The default vertex and fragment stages copy the sampler "u_Input". Each other stage is
    /// optional.
    /// @{
    void setVertexShaderSource(const QString& source);
    void setFragmentShaderSource(const QString& source);
    void setGeometryShaderSource(const QString& source);
    void setTessellationControlShaderSource(const QString& source);
    void setTessellationEvaluationShaderSource(const QString& source);
    /// @}

    /// Sets whether start clears the outputs with the current clear colour (on by default). After a change of
    /// size it always does.
    void setClear(bool clear);
    /// Sets how the draw is blended into the outputs (not at all by default).
    void setBlend(BlendMode mode);

    /// Returns the pass's own 1 x 1 transparent black texture, created on the first call.
    Texture* transparentTexture();

    void start(RenderCallbacks* callbacks) override;

    /// Sets the uniforms of the plain-typed inputs. Called by start with the program bound.
    virtual void setUniforms();

private:
    void classifyPorts();
    QSize renderSize();
    void attachTargets();
    void buildProgram();
    void applyBlendMode();
    void drawWithInputs(size_t k);
    void releaseInputs();
    void publishTargets();

    std::unique_ptr<FramebufferObject> m_framebuffer;
    std::unique_ptr<ShaderProgram> m_program;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    std::unique_ptr<Texture> m_transparentTexture;
    QString m_vertexSource;
    QString m_fragmentSource;
    QString m_geometrySource;
    QString m_tessellationControlSource;
    QString m_tessellationEvaluationSource;
    int m_width = 0;
    int m_height = 0;
    bool m_clear = true;
    BlendMode m_blendMode = BlendMode::None;
    std::vector<int> m_textureInputs;
    std::vector<int> m_textureOutputs;
    std::vector<QByteArray> m_uniformNames;
    int m_geometryInput = -1;
    int m_viewportInput = -1;
    std::vector<int> m_plainInputs;
    /// One per input, pointing to its name in m_uniformNames.
    std::vector<Uniform> m_uniforms;
};

} // namespace Morvane::Qel
