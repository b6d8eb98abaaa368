#include <Qel/RenderPasses/compositing/BlendRenderPass.h>

#include <algorithm>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

// s is the texel of A, d the texel of B. The functions ending in 1 compute one channel.
//
// %1 is the operator of the program. A program that chose by u_BlendMode, which is only declared, would cost
// software rasterisers all 26 operators for each pixel.
const QString fragmentSource = uR"(#version 150
uniform sampler2D u_SamplerA;
uniform sampler2D u_SamplerB;
uniform int u_BlendMode;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

float unionAlpha(vec4 s, vec4 d)
{
    return s.a + d.a - s.a * d.a;
}

// The part of each colour that the other image does not cover.
vec3 uncovered(vec4 s, vec4 d)
{
    return s.rgb * (1.0 - d.a) + d.rgb * (1.0 - s.a);
}

vec4 blendClear(vec4 s, vec4 d)
{
    return vec4(0.0);
}

vec4 blendSrc(vec4 s, vec4 d)
{
    return s;
}

vec4 blendDst(vec4 s, vec4 d)
{
    return d;
}

vec4 blendSrcOver(vec4 s, vec4 d)
{
    return vec4(s.rgb + d.rgb * (1.0 - s.a), unionAlpha(s, d));
}

vec4 blendDstOver(vec4 s, vec4 d)
{
    return vec4(d.rgb + s.rgb * (1.0 - d.a), unionAlpha(s, d));
}

vec4 blendSrcIn(vec4 s, vec4 d)
{
    return s * d.a;
}

vec4 blendDstIn(vec4 s, vec4 d)
{
    return d * s.a;
}

vec4 blendSrcOut(vec4 s, vec4 d)
{
    return s * (1.0 - d.a);
}

vec4 blendDstOut(vec4 s, vec4 d)
{
    return d * (1.0 - s.a);
}

vec4 blendSrcAtop(vec4 s, vec4 d)
{
    return vec4(s.rgb * d.a + d.rgb * (1.0 - s.a), d.a);
}

vec4 blendDstAtop(vec4 s, vec4 d)
{
    return vec4(d.rgb * s.a + s.rgb * (1.0 - d.a), s.a);
}

vec4 blendXor(vec4 s, vec4 d)
{
    return vec4(uncovered(s, d), s.a + d.a - 2.0 * s.a * d.a);
}

vec4 blendAdd(vec4 s, vec4 d)
{
    return s + d;
}

vec4 blendMultiply(vec4 s, vec4 d)
{
    return vec4(s.rgb * d.rgb + uncovered(s, d), unionAlpha(s, d));
}

vec4 blendScreen(vec4 s, vec4 d)
{
    return vec4(s.rgb + d.rgb - s.rgb * d.rgb, unionAlpha(s, d));
}

// Deliberate: the test compares with 1, not with d.a, so a half-transparent destination counts as dark.
vec4 blendOverlay(vec4 s, vec4 d)
{
    vec3 dark = 2.0 * s.rgb * d.rgb + uncovered(s, d);
    vec3 light = s.rgb * (1.0 + d.a) + d.rgb * (1.0 + s.a) - 2.0 * s.rgb * d.rgb - d.a * s.a;
    return vec4(mix(light, dark, lessThanEqual(2.0 * d.rgb, vec3(1.0))), unionAlpha(s, d));
}

vec4 blendDarken(vec4 s, vec4 d)
{
    return vec4(min(s.rgb * d.a, d.rgb * s.a) + uncovered(s, d), unionAlpha(s, d));
}

vec4 blendLighten(vec4 s, vec4 d)
{
    return vec4(max(s.rgb * d.a, d.rgb * s.a) + uncovered(s, d), unionAlpha(s, d));
}

float blendColorDodge1(float sca, float sa, float dca, float da)
{
    if (sca == sa) {
        return dca == 0.0 ? sca * (1.0 - da) : sa * da + sca * (1.0 - da) + dca * (1.0 - sa);
    }
    return sa * da * min(1.0, dca / da * sa / (sa - sca)) + sca * (1.0 - da) + dca * (1.0 - sa);
}

vec4 blendColorDodge(vec4 s, vec4 d)
{
    return vec4(blendColorDodge1(s.r, s.a, d.r, d.a), blendColorDodge1(s.g, s.a, d.g, d.a),
                blendColorDodge1(s.b, s.a, d.b, d.a), unionAlpha(s, d));
}

