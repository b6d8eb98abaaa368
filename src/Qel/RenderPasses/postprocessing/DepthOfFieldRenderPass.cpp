#include <Qel/RenderPasses/postprocessing/DepthOfFieldRenderPass.h>

#include <QVector2D>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/gl/GLErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/DepthOfFieldRenderPass";

// Settings without a port are constants, including those of features that are off, which the compiler
// removes. texture() replaces texture2D(), which version 150 deprecates and forward-compatible contexts lack.
const QString fragmentSource = uR"(#version 150
#define PI 3.14159265

uniform sampler2D bgl_RenderedTexture;
uniform sampler2D bgl_DepthTexture;
uniform int bgl_RenderedTextureWidth;
uniform int bgl_RenderedTextureHeight;

uniform float focalDepth;              // distance of the focal plane, in metres
uniform float focalLength = 1.0;       // in millimetres
uniform float fstop;
uniform bool autofocus;                // focus at the depth found at "focus", not at focalDepth
uniform vec2 focus = vec2(0.5, 0.5);
uniform bool showFocus = false;        // tints the image by its sharpness

const float znear = 0.1;               // near plane of the depth texture, in metres
const float zfar = 100.0;              // far plane, in metres
const float CoC = 0.03;                // acceptable circle of confusion, in millimetres

const int samples = 3;                 // taps of ring 1; ring n has n times as many
const int rings = 3;

const bool manualdof = false;          // blur by distance from the focal plane, not by a thin lens
const float ndofstart = 1.0;
const float ndofdist = 2.0;
const float fdofstart = 1.0;
const float fdofdist = 3.0;

const bool vignetting = false;
const float vignout = 1.3;
const float vignin = 0.0;
const float vignfade = 22.0;           // f-stops that move the darkening outwards by 1

const float maxblur = 1.0;             // pixels between two rings at a blur of 1
const float threshold = 0.5;           // luma above which a tap counts as a highlight
const float gain = 2.0;
const float bias = 0.5;                // 0 weights all rings equally, 1 by their radius
const float fringe = 0.7;              // chromatic shift of a channel in pixels at a blur of 1
const bool noise = true;               // dither by noise instead of a regular pattern
const float namount = 0.0001;

const bool depthblur = false;          // average the depth over 3x3 taps
const float dbsize = 1.25;             // pixels between those taps

const bool pentagon = false;           // pentagonal instead of round bokeh
const float feather = 0.4;

in vec2 vo_TexCoord;
out vec4 out_FragColor;

vec2 texel;

// The distance from the camera, in metres, of a window depth.
float metresAt(float windowDepth)
{
    return znear * zfar / (zfar - windowDepth * (zfar - znear));
}

float smoothedDepth(vec2 uv)
{
    float sum = 0.0;
    for (int y = -1; y <= 1; ++y) {
        for (int x = -1; x <= 1; ++x) {
            float binomial = float((2 - abs(x)) * (2 - abs(y))) / 16.0;
            sum += texture(bgl_DepthTexture, uv + vec2(x, y) * texel * dbsize).r * binomial;
        }
    }
    return sum;
}

// From 0, in focus, to 1, the largest blur.
float blurAmount(float depth, float focalDistance)
{
    if (manualdof) {
        float behind = depth - focalDistance;
        float blur = behind > 0.0 ? (behind - fdofstart) / fdofdist : (-behind - ndofstart) / ndofdist;
        return clamp(blur, 0.0, 1.0);
    }
    float f = focalLength;
    float d = focalDistance * 1000.0;
    float o = depth * 1000.0;
    float a = (o * f) / (o - f);
    float b = (d * f) / (d - f);
    float c = (d - f) / (d * fstop * CoC);
    return clamp(abs(a - b) * c, 0.0, 1.0);
}

// Two pseudo-random values from -1 to 1.
vec2 dither(vec2 uv)
{
    if (noise) {
        const vec2 direction = vec2(12.9898, 78.233);
        vec2 phase = vec2(dot(uv, direction), dot(uv, direction * 2.0));
        return fract(sin(phase) * 43758.5453) * 2.0 - 1.0;
    }
    float column = fract(1.0 - uv.s * (float(bgl_RenderedTextureWidth) / 2.0));
    float row = fract(uv.t * (float(bgl_RenderedTextureHeight) / 2.0));
    return vec2(column * 0.25 + row * 0.75, column * 0.75 + row * 0.25) * 2.0 - 1.0;
}

