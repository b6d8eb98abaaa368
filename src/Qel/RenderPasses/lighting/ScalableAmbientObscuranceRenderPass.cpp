#include <Qel/RenderPasses/lighting/ScalableAmbientObscuranceRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/RenderPasses/support/Numbers.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/GLErrors.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

/// Limits the shader's loop: drivers reset a GPU that is busy for seconds.
constexpr int maxSamples = 1024;

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/ScalableAmbientObscuranceRenderPass";

// Deliberate: linked into the program although nothing calls it.
const QString positionSource = uR"(#version 150
uniform mat4 u_InvProjMatrix;

vec3 positionFromDepth(vec2 uv, float depth)
{
    vec4 p = u_InvProjMatrix * vec4(uv * 2.0 - 1.0, depth * 2.0 - 1.0, 1.0);
    return p.xyz / p.w;
}
)"_s;

// What is the same for all pixels is computed here and passed on in flat outputs, because software
// rasterisers pay for every uniform that a pixel reads.
//
// Deliberate: radius2 and u_CalculateCSPosition, which nothing reads, and the compiled-in defaults, which the
// uniforms always override.
const QString vertexSource = uR"(#version 150
#define NUM_SAMPLES 7
#define LOG_MAX_OFFSET 3
#define NUM_SPIRAL_TURNS 3

in vec3 va_Vertex;
in vec2 va_TexCoord;
uniform mat4 u_Camera;
uniform float projScale;               // size in pixels of one scene unit at distance 1
uniform float radius;
uniform float radius2;
uniform float invRadius2;
uniform float bias;
uniform float intensity;
uniform vec3 u_ClipInfo;
uniform vec4 u_ProjInfo;
uniform bool u_CalculateCSPosition;
uniform float u_NumSamples = float(NUM_SAMPLES);
uniform int u_LogMaxOffset = LOG_MAX_OFFSET;
uniform float u_NumSpiralTurns = float(NUM_SPIRAL_TURNS);
uniform float u_TapTangent;            // of half the angle between two taps
uniform vec2 u_DepthSize;              // in pixels
noperspective out vec2 vo_TexCoord;
flat out mat3 vo_NormalMatrix;         // from world space to eye space
flat out vec2 vo_Samples;              // their number and one divided by it
flat out vec4 vo_Spiral;               // angle by which it turns, of the first tap; cosine, sine between taps
flat out vec2 vo_Disk;                 // radius in pixels times z; offset of mip levels
flat out vec3 vo_Occlusion;            // -1 / radius^2, -bias, intensity
flat out vec4 vo_DepthSize;            // in pixels, and one divided by it
flat out vec4 vo_Ray;                  // x and y of the ray through a pixel are pixel * xy + zw
flat out vec3 vo_Distance;             // of a depth: x / (y * depth + z)

void main()
{
    gl_Position = vec4(va_Vertex, 1.0);
    vo_TexCoord = va_TexCoord;
    vo_NormalMatrix = transpose(inverse(mat3(u_Camera)));
    vo_Samples = vec2(u_NumSamples, 1.0 / u_NumSamples);
    float angle = u_NumSpiralTurns * 6.28; // deliberate: not 2 pi
    float t = u_TapTangent;
    vo_Spiral = vec4(angle, 0.5 * angle / u_NumSamples, vec2(1.0 - t * t, 2.0 * t) / (1.0 + t * t));
    vo_Disk = vec2(-projScale * radius, float(u_LogMaxOffset));
    vo_Occlusion = vec3(-invRadius2, -bias, intensity);
    vo_DepthSize = vec4(u_DepthSize, 1.0 / u_DepthSize);
    vo_Ray = -u_ProjInfo;
    vo_Distance = -u_ClipInfo;
}
)"_s;

// %1 is whether CS_Z_buffer holds depths instead of eye-space positions, %2 whether taps read its coarser mip
// levels. A program that chose by uniforms would cost software rasterisers both sides of each choice.
//
// The mip level of a tap is computed from its radius as a fraction of the frame, not in pixels as published.
// Deliberate: the level is therefore always 0 unless the offset is negative. Normals from the texture are
// normalised in both modes.
//
// max(0.0, x) returns 0 if x is NaN, as with a radius of 0; max(x, 0.0) does not.
const QString fragmentSource = uR"(#version 400
#ifdef GL_ARB_gpu_shader5
#extension GL_ARB_gpu_shader5 : enable
#endif
#define gl_FragColor out_FragColor
#define MAX_MIP_LEVEL 5
#define FAR_PLANE_Z -1e6