float blendColorBurn1(float sca, float sa, float dca, float da)
{
    if (sca == 0.0) {
        return dca == da ? sa * da + dca * (1.0 - sa) : dca * (1.0 - sa);
    }
    return sa * da * (1.0 - min(1.0, (1.0 - dca / da) * sa / sca)) + sca * (1.0 - da) + dca * (1.0 - sa);
}

vec4 blendColorBurn(vec4 s, vec4 d)
{
    return vec4(blendColorBurn1(s.r, s.a, d.r, d.a), blendColorBurn1(s.g, s.a, d.g, d.a),
                blendColorBurn1(s.b, s.a, d.b, d.a), unionAlpha(s, d));
}

vec4 blendHardLight(vec4 s, vec4 d)
{
    vec3 dark = 2.0 * s.rgb * d.rgb + uncovered(s, d);
    vec3 light = s.rgb * (1.0 + d.a) + d.rgb * (1.0 + s.a) - s.a * d.a - 2.0 * s.rgb * d.rgb;
    return vec4(mix(light, dark, lessThanEqual(2.0 * s.rgb, vec3(s.a))), unionAlpha(s, d));
}

// Deliberate: the cubic ends in -3 m where the published one has +3 m. A light source therefore darkens the
// darkest quarter of the destination, and the result jumps where the square root takes over.
float blendSoftLight1(float sca, float sa, float dca, float da)
{
    float m = dca / da;
    if (2.0 * sca <= sa) {
        return dca * (sa + (2.0 * sca - sa) * (1.0 - m)) + sca * (1.0 - da) + dca * (1.0 - sa);
    }
    float lightened = 4.0 * dca <= da ? 16.0 * m * m * m - 12.0 * m * m - 3.0 * m : sqrt(m) - m;
    return da * (2.0 * sca - sa) * lightened + sca - sca * da + dca;
}

vec4 blendSoftLight(vec4 s, vec4 d)
{
    return vec4(blendSoftLight1(s.r, s.a, d.r, d.a), blendSoftLight1(s.g, s.a, d.g, d.a),
                blendSoftLight1(s.b, s.a, d.b, d.a), unionAlpha(s, d));
}

vec4 blendExclusion(vec4 s, vec4 d)
{
    return vec4(s.rgb * d.a + d.rgb * s.a - 2.0 * s.rgb * d.rgb + uncovered(s, d), unionAlpha(s, d));
}

vec4 blendDifference(vec4 s, vec4 d)
{
    return vec4(s.rgb + d.rgb - 2.0 * min(s.rgb * d.a, d.rgb * s.a), unionAlpha(s, d));
}

vec4 blendInvertAndAdd(vec4 s, vec4 d)
{
    return vec4(uncovered(s, d) + (0.5 - 0.5 * (d.rgb - s.rgb)) * s.a * d.a, unionAlpha(s, d));
}

vec4 blendMultiplyKeepAlpha(vec4 s, vec4 d)
{
    return s * d;
}

vec4 blend(vec4 s, vec4 d)
{
    switch (%1) {
    case 0: return blendClear(s, d);
    case 1: return blendSrc(s, d);
    case 2: return blendDst(s, d);
    case 3: return blendSrcOver(s, d);
    case 4: return blendDstOver(s, d);
    case 5: return blendSrcIn(s, d);
    case 6: return blendDstIn(s, d);
    case 7: return blendSrcOut(s, d);
    case 8: return blendDstOut(s, d);
    case 9: return blendSrcAtop(s, d);
    case 10: return blendDstAtop(s, d);
    case 11: return blendXor(s, d);
    case 12: return blendAdd(s, d);
    case 13: return blendMultiply(s, d);
    case 14: return blendScreen(s, d);
    case 15: return blendOverlay(s, d);
    case 16: return blendDarken(s, d);
    case 17: return blendLighten(s, d);
    case 18: return blendColorDodge(s, d);
    case 19: return blendColorBurn(s, d);
    case 20: return blendHardLight(s, d);
    case 21: return blendSoftLight(s, d);
    case 22: return blendExclusion(s, d);
    case 23: return blendDifference(s, d);
    case 24: return blendInvertAndAdd(s, d);
    case 25: return blendMultiplyKeepAlpha(s, d);
    default: return vec4(0.0);
    }
}

void main()
{
    out_FragColor = blend(texture(u_SamplerA, vo_TexCoord), texture(u_SamplerB, vo_TexCoord));
}
)"_s;

} // namespace