// The coverage of a tap by a pentagon around the origin.
float pentagonWeight(vec2 position)
{
    const float scale = float(rings) - 1.3;
    const vec2 normals[5] = vec2[5](vec2(1.0, 0.0),
                                    vec2(0.309016994, 0.951056516), vec2(-0.809016994, 0.587785252),
                                    vec2(-0.809016994, -0.587785252), vec2(0.309016994, -0.951056516));
    float sum = 0.0;
    for (int i = 0; i < 5; ++i) {
        sum += smoothstep(-feather, feather, dot(position, normals[i]) + scale);
    }
    return clamp(sum - 4.0, 0.0, 1.0);
}

// The frame with chromatic fringing and highlight gain.
vec3 bokehTap(vec2 uv, float blur)
{
    vec2 shift = texel * fringe * blur;
    vec3 colour = vec3(texture(bgl_RenderedTexture, uv + vec2(0.0, 1.0) * shift).r,
                       texture(bgl_RenderedTexture, uv + vec2(-0.866, -0.5) * shift).g,
                       texture(bgl_RenderedTexture, uv + vec2(0.866, -0.5) * shift).b);
    float luma = dot(colour, vec3(0.299, 0.587, 0.114));
    float highlight = max((luma - threshold) * gain, 0.0);
    return colour + colour * highlight * blur;
}

vec3 gatherRings(vec3 centre, float blur)
{
    vec2 radius = blur * maxblur * texel + dither(vo_TexCoord) * namount * blur;
    vec3 sum = centre;
    float total = 1.0;
    for (int i = 1; i <= rings; ++i) {
        int numTaps = i * samples;
        float ringWeight = mix(1.0, float(i) / float(rings), bias);
        for (int j = 0; j < numTaps; ++j) {
            float angle = float(j) * (PI * 2.0 / float(numTaps));
            vec2 position = vec2(cos(angle), sin(angle)) * float(i);
            float weight = pentagon ? ringWeight * pentagonWeight(position) : ringWeight;
            sum += bokehTap(vo_TexCoord + position * radius, blur) * weight;
            total += weight;
        }
    }
    return sum / total;
}

// Tints warm at the focal plane, and cool from there to where the blur saturates.
vec3 tintFocus(vec3 colour, float blur, float metres)
{
    float transition = 0.002 * metres;
    float leaving = smoothstep(0.0, transition, blur);
    float saturated = smoothstep(1.0 - transition, 1.0, blur);
    vec3 warm = mix(colour, vec3(1.0, 0.5, 0.0), 0.6 - 0.6 * leaving);
    return mix(warm, vec3(0.0, 0.5, 1.0), 0.2 * (leaving - saturated));
}

// The fraction of light that vignetting leaves.
float cornerFalloff(vec2 uv)
{
    vec2 range = vec2(vignin, vignout) + fstop / vignfade;
    return 1.0 - smoothstep(range.x, range.y, length(uv - 0.5));
}

void main()
{
    texel = vec2(1.0 / float(bgl_RenderedTextureWidth), 1.0 / float(bgl_RenderedTextureHeight));
    float depth = metresAt(depthblur ? smoothedDepth(vo_TexCoord) : texture(bgl_DepthTexture, vo_TexCoord).r);
    float focalDistance = autofocus ? metresAt(texture(bgl_DepthTexture, focus).r) : focalDepth;
    float blur = blurAmount(depth, focalDistance);

    vec3 colour = texture(bgl_RenderedTexture, vo_TexCoord).rgb;
    // An undefined lens gives NaN, which fails this comparison.
    if (blur >= 0.05) {
        colour = gatherRings(colour, blur);
    }
    if (showFocus) {
        colour = tintFocus(colour, blur, depth);
    }
    if (vignetting) {
        colour *= cornerFalloff(vo_TexCoord);
    }
    out_FragColor = vec4(colour, 1.0);
}
)"_s;

} // namespace

