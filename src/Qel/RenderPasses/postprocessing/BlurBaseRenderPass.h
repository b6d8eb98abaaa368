#pragma once

#include <QSharedPointer>
#include <QVector>

#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class Texture;

/// What the separable Gaussian blurs share: the kernel of the radius in force, programs whose arrays have its
/// size, and the draw of one direction. Declares no ports.
///
/// The kernel has taps at whole texels up to about twice the radius on either side; a radius is nearly one
/// standard deviation. Neighbouring taps are folded into one fetch that linear filtering weighs (D. Rakos:
/// Efficient Gaussian blur with linear sampling, 2010), so blurred textures need linear filters.
///
/// Alpha is blurred like the colours, which are taken as premultiplied. Texels whose alpha is 0 are not
/// blurred into: they stay as they are.
class QEL_RENDERPASSES_EXPORT BlurBaseRenderPass : public RenderPassHelper
{
public:
    BlurBaseRenderPass();
    ~BlurBaseRenderPass() override;

    /// Rebuilds the kernel from the radius in force. Bit-exact on every platform whose exp is.
    void calculateBlurWeights();

    /// A new program of the base vertex stage and this fragment stage, in which SAMPLES_COUNT is the number
    /// of entries of the kernel in force. The caller owns it. A failure to build is reported by the host.
    ShaderProgram* makeShaderProgram(const QString& fragmentSource) const;

    static QString getBaseVertexShaderSource();
    /// Blurs "u_Input" along "stepVec" with the kernel "weight" and "offset".
    static QString getBaseFragmentShaderSource();

protected:
    /// Makes the framebuffer and takes the screen quad, when that was not done yet.
    void provideDrawObjects();
    /// Makes a texture what the bound framebuffer draws into, and clears it with the clear colour in force.
    /// Leaves depth test and depth mask off.
    void beginDraw(Texture* target);
    /// Draws a texture blurred along a step, in texture coordinates a texel, by the program of the base
    /// fragment stage, which must be bound.
    void drawBlurred(Texture* source, const QVector2D& step);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    /// The program of the base fragment stage.
    std::unique_ptr<ShaderProgram> m_shaderProgram;
    QSharedPointer<DrawBuffers> m_screenQuad;
    /// The radius that the kernel and the programs were built for.
    float m_blurRadius = 0.0F;
    /// The kernel, folded: entry 0 is the centre, the others count once on either side. Offsets in texels.
    QVector<float> m_weights;
    QVector<float> m_offsets;
    QString m_samplesCountDefine;

private:
    Uniform m_input{"u_Input"};
    Uniform m_stepVec{"stepVec"};
    Uniform m_weight{"weight"};
    Uniform m_offset{"offset"};
};

} // namespace Morvane::Qel