const bool isDepth = %1;
const bool readsCoarseLevels = %2;

uniform sampler2D CS_Z_buffer;         // depth or eye-space positions
noperspective in vec2 vo_TexCoord;
flat in mat3 vo_NormalMatrix;
flat in vec2 vo_Samples;
flat in vec4 vo_Spiral;
flat in vec2 vo_Disk;
flat in vec3 vo_Occlusion;
flat in vec4 vo_DepthSize;
flat in vec4 vo_Ray;
flat in vec3 vo_Distance;
out vec4 out_FragColor;

#if defined(NORMAL_TRANSPOSE_INVERT)
uniform sampler2D u_Normals;
vec3 normalAt(vec3 position)
{
    return normalize(vo_NormalMatrix * texture(u_Normals, vo_TexCoord).xyz);
}
#elif defined(NORMAL_SCREENSPACE)
uniform sampler2D u_Normals;
vec3 normalAt(vec3 position)
{
    vec3 normal = normalize(texture(u_Normals, vo_TexCoord).xyz);
    return normal.z < 0.0 ? -normal : normal;
}
#elif defined(NORMAL_CALCULATE)
vec3 normalAt(vec3 position)
{
    return normalize(cross(dFdx(position), dFdy(position)));
}
#else
#error Not know Normal processing
#endif

float depthAt(vec2 place, float level)
{
    return textureLod(CS_Z_buffer, place * vo_DepthSize.zw, level).x;
}

// The eye-space position at a place, see main.
vec3 positionAt(vec2 place, float level)
{
    if (!isDepth) {
        return textureLod(CS_Z_buffer, place, level).xyz;
    }
    float z = vo_Distance.x / (vo_Distance.y * depthAt(place, level) + vo_Distance.z);
    return vec3((place * vo_Ray.xy + vo_Ray.zw) * z, -z);
}

// The mip level of a tap whose radius is this fraction of the frame.
float mipLevel(float tapFraction)
{
#ifdef GL_ARB_gpu_shader5
    float magnitude = float(findMSB(int(tapFraction)));
#else
    float magnitude = floor(log2(tapFraction));
#endif
    return clamp(magnitude - vo_Disk.y, 0.0, float(MAX_MIP_LEVEL));
}

// The distance between floats of the size of x.
float resolution(float x)
{
#ifdef GL_ARB_gpu_shader5
    return intBitsToFloat(floatBitsToInt(x) & 0x7f800000) * (1.0 / 8388608.0);
#else
    return exp2(floor(log2(x)) - 23.0);
#endif
}

// Rotates v by the angle with this cosine and sine.
vec2 rotated(vec2 v, vec2 angle)
{
    return vec2(angle.x * v.x - angle.y * v.y, angle.y * v.x + angle.x * v.y);
}

// The taps of a pixel, from the centre outwards.
struct Spiral
{
    vec2 direction;                        // of the next tap
    float angleStep;                       // to multiples of which angles are rounded, in radians
    float stepsPerRadian;
    float diskRadius;                      // in pixels
};

// A spiral that starts at (3 (x ^ y) + x y) 10 radians. Deliberate: hardly random, as published.
Spiral spiralAt(ivec2 pixel, float diskRadius)
{
    int tenth = 3 * (pixel.x ^ pixel.y) + pixel.x * pixel.y;
    // Only the fraction of a turn counts, in units of 1 / 2^32 turn. The fraction of 10 / (2 pi) is
    // 0x976fc893 of these units and 0.76431590 of another.
    int turn = int(0x976fc893u * uint(tenth)) + int(0.76431590 * float(tenth));
    float start = float(turn) * (6.28318531 / 4294967296.0);
    // The published method adds the start to the angles of the taps. That rounds them to the resolution of
    // the start, which decides where the taps fall. Where floats do not resolve a quarter of a radian, as in
    // the far corners of large frames, all spirals would lie in the same few directions: there, nothing is
    // rounded.
    float angleStep = resolution(tenth < (1 << 21) / 10 ? max(10.0 * float(tenth), 1.0) : 1.0);
    float firstTap = start + vo_Spiral.y;
    return Spiral(vec2(cos(firstTap), sin(firstTap)), angleStep, 1.0 / angleStep, diskRadius);
}

// A tap: its offset from the centre in pixels and the mip level to read.
struct Tap
{
    vec2 offset;
    float level;
};

