#include <Qel/RenderPasses/postprocessing/BlurBaseRenderPass.h>

#include <algorithm>
#include <cfloat>
#include <cmath>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/GLSLMacroProcessor.h>

using namespace Qt::StringLiterals;

static_assert(FLT_EVAL_METHOD == 0, "the kernel is defined in single-precision arithmetic");

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/BlurBaseRenderPass";

/// The input at the centre of the pixel. vo_TexCoord is rounded, so a filtered sample there would also get
/// some 1e-4 of neighbours that have no weight, and a transparent texel next to a covered one would count as
/// covered.
const QString centreSource = uR"(vec4 centreTexel()
{
    return texelFetch(u_Input, ivec2(vo_TexCoord * vec2(textureSize(u_Input, 0))), 0);
}
)"_s;
/// The same for inputs of another size than the target, which are filtered.
const QString resizedCentreSource = uR"(uniform ivec2 u_TargetSize;

vec4 centreTexel()
{
    ivec2 size = textureSize(u_Input, 0);
    ivec2 unitsPerTexel = 2 * u_TargetSize;
    ivec2 position = (2 * ivec2(gl_FragCoord.xy) + 1) * size - u_TargetSize;
    ivec2 nearest = ivec2(round(vec2(position) / vec2(unitsPerTexel)));
    ivec2 rest = position - nearest * unitsPerTexel;
    ivec2 a = clamp(nearest, ivec2(0), size - 1);
    ivec2 b = clamp(nearest + sign(rest), ivec2(0), size - 1);
    vec2 f = vec2(abs(rest)) / vec2(unitsPerTexel);
    return mix(mix(texelFetch(u_Input, a, 0), texelFetch(u_Input, ivec2(b.x, a.y), 0), f.x),
               mix(texelFetch(u_Input, ivec2(a.x, b.y), 0), texelFetch(u_Input, b, 0), f.x), f.y);
}
)"_s;

/// Blurs the pixels that are not transparent. Software rasterisers execute both sides of a branch, but leave
/// a loop when none of its pixels needs more. The largest number of steps is hidden from the compiler, which
/// would unroll the loop. This pays off where much of the image is transparent.
const QString mainSource = uR"(
vec4 fast_gaussian_blur(sampler2D s, vec4 centre, vec2 tc, vec2 step)
{
    vec4 sum = centre * weight[0];
#if SAMPLES_COUNT > 1
    int last = centre.a > 0.0 ? SAMPLES_COUNT - 1 : 0;
    int i = 1;
    // A loop that tests first would run once more.
    do {
        vec2 shift = offset[i] * step;
        sum += (texture(s, tc + shift) + texture(s, tc - shift)) * weight[i];
        ++i;
    } while (i <= last);
#endif
    return sum;
}

void main()
{
    vec2 step = stepVec;
    vec4 c = centreTexel();
    vec4 blurred = fast_gaussian_blur(u_Input, c, vo_TexCoord, step);
    o_Output = c.a > 0.0 ? blurred : c;
}
)"_s;

// %1 reads the centre, %2 blurs.
// Deliberate: u_ResolutionDivider is not used, and the output's name is not the one bound to draw buffer 0.
// As the only output it goes there anyway.
const QString fragmentTemplate = uR"(#version 150
uniform sampler2D u_Input;
uniform vec2 stepVec;
uniform float u_ResolutionDivider;
uniform float weight[SAMPLES_COUNT];
uniform float offset[SAMPLES_COUNT];
in vec2 vo_TexCoord;
out vec4 o_Output;

%1%2)"_s;

const QString baseFragmentSource = fragmentTemplate.arg(centreSource, mainSource);
/// For inputs of another size than the target. A separate program, because software rasterisers pay for both
/// sides of a branch.
const QString resizingFragmentSource = fragmentTemplate.arg(resizedCentreSource, mainSource);

/// Limits the kernel, so that its construction ends for an infinite radius. No driver accepts uniform arrays
/// of this size anyway.
constexpr float largestRadius = 16384.0F;

/// The largest radius whose kernel the current driver's uniforms hold. Every element of both arrays may take
/// the four components of a vector; some are left to the other uniforms.
float maxBlurRadius()
{
    constexpr int componentsOfOthers = 64;
    constexpr int componentsPerSample = 8;
    int numComponents = 0;
    glGetIntegerv(GL_MAX_FRAGMENT_UNIFORM_COMPONENTS, &numComponents);
    // A radius r needs at most r + 2 samples.
    const int limit = (numComponents - componentsOfOthers) / componentsPerSample - 2;
    return std::min(static_cast<float>(limit), largestRadius);
}

struct Kernel
{
    QVector<float> weights;
    QVector<float> offsets;
};