const PassDescription& DepthOfFieldRenderPass::description()
{
    static const PassDescription description{
        .type = u"DepthOfFieldRenderPass"_s,
        .summary = u"Depth of field: blurs out-of-focus areas as a lens does, with bokeh highlights."_s,
        .inputs =
            {viewportInput(u"size of the image; the origin is ignored"_s, u"an empty texture"_s),
             {.name = u"Qel_QelTexture*_Frame"_s,
              .meaning = u"the colour frame, in any encoding (linear gives physical highlights)"_s,
              .whenMissing = u"the output is empty"_s,
              .wantsAntiAliased = true},
             {.name = u"Qel_QelTexture*_Depth"_s,
              .meaning = u"window depth of the frame, for near and far planes at 0.1 m and 100 m"_s,
              .whenMissing = u"the image stays sharp"_s,
              .range = u"0 to 1"_s,
              .encoding = Encoding::Data,
              .wantsOpaqueDepth = true,
              .assumedPlanes = {0.1, 100.0},
              .perspectiveReason = u"depths are taken as those of a perspective projection; a "
                                   "ShaderRenderPass can convert them"_s},
             {.name = u"Qel_float_FocalDepth"_s,
              .meaning = u"distance of the focal plane from the camera; ignored with autofocus"_s,
              .whenMissing = u"the image stays sharp"_s,
              .range = u"above 0"_s,
              .unit = u"metres"_s,
              .limits = {.minimum = 0.0, .isAboveMinimum = true}},
             {.name = u"Qel_float_FocalLength"_s,
              .meaning = u"focal length of the lens; longer lenses blur more"_s,
              .whenMissing = u"the image stays sharp"_s,
              .range = u"0 or more"_s,
              .unit = u"millimetres"_s,
              .limits = {0.0}},
             {.name = u"Qel_float_FStop"_s,
              .meaning =
                  u"f-number, the focal length over the diameter of the aperture; smaller values blur more"_s,
              .whenMissing = u"everything out of focus gets the largest blur"_s,
              .range = u"above 0"_s,
              .limits = {.minimum = 0.0, .isAboveMinimum = true}},
             {.name = u"Qel_bool_AutoFocus"_s,
              .meaning = u"whether the focal plane lies at the depth found at the focus point"_s,
              .whenMissing = u"the focal depth is used"_s},
             {.name = u"Qel_QVector2D_Focus"_s,
              .meaning = u"focus point of autofocus, in texture coordinates; origin at the lower left"_s,
              .whenMissing = u"the lower left corner"_s,
              .range = u"0 to 1"_s,
              .limits = {0.0, 1.0}}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"the blurred image, opaque, in the frame's encoding, not clamped; RGBA32F, "
                                "owned by the pass"_s,
                     .encoding = Encoding::AsInput,
                     .alpha = AlphaMeaning::Opaque,
                     .like = {u"Qel_QelTexture*_Frame"_s}}}};
    return description;
}

DepthOfFieldRenderPass::DepthOfFieldRenderPass()
{
    declarePorts(description());
}

DepthOfFieldRenderPass::~DepthOfFieldRenderPass()
{
    deleteTarget(m_framebuffer.get(), GL_COLOR_ATTACHMENT0);
}

void DepthOfFieldRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    auto* frame = getInputPointer<Texture>(Frame);
    auto* depth = getInputPointer<Texture>(Depth);
    const InputReferences inputs(frame, depth);
    if (!frame) {
        m_outputs[OutputFrame].value = QVariant();
        return;
    }
    provideTargets(m_framebuffer, m_width, m_height, m_inputs[Viewport].value.toRect(),
                   {{GL_COLOR_ATTACHMENT0, GL_RGBA32F, GL_BGRA, GL_FLOAT}}, EmptyViewport::EmptyTextures);
    provideScreenProgram(m_program, m_screenQuad, {fragmentSource});
    const AutoBinder framebufferBinder(m_framebuffer.get());
    m_framebuffer->setDrawBuffers();
    OpenGLDeviceContext::current()->disable(GL_DEPTH_TEST);
    glClear(GL_COLOR_BUFFER_BIT);

    const AutoBinder programBinder(m_program.get());
    checkGLError(sourceFile, __LINE__);
    const BoundSampler frames(*m_program, m_renderedTexture, frame, Sampling::Linear);
    const BoundSampler depths(*m_program, m_depthTexture, orTransparent(depth, m_fallbackDepth),
                              Sampling::Own);
    m_program->setUniform(m_renderedTextureWidth, m_width);
    m_program->setUniform(m_renderedTextureHeight, m_height);
    m_program->setUniform(m_focalDepth, m_inputs[FocalDepth].value.toFloat());
    // Without depth, a focal length of 0 keeps the whole frame sharp.
    m_program->setUniform(m_focalLength, depth ? m_inputs[FocalLength].value.toFloat() : 0.0F);
    m_program->setUniform(m_fstop, m_inputs[FStop].value.toFloat());
    m_program->setUniform(m_autofocus, m_inputs[AutoFocus].value.toBool());
    m_program->setUniform(m_focus, m_inputs[Focus].value.value<QVector2D>());
    drawBatch(m_screenQuad);
    m_outputs[OutputFrame].value = attachedTexture(m_framebuffer.get(), GL_COLOR_ATTACHMENT0);
}

} // namespace Morvane::Qel