// The tap at alpha, from 0 in the centre to 1 at the rim. The spiral is turned to the next one.
Tap nextTap(inout Spiral spiral, float alpha, float pixelWidth)
{
    float angle = alpha * vo_Spiral.x;
    float rounding = roundEven(angle * spiral.stepsPerRadian) * spiral.angleStep - angle;
    // Two terms of the series of cosine and sine suffice, because the rounding is at most 1 / 16.
    vec2 correction = vec2(1.0 - 0.5 * rounding * rounding,
                           rounding - rounding * rounding * rounding * (1.0 / 6.0));
    vec2 direction = rotated(spiral.direction, correction);
    spiral.direction = rotated(spiral.direction, vo_Spiral.zw);
    float tapRadius = alpha * spiral.diskRadius;
    return Tap(tapRadius * direction, readsCoarseLevels ? mipLevel(tapRadius * pixelWidth) : 0.0);
}

// A quarter of a tap's contribution; the factor 4 is applied to the sum.
float contribution(vec3 v, vec3 n)
{
    return max(0.0, 1.0 + dot(v, v) * vo_Occlusion.x) * max(0.0, dot(v, n) + vo_Occlusion.y);
}

void main()
{
    vec2 pixelSize = fwidth(vo_TexCoord);
    // Places in a depth texture are pixels, those in positions, which may have any size, fractions.
    vec2 place = isDepth ? gl_FragCoord.xy : vo_TexCoord;
    vec3 P = positionAt(place, 0.0);
    vec3 n = normalAt(P);
    bool isBackground = P.z < FAR_PLANE_Z || (isDepth && depthAt(place, 0.0) == 1.0);
    // Without a normal, no tap counts.
    float numSamples = isBackground || isnan(n.x) ? 0.0 : vo_Samples.x;

    float A = 1.0;
    if (numSamples > 0.0) {
        Spiral spiral = spiralAt(ivec2(gl_FragCoord.xy), vo_Disk.x / P.z);
        float sum = 0.0;
        float i = 0.5;
        do {
            Tap tap = nextTap(spiral, i * vo_Samples.y, pixelSize.x);
            vec2 tapPlace = isDepth ? clamp(place + trunc(tap.offset), vec2(0.5), vo_DepthSize.xy - 0.5)
                                    : place + tap.offset * pixelSize;
            vec3 Q = positionAt(tapPlace, tap.level);
            sum += contribution(Q - P, n);
            i += 1.0;
        } while (i < numSamples);
        A = max(0.0, 1.0 - 4.0 * sum * vo_Occlusion.z * 5.0 / vo_Samples.x);
    }
    gl_FragColor = vec4(A, A, A, 1.0);
}
)"_s;

unsigned int depthAttachment(const Texture& depth)
{
    const unsigned int format = formatFromInternalFormat(depth.internalFormat());
    if (format == GL_DEPTH_STENCIL) {
        return GL_DEPTH_STENCIL_ATTACHMENT;
    }
    if (format != GL_DEPTH_COMPONENT) {
        // Attached as depth all the same. Deliberate: the framebuffer is incomplete and nothing is drawn.
        logFailedCheck(sourceFile, __LINE__, "false", u"Unhandled depth format"_s);
    }
    return GL_DEPTH_ATTACHMENT;
}

} // namespace

