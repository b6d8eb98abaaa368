#include <Qel/RenderPasses/postprocessing/LuminanceAverageRenderPass.h>

#include <QVector2D>

#include <algorithm>
#include <array>
#include <cmath>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

// Deliberate: u_ScreenGamma is not used; the mean is linear in the values of the frame.
//
// The box filter does not depend on what GL leaves undefined or drivers limit:
// - A quotient may be wrong in its last bits, which would move the border between two blocks by a texel:
//   values close to a whole number are rounded to it.
// - texelFetch is undefined outside the texture: blocks end at its edges.
// - Mesa's software rasteriser leaves the loops of a shader after 65535 iterations in total: most texels are
//   added in blocks of 64 per iteration. Partial sums also lose less precision than one long sum.
const QString fragmentSource = uR"(#version 150
#include "QelUtilities.glslh"
uniform sampler2D u_SamplerTexture;
uniform vec2 u_RenderSize;
uniform float u_ScreenGamma;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

vec4 fetch(ivec2 position)
{
    return texelFetch(u_SamplerTexture, position, 0);
}

vec4 sumOf8(ivec2 p)
{
    return fetch(p) + fetch(p + ivec2(0, 1)) + fetch(p + ivec2(0, 2)) + fetch(p + ivec2(0, 3))
         + fetch(p + ivec2(0, 4)) + fetch(p + ivec2(0, 5)) + fetch(p + ivec2(0, 6)) + fetch(p + ivec2(0, 7));
}

vec4 sumOf8x8(ivec2 p)
{
    return sumOf8(p) + sumOf8(p + ivec2(1, 0)) + sumOf8(p + ivec2(2, 0)) + sumOf8(p + ivec2(3, 0))
         + sumOf8(p + ivec2(4, 0)) + sumOf8(p + ivec2(5, 0)) + sumOf8(p + ivec2(6, 0)) + sumOf8(p + ivec2(7, 0));
}

// The sum of the texels from begin up to, not including, end.
vec4 sumOf(ivec2 begin, ivec2 end)
{
    vec4 sum = vec4(0.0);
    for (int x = begin.x; x < end.x; ++x) {
        vec4 column = vec4(0.0);
        for (int y = begin.y; y < end.y; ++y) {
            column += fetch(ivec2(x, y));
        }
        sum += column;
    }
    return sum;
}

void main()
{
    ivec2 size = textureSize(u_SamplerTexture, 0);
    vec2 stepSize = vec2(size) / u_RenderSize;
    vec2 whole = round(stepSize);
    stepSize = mix(stepSize, whole, lessThan(abs(stepSize - whole), whole * 2e-6));
    ivec2 base = ivec2(vec2(ivec2(gl_FragCoord.xy)) * stepSize);
    ivec2 end = min(base + ivec2(ceil(stepSize)), size);
    ivec2 blocksEnd = base + max(end - base, ivec2(0)) / 8 * 8;

    vec4 sum = vec4(0.0);
    for (int x = base.x; x < blocksEnd.x; x += 8) {
        vec4 column = vec4(0.0);
        for (int y = base.y; y < blocksEnd.y; y += 8) {
            column += sumOf8x8(ivec2(x, y));
        }
        sum += column;
    }
    sum += sumOf(ivec2(base.x, blocksEnd.y), ivec2(blocksEnd.x, end.y));
    sum += sumOf(ivec2(blocksEnd.x, base.y), end);
    out_FragColor = sum / (stepSize.x * stepSize.y);
}
)"_s;

constexpr int reductionFactor = 8;

/// Queries GL for the size of level 0, which the application may have set by its own GL calls.
QSize sizeOf(Texture* texture)
{
    const AutoBinder binder(texture);
    QSize size;
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &size.rwidth());
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &size.rheight());
    return size;
}

} // namespace

const PassDescription& LuminanceAverageRenderPass::description()
{
    static const PassDescription description{
        .type = u"LuminanceAverageRenderPass"_s,
        .summary = u"Averages a frame and reads its mean luminance back to the CPU."_s,
        .inputs = {viewportInput(u"size of the frame; the origin must be (0, 0)"_s,
                                 u"the frame is averaged in one draw"_s),
                   {.name = u"Qel_QelTexture*_Texture"_s,
                    .meaning =
                        u"the frame to measure; linear colour gives luminance, values are used as they are"_s,
                    .whenMissing = u"the mean is transparent black"_s,
                    .encoding = Encoding::Linear}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"the mean of each channel, alpha included, in the frame's encoding; 1 x 1, "
                                "RGBA32F, owned by the pass"_s,
                     .encoding = Encoding::AsInput,
                     .alpha = AlphaMeaning::AsInput,
                     .like = {u"Qel_QelTexture*_Texture"_s}},
                    {.name = u"Qel_float_averageLuminance"_s,
                     .meaning = u"the mean luminance (Rec. 709 weights), in the frame's units"_s}}};
    return description;
}

