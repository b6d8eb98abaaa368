#pragma once

#include <QSharedPointer>

#include <array>
#include <memory>

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/ShaderProgram.h>

namespace Morvane::Qel {

class DrawBuffers;
class FramebufferObject;
class Texture;

/// Composites texture A (the source) with texture B (the destination) by one of 26 operators.
///
/// The operators are those of T. Porter and T. Duff (Compositing digital images, 1984), the separable blend
/// modes of the W3C's Compositing and Blending Level 1 in their form for premultiplied colours, and two of
/// this library's own.
///
/// Reads and writes premultiplied RGBA. The output is a pooled texture (RGBA16F) of the viewport's size; its
/// consumers own its references. Inputs of its size are read texel by texel; others are stretched over it and
/// sampled with the filters that are set on them. Nothing is clamped: a sum may exceed 1. Where an operator
/// divides by an alpha of 0 (ColorDodge, ColorBurn and SoftLight over a transparent destination) the result
/// is undefined.
///
/// A viewport whose origin is not (0, 0) shifts the drawing within the output; pixels outside it get the
/// current clear colour. GL state: leaves depth test and blending disabled.
class QEL_RENDERPASSES_EXPORT BlendRenderPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect, pixels.
        Viewport,
        /// Source, premultiplied RGBA.
        FrameA,
        /// Destination, premultiplied RGBA.
        FrameB,
        /// int, a value of BlendMode.
        ModeInput
    };
    enum OutputPort
    {
        /// Premultiplied RGBA16F, pooled.
        Frame
    };

    /// The compositing operators. Any other value yields transparent black.
    enum class BlendMode : int
    {
        Clear = 0,
        Source = 1,
        Destination = 2,
        SourceOver = 3,
        DestinationOver = 4,
        SourceIn = 5,
        DestinationIn = 6,
        SourceOut = 7,
        DestinationOut = 8,
        SourceAtop = 9,
        DestinationAtop = 10,
        Xor = 11,
        /// The plain sum, alpha included.
        Add = 12,
        Multiply = 13,
        Screen = 14,
        /// Compares the destination's premultiplied colour with 0.5, whatever its alpha.
        Overlay = 15,
        Darken = 16,
        Lighten = 17,
        ColorDodge = 18,
        ColorBurn = 19,
        HardLight = 20,
        SoftLight = 21,
        Exclusion = 22,
        Difference = 23,
        /// For opaque inputs, the mean of the source and the inverted destination.
        InvertAndAdd = 24,
        /// The product, alpha included.
        MultiplyKeepAlpha = 25,
    };

    static const PassDescription& description();

    explicit BlendRenderPass(BlendMode mode);
    ~BlendRenderPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    ShaderProgram& provideProgram();

    std::unique_ptr<FramebufferObject> m_framebuffer;
    /// The programs of the operators used so far, by mode; the last is of all values that are no operator.
    std::array<std::unique_ptr<ShaderProgram>, 27> m_programs;
    QSharedPointer<DrawBuffers> m_fullScreenBatch;
    std::unique_ptr<Texture> m_transparentTexture;
    /// The constructor's mode until the input is set, then the input's last value.
    BlendMode m_mode;
    Uniform m_samplerA{"u_SamplerA"};
    Uniform m_samplerB{"u_SamplerB"};
};

} // namespace Morvane::Qel