const PassDescription& ScalableAmbientObscuranceRenderPass::description()
{
    static const PassDescription description{
        .type = u"ScalableAmbientObscuranceRenderPass"_s,
        .summary = u"Darkens corners, creases and contacts by an estimate of ambient visibility."_s,
        .inputs = {viewportInput(u"full-resolution size; the origin is ignored"_s, u"1 x 1, unoccluded"_s),
                   projectionMatrixInput(),
                   cameraMatrixInput(),
                   {.name = u"Qel_float_NearPlane"_s,
                    .meaning = u"distance of the near plane"_s,
                    .whenMissing = u"0"_s,
                    .range = u"above 0"_s,
                    .unit = u"scene units"_s,
                    .limits = {.minimum = 0.0, .isAboveMinimum = true}},
                   {.name = u"Qel_float_FarPlane"_s,
                    .meaning = u"distance of the far plane"_s,
                    .whenMissing = u"0"_s,
                    .range = u"above the near plane"_s,
                    .unit = u"scene units"_s,
                    .limits = {.minimum = 0.0, .isAboveMinimum = true}},
                   {.name = u"Qel_QelTexture*_Depth"_s,
                    .meaning =
                        u"depth 0 to 1, with or without stencil, of the output's size; 1 is background"_s,
                    .whenMissing = u"the output is 1 everywhere, even if positions are connected"_s,
                    .isDepth = true,
                    .encoding = Encoding::Data,
                    .wantsOpaqueDepth = true,
                    .perspectiveReason =
                        u"positions are reconstructed from the depth; connect CameraSpacePosition to a "
                        "CameraSpaceZBufferRenderPass"_s,
                    .orthographicInput = u"Qel_QelTexture*_CameraSpacePosition"_s},
                   {.name = u"Qel_float_SAORadius"_s,
                    .meaning = u"largest distance at which an occluder counts"_s,
                    .whenMissing = u"0: nothing is occluded"_s,
                    .defaultValue = 0.08F,
                    .range = u"above 0"_s,
                    .unit = u"scene units"_s,
                    .limits = {.minimum = 0.0, .isAboveMinimum = true}},
                   {.name = u"Qel_float_SAOBias"_s,
                    .meaning = u"smallest height above the surface at which an occluder counts; hides acne"_s,
                    .whenMissing = u"0"_s,
                    .defaultValue = 0.03F,
                    .range = u"0 or more, well below the radius"_s,
                    .unit = u"scene units"_s,
                    .limits = {0.0}},
                   {.name = u"Qel_float_SAOIntensity"_s,
                    .meaning = u"strength of the darkening; a smaller radius needs a higher one"_s,
                    .whenMissing = u"0: nothing is occluded"_s,
                    .defaultValue = 1.0F,
                    .range = u"0 or more"_s,
                    .limits = {0.0}},
                   {.name = u"Qel_QelTexture*_CameraSpacePosition"_s,
                    .meaning = u"eye-space positions, mip levels 0 to 5; an orthographic view needs them"_s,
                    .whenMissing = u"positions are reconstructed from the depth"_s,
                    .unit = u"scene units"_s,
                    .encoding = Encoding::Data,
                    .space = Space::Eye},
                   {.name = u"Qel_QelTexture*_Normal"_s,
                    .meaning = u"normals in the space that the option \"normalProcessing\" names"_s,
                    .whenMissing = u"on the first frame: always computed from positions"_s,
                    .encoding = Encoding::Data,
                    .spaceOption = u"normalProcessing"_s,
                    .spaces = {Space::World, Space::Eye, Space::Unspecified}},
                   {.name = u"Qel_float_SaoNumSamples"_s,
                    .meaning = u"number of taps, rounded down"_s,
                    .whenMissing = u"0: nothing is occluded"_s,
                    .defaultValue = 11.0F,
                    .range = u"1 to 1024"_s,
                    .limits = {1.0, 1024.0}},
                   {.name = u"Qel_float_SaoNumLogMaxOffset"_s,
                    .meaning = u"subtracted from a tap's mip level, truncated; 0 or more reads level 0"_s,
                    .whenMissing = u"0"_s,
                    .defaultValue = 3.0F},
                   {.name = u"Qel_float_SaoNumSpiralTurns"_s,
                    .meaning = u"number of turns of the spiral, rounded down"_s,
                    .whenMissing = u"0"_s,
                    .defaultValue = 3.0F,
                    .range = u"1 or more"_s,
                    .limits = {1.0}},
                   {.name = u"Qel_float_ResolutionDivider"_s,
                    .meaning = u"divides the viewport's size; the result is rounded down"_s,
                    .whenMissing = u"full resolution"_s,
                    .defaultValue = 1.0F,
                    .range = u"1 or more; 0 counts as 1"_s,
                    .limits = {0.0}}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"linear visibility, 1 is unoccluded; alpha 1; RGBA16F, from the pool"_s,
                     .encoding = Encoding::Data,
                     .alpha = AlphaMeaning::Opaque}},
        .options = {{.name = u"normalProcessing"_s,
                     .meaning = u"space of the normals: world (transposeInvert) or eye (screenspace)"_s,
                     .defaultValue = u"transposeInvert"_s,
                     .choices = {u"transposeInvert"_s, u"screenspace"_s, u"calculate"_s}}}};
    return description;
}

ScalableAmbientObscuranceRenderPass::ScalableAmbientObscuranceRenderPass()
{
    declarePorts(description());
}

ScalableAmbientObscuranceRenderPass::~ScalableAmbientObscuranceRenderPass() = default;

