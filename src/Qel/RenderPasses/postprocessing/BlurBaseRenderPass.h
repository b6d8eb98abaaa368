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
/// standard deviation. Pairs of neighbouring taps are folded into one fetch between the two texels, which
/// linear filtering weights (D. Rakos: Efficient Gaussian blur with linear sampling, 2010).
///
/// Alpha is blurred like the colours, which are taken as premultiplied. Texels with an alpha of 0 are copied
/// instead of blurred.
class QEL_RENDERPASSES_EXPORT BlurBaseRenderPass : public RenderPassHelper
{
public:
    BlurBaseRenderPass();
    ~BlurBaseRenderPass() override;

    /// Rebuilds the kernel from the current radius. Bit-identical on every platform with the same exp.
    void calculateBlurWeights();

    /// Builds a program of the base vertex stage and this fragment stage, with SAMPLES_COUNT defined as the
    /// number of entries of the current kernel. The caller owns the program, which logs its build errors.
    ShaderProgram* makeShaderProgram(const QString& fragmentSource) const;

    /// Returns the base vertex stage, which passes position and texture coordinate through.
    static QString getBaseVertexShaderSource();
    /// Returns the base fragment stage, which blurs "u_Input" along "stepVec" with the kernel "weight" and
    /// "offset", into a target of the input's size.
    static QString getBaseFragmentShaderSource();

protected:
    /// What the program of the base fragment stage blurs.
    enum class BlurredInput
    {
        /// An image of the target's size.
        SameSize,
        /// An image of another size than the target.
        Resized
    };

    /// Rebuilds the kernel and the program of the base fragment stage if the radius has changed, and the
    /// program alone if only `input` has. Returns whether the radius has changed. A radius whose kernel
    /// exceeds the driver's uniforms is reported, and the largest possible one is used.
    bool provideKernel(float radius, BlurredInput input);
    /// Clears the bound target with the current clear colour. Leaves depth test and depth writes disabled.
    static void clearTarget();
    /// Blurs a texture into a target in one direction; `step` is one texel, in texture coordinates. Leaves
    /// depth test and depth writes disabled.
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
    /// The radius that was asked for last; m_blurRadius is smaller if the driver's uniforms cannot hold it.
    float m_requestedRadius = 0.0F;
    BlurredInput m_blurredInput = BlurredInput::SameSize;
    Uniform m_input{"u_Input"};
    Uniform m_targetSize{"u_TargetSize"};
    Uniform m_stepVec{"stepVec"};
    Uniform m_weight{"weight"};
    Uniform m_offset{"offset"};
};

} // namespace Morvane::Qel
