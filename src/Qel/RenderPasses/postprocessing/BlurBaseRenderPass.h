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

/// The common base of the separable Gaussian blurs: the kernel of the current radius, programs whose uniform
/// arrays have its size, and the draw of one direction. Declares no ports.
///
/// The kernel has taps at whole texels up to about twice the radius on either side; the radius is about one
/// standard deviation. Neighbouring taps are folded into one fetch between two texels, which linear filtering
/// weights (D. Rakos: Efficient Gaussian blur with linear sampling, 2010).
///
/// Alpha is blurred like the colours, which are taken as premultiplied. Texels with an alpha of 0 are copied
/// instead of blurred.
class QEL_RENDERPASSES_EXPORT BlurBaseRenderPass : public RenderPassHelper
{
public:
    BlurBaseRenderPass();
    ~BlurBaseRenderPass() override;

    /// Rebuilds the kernel from the current radius. Equal to the bit on every platform with the same exp.
    void calculateBlurWeights();

    /// Builds a program of the base vertex stage and this fragment stage, with SAMPLES_COUNT defined as the
    /// number of entries of the current kernel. The caller owns the program, which logs its build errors.
    ShaderProgram* makeShaderProgram(const QString& fragmentSource) const;

    /// Passes position and texture coordinate through.
    static QString getBaseVertexShaderSource();
    /// Blurs "u_Input" along "stepVec" with the kernel "weight" and "offset".
    static QString getBaseFragmentShaderSource();

protected:
    /// Provides the kernel and the program of the base fragment stage for a radius. Returns whether they were
    /// rebuilt.
    bool provideKernel(float radius);
    /// Clears the bound target with the current clear colour. Leaves depth test and depth mask off.
    static void clearTarget();
    /// Blurs a texture along a step, one texel in texture coordinates, into a target. Leaves depth test and
    /// depth mask off.
    void drawBlurred(Texture* source, Texture* target, const QVector2D& step);

    std::unique_ptr<FramebufferObject> m_framebuffer;
    /// The program of the base fragment stage.
    std::unique_ptr<ShaderProgram> m_shaderProgram;
    QSharedPointer<DrawBuffers> m_screenQuad;
    /// The radius of the current kernel and programs.
    float m_blurRadius = 0.0F;
    /// The folded kernel: entry 0 is the centre, each other entry applies on both sides. Offsets in texels.
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