void ScalableAmbientObscuranceRenderPass::setNormalProcessing(NormalProcessing processing)
{
    if (m_isNormalProcessingFixed) {
        logFailedCheck(sourceFile, __LINE__, "NULL == m_shaderProgram",
                       u"Do not set the normal processing once a shader has been created."_s);
    }
    // Deliberate: stored although the call was reported as an error and has no effect.
    m_normalProcessing = processing;
}

void ScalableAmbientObscuranceRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    auto* depth = getInputPointer<Texture>(Depth);
    auto* positions = getInputPointer<Texture>(CameraSpacePosition);
    auto* normals = getInputPointer<Texture>(Normal);
    const InputReferences inputs(depth, positions, normals);

    updateSize();
    const PooledTarget target(provide(m_framebuffer), TextureFormat::RGBA16F, {m_width, m_height});
    fixNormalProcessing(normals != nullptr);
    const bool readsLevels = readsCoarseLevels();
    ShaderProgram& program = provideProgram(!positions, readsLevels);
    clearTarget();
    if (depth) {
        draw(program, depth, positions, normals, readsLevels);
    }
    m_outputs[Frame].value = target.publish(m_outputs[Frame].users);
}

void ScalableAmbientObscuranceRenderPass::updateSize()
{
    const QRect viewport = m_inputs[Viewport].value.toRect();
    const float givenDivider = m_inputs[ResolutionDivider].value.toFloat();
    const float divider = givenDivider == 0.0F ? 1.0F : givenDivider;
    m_width = truncated(static_cast<float>(viewport.width()) / divider);
    m_height = truncated(static_cast<float>(viewport.height()) / divider);
}

/// Decides on the first frame where normals come from, for all programs.
void ScalableAmbientObscuranceRenderPass::fixNormalProcessing(bool hasNormals)
{
    if (m_isNormalProcessingFixed) {
        return;
    }
    m_isNormalProcessingFixed = true;
    const QString enabled = u"1"_s;
    if (!hasNormals) {
        m_macroProcessor.addDefine(u"NORMAL_CALCULATE"_s, enabled);
    } else if (m_normalProcessing == NORMAL_TRANSPOSE_INVERT) {
        m_macroProcessor.addDefine(u"NORMAL_TRANSPOSE_INVERT"_s, enabled);
    } else if (m_normalProcessing == NORMAL_SCREENSPACE) {
        m_macroProcessor.addDefine(u"NORMAL_SCREENSPACE"_s, enabled);
    }
}

/// Returns the program for an input and for whether taps may read its coarser mip levels.
ShaderProgram& ScalableAmbientObscuranceRenderPass::provideProgram(bool isDepth, bool readsLevels)
{
    const size_t index = (isDepth ? 1U : 0U) + (readsLevels ? 2U : 0U);
    std::unique_ptr<ShaderProgram>& member = m_programs.at(index);
    if (member) {
        return *member;
    }
    const auto literal = [](bool value) { return value ? u"true"_s : u"false"_s; };
    QString source = fragmentSource.arg(literal(isDepth), literal(readsLevels));
    if (OpenGLDeviceContext::current()->version() < 40) {
        // Only the code guarded by the extension needs more than version 150.
        source.replace(u"#version 400"_s, u"#version 150"_s);
    }
    ShaderProgram& program = provide(member);
    program.setMacroProcessor(&m_macroProcessor);
    program.setFragDataLocations({u"out_FragColor"_s});
    program.addShader(GL_VERTEX_SHADER, vertexSource, {});
    program.addShader(GL_FRAGMENT_SHADER, positionSource, {});
    program.addShader(GL_FRAGMENT_SHADER, source, {});
    buildProgram(program);
    provideScreenBatch(m_fullScreenQuad, program, Screen::Quad);
    return program;
}

/// Clears the target to unoccluded. Needed in every case: without a usable depth texture nothing is drawn
/// over what the pooled texture held before.
void ScalableAmbientObscuranceRenderPass::clearTarget()
{
    glClearColor(1.0F, 1.0F, 1.0F, 1.0F);
    glClear(GL_COLOR_BUFFER_BIT);
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
}

