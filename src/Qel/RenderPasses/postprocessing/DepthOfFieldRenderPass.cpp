#include <Qel/RenderPasses/postprocessing/DepthOfFieldRenderPass.h>

#include <QVector2D>

#include <algorithm>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/InputPointers.h>
#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/DepthOfFieldRenderPass";

// The settings that no port drives are constants, those of features that are off included; the compiler drops
// what they switch off. Texels come from texture(): it does what texture2D() did, which version 150
// deprecates and forward-compatible contexts lack.
const QString fragmentSource = uR"(#version 150
#define PI 3.14159265

uniform sampler2D bgl_RenderedTexture;
uniform sampler2D bgl_DepthTexture;
uniform int bgl_RenderedTextureWidth;
uniform int bgl_RenderedTextureHeight;

uniform float focalDepth;              // distance of the plane in focus, in metres
uniform float focalLength = 1.0;       // of the lens, in millimetres
uniform float fstop;
uniform bool autofocus;                // focus on what is at "focus" instead of at focalDepth
uniform vec2 focus = vec2(0.5, 0.5);
uniform bool showFocus = false;        // colours the picture by its sharpness

const float znear = 0.1;               // of the depth texture, in metres
const float zfar = 100.0;
const float CoC = 0.03;                // spot on the film that nobody tells from a point, in millimetres

const int samples = 3;                 // of ring 1; ring n has n times as many
const int rings = 3;

const bool manualdof = false;          // blur by distances from the plane in focus instead of by a lens
const float ndofstart = 1.0;
const float ndofdist = 2.0;
const float fdofstart = 1.0;
const float fdofdist = 3.0;

const bool vignetting = false;
const float vignout = 1.3;
const float vignin = 0.0;
const float vignfade = 22.0;           // stopping down by this moves the darkening outwards by 1

const float maxblur = 1.0;             // pixels between two rings where the blur is 1
const float threshold = 0.5;           // of highlights
const float gain = 2.0;
const float bias = 0.5;                // 0 weighs all rings alike, 1 by their radius
const float fringe = 0.7;              // pixels that the channels drift apart where the blur is 1
const bool noise = true;               // the offsets of the rings are random, or else regular
const float namount = 0.0001;

const bool depthblur = false;          // distances are averaged over 3x3 texels
const float dbsize = 1.25;             // pixels between those

const bool pentagon = false;           // spots have five sides, or else are round
const float feather = 0.4;

in vec2 vo_TexCoord;
out vec4 out_FragColor;

vec2 texel;

// Distance from the camera of a window depth.
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

// From 0, in focus, to 1.
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

// A pair of values from -1 to 1.
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

// How much of a tap lies within a pentagon around the origin.
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

// The frame with its channels fringed and its highlights gained.
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

// Warm in the plane in focus, cool from there to where the blur stops growing.
vec3 tintFocus(vec3 colour, float blur, float metres)
{
    float transition = 0.002 * metres;
    float leaving = smoothstep(0.0, transition, blur);
    float saturated = smoothstep(1.0 - transition, 1.0, blur);
    vec3 warm = mix(colour, vec3(1.0, 0.5, 0.0), 0.6 - 0.6 * leaving);
    return mix(warm, vec3(0.0, 0.5, 1.0), 0.2 * (leaving - saturated));
}

// What is left of the light towards the corners.
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
    // A lens that is not defined yields NaN, which is not above the limit either.
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
        u"DepthOfFieldRenderPass"_s,
        u"Blurs what is out of focus, as a lens does, with bokeh-shaped highlights."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the picture; the origin is ignored"_s,
          u"an empty texture"_s,
          {},
          u"pixels"_s},
         {u"Qel_QelTexture*_Frame"_s, u"the picture"_s, u"no output"_s},
         {u"Qel_QelTexture*_Depth"_s, u"its depth, 0 to 1, taken as made with planes at 0.1 m and 100 m"_s,
          u"the picture stays sharp"_s},
         {u"Qel_float_FocalDepth"_s,
          u"distance of the plane in focus, without autofocus"_s,
          u"the picture stays sharp"_s,
          {},
          u"metres, above 0"_s},
         {u"Qel_float_FocalLength"_s,
          u"focal length of the lens; longer lenses blur more"_s,
          u"the picture stays sharp"_s,
          {},
          u"millimetres, 0 or more"_s},
         {u"Qel_float_FStop"_s,
          u"focal length over aperture; smaller numbers blur more"_s,
          u"everything out of focus is blurred as far as it goes"_s,
          {},
          u"above 0"_s},
         {u"Qel_bool_AutoFocus"_s, u"focuses on what is at the focus point"_s, u"the focal depth counts"_s},
         {u"Qel_QVector2D_Focus"_s,
          u"the focus point of autofocus; origin at the lower left"_s,
          u"the lower left corner"_s,
          {},
          u"0 to 1"_s}},
        {{u"Qel_QelTexture*_Frame"_s, u"the blurred picture, RGBA32F, opaque, owned by the pass"_s}}};
    return description;
}

