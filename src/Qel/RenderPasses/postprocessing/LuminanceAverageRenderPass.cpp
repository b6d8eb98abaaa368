#include <Qel/RenderPasses/postprocessing/LuminanceAverageRenderPass.h>

#include <QVector2D>

#include <algorithm>
#include <array>
#include <cmath>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/InputPointers.h>
#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

// u_ScreenGamma and the correction by it are deliberately not used: the mean stays linear.
//
// What the box filter does not leave to the driver:
// - A quotient may be wrong in its last places, which would move the borders between blocks by a texel: close
//   to a whole number it is that number.
// - What texelFetch returns outside the texture is undefined: nothing is added there.
// - Mesa's software rasteriser leaves a shader's loops after 65535 turns in all: most texels are added in
//   blocks of 64 a turn. The partial sums also keep what one long sum of floats would lose.
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

// Of the texels from begin on and before end.
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
        u"LuminanceAverageRenderPass"_s,
        u"Averages a frame and reads its mean luminance back."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the frame; the origin must be (0, 0)"_s,
          u"the frame is averaged in one draw"_s,
          {},
          u"pixels"_s},
         {u"Qel_QelTexture*_Texture"_s, u"the frame to measure"_s, u"the mean of transparent black"_s}},
        {{u"Qel_QelTexture*_Frame"_s, u"the mean of every channel, 1 x 1, RGBA32F, owned by the pass"_s},
         {u"Qel_float_averageLuminance"_s, u"the mean luminance, in the frame's units"_s}}};
    return description;
}

LuminanceAverageRenderPass::LuminanceAverageRenderPass()
{
    declarePorts(description());
}

LuminanceAverageRenderPass::~LuminanceAverageRenderPass()
{
    for (const auto& framebuffer : {std::cref(m_reduction), std::cref(m_final)}) {
        if (framebuffer.get()) {
            delete framebuffer.get()->detach(GL_COLOR_ATTACHMENT0);
        }
    }
}

void LuminanceAverageRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QRect viewport = m_inputs[Viewport].value.toRect();
    auto* frame = getInputPointer<Texture>(SourceTexture);
    Texture* source = frame;
    if (!source || sizeOf(source).isEmpty()) {
        if (!m_fallbackTexture) {
            m_fallbackTexture.reset(makeTransparentTexture());
        }
        source = m_fallbackTexture.get();
    }
    const int reducedWidth = viewport.width() / reductionFactor;
    const int reducedHeight = viewport.height() / reductionFactor;
    if (reducedWidth != m_reducedWidth || reducedHeight != m_reducedHeight) {
        resize(reducedWidth, reducedHeight);
    }
    if (!m_final) {
        makeFinalTarget();
    }
    if (!m_program) {
        buildProgram();
    }

    QVector2D renderSize(1.0F, 1.0F);
    Texture* reduced = m_reduction ? m_reduction->attachment(GL_COLOR_ATTACHMENT0) : nullptr;
    if (reduced && !reduced->size().isEmpty() && viewport.height() > 0) {
        // The target is square and the frame is not: with the target's size for a step, texels would count
        // twice or not at all. Steps of a whole number of texels, as many as let the frame fit, make every
        // texel count once; the frame then covers the first `covered` pixels of the target, the last ones of
        // them in part, and the rest of the target is empty. The second draw divides by what is covered.
        const auto side = static_cast<float>(reduced->size().width());
        const float drawnHeight = std::min(side, static_cast<float>(viewport.height()));
        const QSize size = sizeOf(source);
        const auto covered = [](int texels, float pixels) {
            const auto count = static_cast<float>(texels);
            return count / std::ceil(count / pixels);
        };
        const QVector2D coveredSize(covered(size.width(), side), covered(size.height(), drawnHeight));
        draw(source, m_reduction.get(), viewport, coveredSize);
        // No draw reads the smaller levels: deliberate.
        reduced->generateMipmap();
        source = reduced;
        renderSize = QVector2D(side, side) / coveredSize;
    }
    draw(source, m_final.get(), QRect(viewport.topLeft(), QSize(1, 1)), renderSize);

    m_outputs[Frame].value = textureVariant(m_final->attachment(GL_COLOR_ATTACHMENT0));
    m_outputs[AverageLuminance].value = readLuminance();
    TextureManager::Instance()->releaseTempTextureRef(frame, 1);
}

void LuminanceAverageRenderPass::resize(int width, int height)
{
    m_reducedWidth = width;
    m_reducedHeight = height;
    if (!m_reduction) {
        m_reduction = std::make_unique<FramebufferObject>(nullptr);
    }
    // Square, whatever the height: deliberate.
    Texture* target = makeTarget(width, width, GL_RGBA32F, GL_BGRA, GL_FLOAT);
    target->setFilter(GL_LINEAR_MIPMAP_NEAREST, GL_NEAREST);
    if (!target->size().isEmpty()) {
        target->generateMipmap();
    }
    const AutoBinder framebufferBinder(m_reduction.get());
    replaceAttachment(m_reduction.get(), GL_COLOR_ATTACHMENT0, target);
}

void LuminanceAverageRenderPass::makeFinalTarget()
{
    m_final = std::make_unique<FramebufferObject>(nullptr);
    const AutoBinder framebufferBinder(m_final.get());
    m_final->attach(makeTarget(1, 1, GL_RGBA32F, GL_BGRA, GL_FLOAT), GL_COLOR_ATTACHMENT0, 0);
}

void LuminanceAverageRenderPass::buildProgram()
{
    m_program = std::make_unique<ShaderProgram>(nullptr);
    addFullScreenShaders(m_program.get(), fragmentSource);
    m_program->addShaderFromFile(GL_FRAGMENT_SHADER, u"QelUtilities.glslc"_s);
    Qel::buildProgram(m_program.get());
    m_quad = OpenGLDeviceContext::current()->fullScreenQuad();
    enableArrays(m_quad, m_program.get());
}

void LuminanceAverageRenderPass::draw(Texture* source, FramebufferObject* target, const QRect& viewport,
                                      const QVector2D& renderSize)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    const AutoBinder framebufferBinder(target);
    target->setDrawBuffers();
    context->setViewport(viewport.x(), viewport.y(), viewport.width(), viewport.height());
    context->disable(GL_DEPTH_TEST);
    context->disable(GL_BLEND);
    context->disable(GL_CULL_FACE);
    context->disable(GL_STENCIL_TEST);
    glColorMask(GL_TRUE, GL_TRUE, GL_TRUE, GL_TRUE);
    const AutoBinder programBinder(m_program.get());
    const AutoBinder sourceBinder(source);
    m_program->setUniform(m_samplerTexture, source->unit());
    m_program->setUniform(m_renderSize, renderSize);
    drawBatch(m_quad.data());
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