void ScalableAmbientObscuranceRenderPass::draw(ShaderProgram& program, Texture* depth, Texture* positions,
                                               Texture* normals, bool readsLevels)
{
    m_framebuffer->attach(depth, depthAttachment(*depth), 0);
    m_framebuffer->setDrawBuffers();
    // Not the size of the target: that is 1 x 1 for an empty viewport, for which nothing is drawn.
    OpenGLDeviceContext::current()->setViewport(0, 0, m_width, m_height);
    const AutoDisabler depthTestDisabler(GL_DEPTH_TEST);
    const AutoBinder programBinder(&program);
    const BoundSampler positionSampler(program, m_positionSampler, positions ? positions : depth,
                                       readsLevels ? Sampling::NearestMipmap : Sampling::Nearest);
    const BoundSampler normalSampler(program, m_normalSampler, normals, Sampling::Nearest);
    setUniforms(program, depth->size(), positions != nullptr);

    // Deliberate: the stencil is configured, but the test stays off, so it has no effect.
    glDepthMask(GL_FALSE);
    OpenGLDeviceContext::current()->disable(GL_STENCIL_TEST);
    glStencilFunc(GL_EQUAL, 1, 0xff);
    glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
    glStencilMask(0);
    checkGLError(sourceFile, __LINE__);
    drawBatch(m_fullScreenQuad);
    m_framebuffer->detach(GL_DEPTH_STENCIL_ATTACHMENT);
}

/// Whether a tap may read a level above 0, because the offset is negative or a surface close to the camera
/// has a disk wider than the frame. Surfaces are assumed to lie beyond half the distance of the near plane.
/// Without levels, software rasterisers are faster, because not every pixel chooses one.
bool ScalableAmbientObscuranceRenderPass::readsCoarseLevels() const
{
    const auto number = [this](InputPort port) { return m_inputs[port].value.toFloat(); };
    const float pixelsAtUnit =
        0.5F * m_inputs[ProjectionMatrix].value.value<QMatrix4x4>()(1, 1) * static_cast<float>(m_height);
    const float widest =
        pixelsAtUnit * number(SAORadius) / (0.5F * number(NearPlane)) / static_cast<float>(m_width);
    const int offset = truncated(number(SaoNumLogMaxOffset));
    // Not >=, because without a near plane the width may be NaN.
    return offset < -1 || !(std::abs(widest) < std::exp2(static_cast<float>(offset + 1)));
}

void ScalableAmbientObscuranceRenderPass::setUniforms(ShaderProgram& program, const QSize& depthSize,
                                                      bool hasPositions)
{
    const auto projection = m_inputs[ProjectionMatrix].value.value<QMatrix4x4>();
    const auto number = [this](InputPort port) { return m_inputs[port].value.toFloat(); };
    const auto whole = [&](InputPort port) { return truncated(number(port)); };
    const float nearPlane = number(NearPlane);
    const float farPlane = number(FarPlane);
    const float radius = number(SAORadius);

    program.setUniform(m_camera, m_inputs[CameraMatrix].value.value<QMatrix4x4>());
    program.setUniform(m_projScale, 0.5F * projection(1, 1) * static_cast<float>(m_height));
    program.setUniform(m_radius, radius);
    program.setUniform(m_radius2, radius * radius);
    program.setUniform(m_invRadius2, 1.0F / (radius * radius));
    program.setUniform(m_bias, number(SAOBias));
    program.setUniform(m_intensity, number(SAOIntensity));
    program.setUniform(m_clipInfo, QVector3D(nearPlane * farPlane, nearPlane - farPlane, farPlane));
    // The plus in the last component is right for rows counted from the top. Deliberate: here rows count from
    // the bottom, so a projection that is shifted vertically shifts the positions the wrong way.
    const auto p = [&](int row, int column) { return static_cast<double>(projection(row, column)); };
    program.setUniform(m_projInfo, QVector4D(static_cast<float>(-2.0 / (m_width * p(0, 0))),
                                             static_cast<float>(-2.0 / (m_height * p(1, 1))),
                                             static_cast<float>((1.0 - p(0, 2)) / p(0, 0)),
                                             static_cast<float>((1.0 + p(1, 2)) / p(1, 1))));
    program.setUniform(m_calculatePosition, !hasPositions);
    const int numSamples = std::min(whole(SaoNumSamples), maxSamples);
    const int numTurns = whole(SaoNumSpiralTurns);
    program.setUniform(m_numSamples, static_cast<float>(numSamples));
    program.setUniform(m_logMaxOffset, whole(SaoNumLogMaxOffset));
    program.setUniform(m_numSpiralTurns, static_cast<float>(numTurns));
    program.setUniform(m_tapTangent, static_cast<float>(std::tan(3.14 * numTurns / std::max(numSamples, 1))));
    program.setUniform(m_depthSize, QVector2D(static_cast<float>(depthSize.width()),
                                              static_cast<float>(depthSize.height())));
}

} // namespace Morvane::Qel