DepthOfFieldRenderPass::DepthOfFieldRenderPass()
{
    declarePorts(description());
}

DepthOfFieldRenderPass::~DepthOfFieldRenderPass()
{
    if (m_framebuffer) {
        delete m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
    }
}

void DepthOfFieldRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QRect viewport = m_inputs[Viewport].value.toRect();
    auto* frame = getInputPointer<Texture>(Frame);
    auto* depth = getInputPointer<Texture>(Depth);
    if (frame) {
        if (!m_framebuffer) {
            m_framebuffer = std::make_unique<FramebufferObject>(nullptr);
        }
        if (viewport.width() != m_width || viewport.height() != m_height ||
            !m_framebuffer->hasAttachment(GL_COLOR_ATTACHMENT0)) {
            resize(viewport.width(), viewport.height());
        }
        if (!m_program) {
            buildProgram();
        }
        draw(frame, depth);
        m_outputs[OutputFrame].value = textureVariant(m_framebuffer->attachment(GL_COLOR_ATTACHMENT0));
    } else {
        m_outputs[OutputFrame].value = QVariant();
    }
    TextureManager::Instance()->releaseTempTextureRef(frame, 1);
    TextureManager::Instance()->releaseTempTextureRef(depth, 1);
}

void DepthOfFieldRenderPass::resize(int width, int height)
{
    m_width = width;
    m_height = height;
    const AutoBinder framebufferBinder(m_framebuffer.get());
    replaceAttachment(m_framebuffer.get(), GL_COLOR_ATTACHMENT0,
                      makeTarget(width, height, GL_RGBA32F, GL_BGRA, GL_FLOAT));
}

void DepthOfFieldRenderPass::buildProgram()
{
    m_program = std::make_unique<ShaderProgram>(nullptr);
    addFullScreenShaders(m_program.get(), fragmentSource);
    Qel::buildProgram(m_program.get());
    m_screenQuad = OpenGLDeviceContext::current()->fullScreenTriangle();
    enableArrays(m_screenQuad, m_program.get());
}

void DepthOfFieldRenderPass::draw(Texture* frame, Texture* depth)
{
    // Without depth nothing says what is out of focus: a focal length of 0 keeps all of the frame sharp.
    const float focalLength = depth ? m_inputs[FocalLength].value.toFloat() : 0.0F;
    if (!depth) {
        if (!m_fallbackDepth) {
            m_fallbackDepth.reset(makeTransparentTexture());
        }
        depth = m_fallbackDepth.get();
    }

    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    const AutoBinder framebufferBinder(m_framebuffer.get());
    m_framebuffer->setDrawBuffers();
    context->disable(GL_DEPTH_TEST);
    context->setViewport(0, 0, std::max(m_width, 0), std::max(m_height, 0));
    glClear(GL_COLOR_BUFFER_BIT);
    const AutoBinder programBinder(m_program.get());
    checkGLError(sourceFile, __LINE__);

    const AutoBinder frameBinder(frame);
    const AutoBinder depthBinder(depth);
    const int minFilter = frame->parameter(GL_TEXTURE_MIN_FILTER);
    const int magFilter = frame->parameter(GL_TEXTURE_MAG_FILTER);
    frame->setFilter(GL_LINEAR, GL_LINEAR);
    m_program->setUniform(m_renderedTexture, frame->unit());
    m_program->setUniform(m_depthTexture, depth->unit());
    m_program->setUniform(m_renderedTextureWidth, m_width);
    m_program->setUniform(m_renderedTextureHeight, m_height);
    m_program->setUniform(m_focalDepth, m_inputs[FocalDepth].value.toFloat());
    m_program->setUniform(m_focalLength, focalLength);
    m_program->setUniform(m_fstop, m_inputs[FStop].value.toFloat());
    m_program->setUniform(m_autofocus, m_inputs[AutoFocus].value.toBool());
    m_program->setUniform(m_focus, m_inputs[Focus].value.value<QVector2D>());
    drawBatch(m_screenQuad.data());
    frame->setFilter(minFilter, magFilter);
}

} // namespace Morvane::Qel