const PassDescription& BlendRenderPass::description()
{
    static const PassDescription description{
        .type = u"BlendRenderPass"_s,
        .summary = u"Composites two premultiplied images with one of 26 operators."_s,
        .inputs = {viewportInput(u"size of the output, and the rectangle in it that is drawn"_s,
                                 u"1 x 1, cleared"_s),
                   {.name = u"Qel_QelTexture*_FrameA"_s,
                    .meaning = u"the source; premultiplied alpha"_s,
                    .whenMissing = u"transparent black"_s},
                   {.name = u"Qel_QelTexture*_FrameB"_s,
                    .meaning = u"the destination; premultiplied alpha"_s,
                    .whenMissing = u"transparent black"_s},
                   {.name = u"Int_BlendMode"_s,
                    .meaning = u"the operator, as an index into the choices of the option \"mode\""_s,
                    .whenMissing = u"the previous frame's operator, initially that of the option"_s,
                    .range = u"0 to 25; any other value gives transparent black"_s,
                    .limits = {0.0, 25.0}}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"the composite: premultiplied alpha, colour encoding of the inputs, not "
                                "clamped; RGBA16F, pooled"_s,
                     .encoding = Encoding::AsInput,
                     .alpha = AlphaMeaning::Premultiplied,
                     .like = {u"Qel_QelTexture*_FrameB"_s, u"Qel_QelTexture*_FrameA"_s}}},
        .options = {{.name = u"mode"_s,
                     .meaning = u"the operator"_s,
                     .defaultValue = u"sourceOver"_s,
                     .choices = {u"clear"_s,         u"source"_s,           u"destination"_s,
                                 u"sourceOver"_s,    u"destinationOver"_s,  u"sourceIn"_s,
                                 u"destinationIn"_s, u"sourceOut"_s,        u"destinationOut"_s,
                                 u"sourceAtop"_s,    u"destinationAtop"_s,  u"xor"_s,
                                 u"add"_s,           u"multiply"_s,         u"screen"_s,
                                 u"overlay"_s,       u"darken"_s,           u"lighten"_s,
                                 u"colorDodge"_s,    u"colorBurn"_s,        u"hardLight"_s,
                                 u"softLight"_s,     u"exclusion"_s,        u"difference"_s,
                                 u"invertAndAdd"_s,  u"multiplyKeepAlpha"_s}}}};
    return description;
}

BlendRenderPass::BlendRenderPass(BlendMode mode)
    : m_mode(mode)
{
    declarePorts(description());
}

BlendRenderPass::~BlendRenderPass() = default;

/// Returns the program of the current operator. Values that are no operator share the one after the last.
ShaderProgram& BlendRenderPass::provideProgram()
{
    const auto mode = static_cast<size_t>(m_mode);
    const size_t index = std::min(mode, m_programs.size() - 1);
    std::unique_ptr<ShaderProgram>& program = m_programs.at(index);
    if (!program) {
        provideScreenProgram(program, m_fullScreenBatch, {fragmentSource.arg(index)});
    }
    return *program;
}

void BlendRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QRect viewport = m_inputs[Viewport].value.toRect();
    const QVariant& mode = m_inputs[ModeInput].value;
    if (!mode.isNull()) {
        m_mode = static_cast<BlendMode>(mode.toInt());
    }
    auto* frameA = getInputPointer<Texture>(FrameA);
    auto* frameB = getInputPointer<Texture>(FrameB);
    const InputReferences inputs(frameA, frameB);

    const PooledTarget target(provide(m_framebuffer), TextureFormat::RGBA16F, viewport.size());
    ShaderProgram& program = provideProgram();
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->disable(GL_DEPTH_TEST);
    context->disable(GL_BLEND);
    context->setViewport(viewport.x(), viewport.y(), viewport.width(), viewport.height());
    glClear(GL_COLOR_BUFFER_BIT);

    const AutoBinder programBinder(&program);
    frameA = orTransparent(frameA, m_transparentTexture);
    frameB = orTransparent(frameB, m_transparentTexture);
    const BoundSampler source(program, m_samplerA, frameA,
                              texelSampling(*frameA, viewport.size(), Sampling::Own));
    const BoundSampler destination(program, m_samplerB, frameB,
                                   texelSampling(*frameB, viewport.size(), Sampling::Own));
    drawBatch(m_fullScreenBatch);
    m_outputs[Frame].value = target.publish(m_outputs[Frame].users);
}

} // namespace Morvane::Qel