/// Returns the centre tap and those on one side of it, at whole texels, normalised over both sides. Their
/// number is odd.
Kernel sampleGaussian(float radius)
{
    constexpr double squareRootOf2Pi = 2.5066282746310002;
    const float sigma = radius + 0.0001F;
    const float limit = radius * 2.0F;
    const double norm = 1.0 / (static_cast<double>(sigma) * squareRootOf2Pi);
    const auto denominator = static_cast<double>(sigma * (sigma + sigma));

    Kernel kernel;
    float x = 0.0F;
    float sum = 0.0F;
    // Written so that a NaN limit ends the loop.
    while (x < limit || static_cast<int>(x) % 2 == 0) {
        const auto wideX = static_cast<double>(x);
        const auto exponent = static_cast<float>((0.0 - wideX * wideX) / denominator);
        const auto g = static_cast<float>(std::exp(static_cast<double>(exponent)) * norm);
        kernel.weights.append(g);
        kernel.offsets.append(x);
        const auto wideG = static_cast<double>(g);
        sum = x == 0.0F ? g : static_cast<float>(static_cast<double>(sum) + wideG + wideG);
        x += 1.0F;
    }
    for (float& weight : kernel.weights) {
        weight /= sum;
    }
    return kernel;
}

/// Replaces taps 2i - 1 and 2i with one between them, where linear filtering weights both texels.
Kernel foldTaps(const Kernel& taps)
{
    const auto numTaps = static_cast<float>(taps.weights.size());
    Kernel folded{{taps.weights[0]}, {0.0F}};
    for (int i = 1; static_cast<float>(i) < numTaps * 0.5F; ++i) {
        const auto o = static_cast<float>(2 * i - 1);
        const float w1 = taps.weights[2 * i - 1];
        const float w2 = taps.weights[2 * i];
        const float s = w1 + w2;
        folded.weights.append(s);
        folded.offsets.append((w2 * (o + 1.0F) + w1 * o) / s);
    }
    return folded;
}

} // namespace

BlurBaseRenderPass::BlurBaseRenderPass()
    : m_samplesCountDefine(u"SAMPLES_COUNT"_s)
{
}

BlurBaseRenderPass::~BlurBaseRenderPass() = default;

void BlurBaseRenderPass::calculateBlurWeights()
{
    if (m_blurRadius > largestRadius) {
        logCritical(sourceFile, __LINE__,
                    u"a blur radius of %1 is too large; %2 is used"_s.arg(m_blurRadius).arg(largestRadius));
    }
    const Kernel kernel = foldTaps(sampleGaussian(std::min(m_blurRadius, largestRadius)));
    m_weights = kernel.weights;
    m_offsets = kernel.offsets;
}

ShaderProgram* BlurBaseRenderPass::makeShaderProgram(const QString& fragmentSource) const
{
    GLSLMacroProcessor macroProcessor;
    macroProcessor.addDefine(m_samplesCountDefine,
                             QString::number(m_weights.isEmpty() ? 1 : m_weights.size(), 10));
    auto* program = new ShaderProgram(nullptr);
    buildScreenProgram(*program, {.fragment = fragmentSource, .macroProcessor = &macroProcessor});
    return program;
}

QString BlurBaseRenderPass::getBaseVertexShaderSource()
{
    return fullScreenVertexSource;
}

QString BlurBaseRenderPass::getBaseFragmentShaderSource()
{
    return baseFragmentSource;
}

bool BlurBaseRenderPass::provideKernel(float radius, BlurredInput input)
{
    const bool kernelChanged = !m_shaderProgram || radius != m_requestedRadius;
    if (kernelChanged) {
        m_requestedRadius = radius;
        m_blurRadius = radius;
        if (const float limit = maxBlurRadius(); radius > limit) {
            logCritical(
                __FILE__, __LINE__,
                u"a blur radius of %1 exceeds this driver's uniforms, which hold radii up to %2; that "
                "is used"_s.arg(radius)
                    .arg(limit));
            m_blurRadius = limit;
        }
        calculateBlurWeights();
    }
    if (kernelChanged || input != m_blurredInput) {
        m_blurredInput = input;
        m_shaderProgram.reset(makeShaderProgram(
            input == BlurredInput::Resized ? resizingFragmentSource : getBaseFragmentShaderSource()));
        provideScreenBatch(m_screenQuad, *m_shaderProgram, Screen::Triangle);
    }
    return kernelChanged;
}

void BlurBaseRenderPass::clearTarget()
{
    OpenGLDeviceContext::current()->disable(GL_DEPTH_TEST);
    glDepthMask(GL_FALSE);
    glClear(GL_COLOR_BUFFER_BIT);
}

void BlurBaseRenderPass::drawBlurred(Texture* source, Texture* target, const QVector2D& step)
{
    const BoundTarget boundTarget(provide(m_framebuffer), target);
    clearTarget();
    const AutoBinder programBinder(m_shaderProgram.get());
    const BoundSampler input(*m_shaderProgram, m_input, source, Sampling::Linear);
    const QSizeF size = target->size();
    m_shaderProgram->setUniform(
        m_targetSize, QVector2D(static_cast<float>(size.width()), static_cast<float>(size.height())));
    m_shaderProgram->setUniform(m_stepVec, step);
    m_shaderProgram->setUniform(m_weight, m_weights);
    m_shaderProgram->setUniform(m_offset, m_offsets);
    drawBatch(m_screenQuad);
}

} // namespace Morvane::Qel