LuminanceAverageRenderPass::LuminanceAverageRenderPass()
{
    declarePorts(description());
}

LuminanceAverageRenderPass::~LuminanceAverageRenderPass()
{
    deleteTarget(m_reduction.get(), GL_COLOR_ATTACHMENT0);
    deleteTarget(m_final.get(), GL_COLOR_ATTACHMENT0);
}

void LuminanceAverageRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QRect viewport = m_inputs[Viewport].value.toRect();
    auto* frame = getInputPointer<Texture>(SourceTexture);
    const InputReferences inputs(frame);
    Texture* source = frame && !sizeOf(frame).isEmpty() ? frame : orTransparent(nullptr, m_fallbackTexture);
    provideReductionTarget(viewport.width() / reductionFactor, viewport.height() / reductionFactor);
    constexpr QSize onePixel(1, 1);
    provideTargets(m_final, m_finalWidth, m_finalHeight, QRect(QPoint(0, 0), onePixel),
                   {{GL_COLOR_ATTACHMENT0, GL_RGBA32F, GL_BGRA, GL_FLOAT}});
    provideScreenProgram(m_program, m_quad,
                         {.fragment = fragmentSource, .fragmentFile = u"QelUtilities.glslc"_s}, Screen::Quad);

    QVector2D renderSize(1.0F, 1.0F);
    Texture* reduced = m_reduction ? m_reduction->attachment(GL_COLOR_ATTACHMENT0) : nullptr;
    if (reduced && !reduced->size().isEmpty() && viewport.height() > 0) {
        // The target is square, the frame is not. Steps of frame size over target size would not be whole,
        // and texels would count twice or not at all. With the smallest whole step at which the frame fits,
        // each texel counts once. The frame then covers the first `covered` pixels of the target, the last of
        // them partly; the rest is empty. The second draw divides by the covered part.
        const auto side = static_cast<float>(reduced->size().width());
        const float drawnHeight = std::min(side, static_cast<float>(viewport.height()));
        const QSize size = sizeOf(source);
        const auto covered = [](int texels, float pixels) {
            const auto count = static_cast<float>(texels);
            return count / std::ceil(count / pixels);
        };
        const QVector2D coveredSize(covered(size.width(), side), covered(size.height(), drawnHeight));
        draw(source, *m_reduction, viewport, coveredSize);
        // Deliberate: no draw reads the smaller levels.
        reduced->generateMipmap();
        source = reduced;
        renderSize = QVector2D(side, side) / coveredSize;
    }
    draw(source, *m_final, QRect(viewport.topLeft(), onePixel), renderSize);
    m_outputs[Frame].value = attachedTexture(m_final.get(), GL_COLOR_ATTACHMENT0);
    m_outputs[AverageLuminance].value = readLuminance();
}

void LuminanceAverageRenderPass::provideReductionTarget(int width, int height)
{
    if (width == m_reducedWidth && height == m_reducedHeight) {
        return;
    }
    m_reducedWidth = width;
    m_reducedHeight = height;
    // Deliberate: square, whatever the height.
    const QSize size(width, width);
    replaceTargets(provide(m_reduction), size, {{GL_COLOR_ATTACHMENT0, GL_RGBA32F, GL_BGRA, GL_FLOAT}});
    Texture* target = m_reduction->attachment(GL_COLOR_ATTACHMENT0);
    target->setFilter(GL_LINEAR_MIPMAP_NEAREST, GL_NEAREST);
    if (!target->size().isEmpty()) {
        target->generateMipmap();
    }
}

void LuminanceAverageRenderPass::draw(Texture* source, FramebufferObject& target, const QRect& viewport,
                                      const QVector2D& renderSize)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    const AutoBinder framebufferBinder(&target);
    target.setDrawBuffers();
    context->setViewport(viewport.x(), viewport.y(), viewport.width(), viewport.height());
    context->disable(GL_DEPTH_TEST);
    context->disable(GL_BLEND);
    context->disable(GL_CULL_FACE);
    context->disable(GL_STENCIL_TEST);
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
    const AutoBinder programBinder(m_program.get());
    const BoundSampler sampler(*m_program, m_samplerTexture, source, Sampling::Nearest);
    m_program->setUniform(m_renderSize, renderSize);
    drawBatch(m_quad);
}

float LuminanceAverageRenderPass::readLuminance() const
{
    const AutoBinder framebufferBinder(m_final.get());
    std::array<float, 4> mean{};
    glReadPixels(0, 0, 1, 1, GL_RGBA, GL_FLOAT, mean.data());
    return static_cast<float>(0.2126 * static_cast<double>(mean[0]) + 0.7152 * static_cast<double>(mean[1]) +
                              0.0722 * static_cast<double>(mean[2]));
}

} // namespace Morvane::Qel
