#pragma once

#include <QHash>
#include <QSharedPointer>
#include <QSize>

#include <memory>
#include <optional>
#include <vector>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>
#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class Texture;

/// Runs user-written GLSL on the full-screen batch, on a geometry input or on a model.
///
/// The host declares the ports before the first start, and the pass derives everything from their names:
/// - an input Qel_QelTexture*_X is bound to the sampler "u_X". During the draw it has linear filters (integer
///   formats: nearest ones) and is clamped to its edges. An unconnected input reads transparent black;
/// - an input Qel_QelDrawBuffers*_X is drawn instead of the full-screen batch;
/// - an input Qel_QelGPUModel*_X draws all batches of the model with their instance and material data.
///   `#instancedata "InstanceInfo"` and `#instancedata "OBJMaterial"` declare the accessors, and the
///   functions of TextureManager.glslh and QelUtilities.glslh are linked in, except in tessellation stages.
///   The model is drawn with a depth buffer of the pass's own, which every frame clears. Such an input yields
///   to one of the previous kind;
/// - an input of a plain type sets the uniform with the port's full name;
/// - an output Qel_QelTexture*_X receives a pooled texture (RGBA8, or see setOutputFormat), written by the
///   fragment output "o_X"; its consumers own its references.
/// The size is that of the input Qel_QRect_Viewport, else of the first connected texture, else 1 x 1. X may
/// contain underscores. There can be as many texture outputs as the driver has colour attachments and draw
/// buffers, at most 8; further ones are reported and stay empty.
///
/// A vertex stage of one's own gets va_Vertex and va_TexCoord of the full-screen batch. The triangle, the
/// default, has the corners (-1, -1), (3, -1) and (-1, 3) in clip space and the texture coordinates (0, 0),
/// (2, 0) and (0, 2): right for values that are linear over the screen, such as vo_TexCoord. The quad has the
/// corners of the viewport and texture coordinates from 0 to 1, for stages that move vertices or compute
/// other values there.
///
/// With tessellation stages, which need OpenGL 4.0 or GL_ARB_tessellation_shader, everything is drawn as
/// patches: of three vertices for triangles, two for lines, one for points.
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

    /// What GL accepts silently although it is probably a mistake.
    struct Notice
    {
        /// The full name of the port; empty if the notice is about the whole pass.
        QString port;
        QString text;
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
    /// Sets whether the full-screen batch is the quad instead of the triangle (off by default). Later than
    /// the first start it has no effect.
    void setFullScreenQuad(bool quad);

    /// Sets the format of a texture output (RGBA8 by default) by its full name. Formats of integers need a
    /// fragment output of the same kind, and are cleared to 0 and never blended. Later than the first start
    /// it has no effect.
    void setOutputFormat(const QString& output, TextureFormat format);
    /// The formats that the option "formats" names.
    static std::optional<TextureFormat> formatFromName(const QString& name);

    /// Returns the pass's own 1 x 1 transparent black texture, created on the first call.
    Texture* transparentTexture();

    void start(RenderCallbacks* callbacks) override;

    /// Sets the uniforms of the plain-typed inputs. Called by start with the program bound.
    virtual void setUniforms();

    /// Returns what the first start found when it compared ports, inputs and shaders: ports without a
    /// uniform, uniforms and samplers of a type that does not suit the port, varyings and outputs that nobody
    /// writes, a missing #version, which start adds, and a missing size. The pass itself logs none of it;
    /// graphs do.
    const std::vector<Notice>& notices() const { return m_notices; }

protected:
    /// Returns the program, for uniforms that a subclass sets in setUniforms; null before the first start.
    ShaderProgram* program() const { return m_program.get(); }

private:
    void classifyPorts();
    void limitOutputs();
    QSize renderSize();
    void attachTargets();
    void buildProgram();
    void addStage(unsigned int stage, const QString& source);
    void checkPorts();
    void applyBlendMode();
    void clearTargets();
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
    bool m_drawsQuad = false;
    std::vector<int> m_textureInputs;
    std::vector<int> m_textureOutputs;
    QHash<QString, TextureFormat> m_formatsByName;
    /// One per texture output.
    std::vector<TextureFormat> m_formats;
    std::vector<QByteArray> m_uniformNames;
    int m_geometryInput = -1;
    int m_modelInput = -1;
    int m_viewportInput = -1;
    std::vector<int> m_plainInputs;
    /// One per input, pointing to its name in m_uniformNames.
    std::vector<Uniform> m_uniforms;
    std::vector<Notice> m_notices;
};

} // namespace Morvane::Qel
