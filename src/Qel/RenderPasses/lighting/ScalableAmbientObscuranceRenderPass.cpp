#include <Qel/RenderPasses/lighting/ScalableAmbientObscuranceRenderPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/InputPointers.h>
#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/Numbers.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/Formats.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr int maxSamples = 1024;

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/ScalableAmbientObscuranceRenderPass";

// Linked into the program for others to call. Deliberate.
const QString positionSource = uR"(#version 150
uniform mat4 u_InvProjMatrix;

vec3 positionFromDepth(vec2 uv, float depth)
{
    vec4 p = u_InvProjMatrix * vec4(uv * 2.0 - 1.0, depth * 2.0 - 1.0, 1.0);
    return p.xyz / p.w;
}
)"_s;

// The level of a tap follows from its radius as a fraction of the picture, not in pixels as it was published,
// and so it stays 0 within any picture. Deliberate; a negative offset raises it. Deliberate too: the numbers
// that are compiled in and that the uniforms supersede, and radius2, which nothing reads. Normals of the
// texture are brought to unit length in both modes.
//
// max(0.0, x) is 0 where x is not a number, as with a radius of 0; max(x, 0.0) is not.
const QString fragmentSource = uR"(#version 400
#ifdef GL_ARB_gpu_shader5
#extension GL_ARB_gpu_shader5 : enable
#endif
#define gl_FragColor out_FragColor
#define NUM_SAMPLES 7
#define LOG_MAX_OFFSET 3
#define NUM_SPIRAL_TURNS 3
#define MAX_MIP_LEVEL 5
#define FAR_PLANE_Z -1e6

uniform sampler2D CS_Z_buffer;         // depth, or eye-space positions
uniform mat4 u_Camera;
uniform float projScale;               // pixels of one unit at distance 1
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
uniform int u_CoarsestLevel;           // that the depth has
in vec2 vo_TexCoord;
out vec4 out_FragColor;

#if defined(NORMAL_TRANSPOSE_INVERT)
uniform sampler2D u_Normals;
vec3 normalAt(vec3 position)
{
    return normalize(transpose(inverse(mat3(u_Camera))) * texture(u_Normals, vo_TexCoord).xyz);
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

vec3 positionOf(ivec2 pixel, float depth)
{
    float z = u_ClipInfo.x / (u_ClipInfo.y * depth + u_ClipInfo.z);
    vec2 s = vec2(pixel) + 0.5;
    return -vec3((s * u_ProjInfo.xy + u_ProjInfo.zw) * z, z);
}

int mipLevel(float tapFraction)
{
#ifdef GL_ARB_gpu_shader5
    int magnitude = findMSB(int(tapFraction));
#else
    float magnitude = floor(log2(tapFraction));
#endif
    return int(clamp(magnitude - u_LogMaxOffset, 0, MAX_MIP_LEVEL));
}

// Where a tap is, in pixels from the centre, and the mip level that it wants.
struct Tap
{
    vec2 offset;
    int level;
};

Tap spiralTap(int i, float diskRadius, float rotation, float pixelWidth)
{
    float alpha = (float(i) + 0.5) / u_NumSamples;
    float angle = alpha * u_NumSpiralTurns * 6.28 + rotation; // not quite a full turn: deliberate
    float tapRadius = alpha * diskRadius;
    return Tap(tapRadius * vec2(cos(angle), sin(angle)), mipLevel(tapRadius * pixelWidth));
}

vec3 positionFromDepthAt(ivec2 pixel, Tap tap, ivec2 size)
{
    ivec2 tapPixel = clamp(pixel + ivec2(tap.offset), ivec2(0), size - 1);
    int level = min(tap.level, u_CoarsestLevel);
    ivec2 texel = min(tapPixel >> level, max(size >> level, 1) - 1);
    return positionOf(tapPixel, texelFetch(CS_Z_buffer, texel, level).r);
}

// A quarter of what a tap contributes; the factor stands outside the sum.
float contribution(vec3 v, vec3 n)
{
    return max(0.0, 1.0 - dot(v, v) * invRadius2) * max(0.0, dot(v, n) - bias);
}

void main()
{
    // Derivatives are undefined behind a discard, so all of them come before.
    vec2 pixelSize = fwidth(vo_TexCoord);
    ivec2 pixel = ivec2(gl_FragCoord.xy);
    ivec2 size = textureSize(CS_Z_buffer, 0);
    bool isBackground = false;
    vec3 P;
    if (u_CalculateCSPosition) {
        // Neighbours beyond the border take part in derivatives.
        float depth = texelFetch(CS_Z_buffer, min(pixel, size - 1), 0).r;
        isBackground = depth == 1.0;
        P = positionOf(pixel, depth);
    } else {
        P = textureLod(CS_Z_buffer, vo_TexCoord, 0.0).xyz;
    }
    vec3 n = normalAt(P);
    if (isBackground || P.z < FAR_PLANE_Z) {
        discard;
    }

    // Large and hardly random, as it was published. Deliberate.
    float rotation = float((3 * (pixel.x ^ pixel.y) + pixel.x * pixel.y) * 10);
    float diskRadius = -projScale * radius / P.z;
    float sum = 0.0;
    // The choice stands outside the loops, as software rasterisers pay for both sides of it.
    if (u_CalculateCSPosition) {
        for (int i = 0; float(i) < u_NumSamples; ++i) {
            Tap tap = spiralTap(i, diskRadius, rotation, pixelSize.x);
            sum += contribution(positionFromDepthAt(pixel, tap, size) - P, n);
        }
    } else {
        for (int i = 0; float(i) < u_NumSamples; ++i) {
            Tap tap = spiralTap(i, diskRadius, rotation, pixelSize.x);
            vec2 uv = vo_TexCoord + tap.offset * pixelSize;
            sum += contribution(textureLod(CS_Z_buffer, uv, float(tap.level)).xyz - P, n);
        }
    }
    float A = max(0.0, 1.0 - 4.0 * sum * intensity * 5.0 / max(1.0, u_NumSamples));
    gl_FragColor = vec4(A, A, A, 1.0);
}
)"_s;

/// The source as the driver takes it. Nothing in it but what the extension guards needs more than version
/// 150.
QString fragmentSourceFor(const OpenGLDeviceContext* context)
{
    constexpr int firstWithVersion400 = 40;
    QString source = fragmentSource;
    if (context->version() < firstWithVersion400) {
        source.replace(u"#version 400"_s, u"#version 150"_s);
    }
    return source;
}

unsigned int depthAttachment(const Texture* depth)
{
    switch (formatFromInternalFormat(depth->internalFormat())) {
    case GL_DEPTH_STENCIL:
        return GL_DEPTH_STENCIL_ATTACHMENT;
    case GL_DEPTH_COMPONENT:
        break;
    default:
        // Attached all the same. Deliberate; GL then draws nothing.
        logFailedCheck(sourceFile, __LINE__, "false", u"Unhandled depth format"_s);
    }
    return GL_DEPTH_ATTACHMENT;
}

} // namespace

const PassDescription& ScalableAmbientObscuranceRenderPass::description()
{
    static const PassDescription description{
        u"ScalableAmbientObscuranceRenderPass"_s,
        u"Darkens corners, creases and contacts: estimates how much ambient light arrives."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"full-resolution size of the picture; the origin is ignored"_s,
          u"1 x 1, and nothing is drawn"_s,
          {},
          u"pixels"_s},
         {u"Qel_QMatrix4x4_ProjectionMatrix"_s,
          u"eye space to clip space; an orthographic one needs the positions input"_s, u"identity"_s},
         {u"Qel_QMatrix4x4_CameraMatrix"_s, u"world space to eye space, for world-space normals"_s,
          u"identity"_s},
         {u"Qel_float_NearPlane"_s,
          u"distance of the near plane"_s,
          u"0"_s,
          {},
          u"units of the scene, above 0"_s},
         {u"Qel_float_FarPlane"_s,
          u"distance of the far plane"_s,
          u"0"_s,
          {},
          u"units of the scene, above the near plane"_s},
         {u"Qel_QelTexture*_Depth"_s,
          u"depth 0 to 1, with or without stencil, of the result's size; 1 is background"_s,
          u"all of the result is 1, with the positions input too"_s},
         {u"Qel_float_SAORadius"_s, u"how far away an occluder takes light"_s, u"0: nothing is obscured"_s,
          0.08F, u"units of the scene, above 0"_s},
         {u"Qel_float_SAOBias"_s, u"height above the surface from which an occluder counts; hides acne"_s,
          u"0"_s, 0.03F, u"units of the scene, 0 or more, well below the radius"_s},
         {u"Qel_float_SAOIntensity"_s, u"factor of the darkening; smaller radii need larger ones"_s,
          u"0: nothing is obscured"_s, 1.0F, u"0 or more"_s},
         {u"Qel_QelTexture*_CameraSpacePosition"_s, u"eye-space positions with mip levels 0 to 5"_s,
          u"positions come out of the depth, for a perspective projection"_s},
         {u"Qel_QelTexture*_Normal"_s,
          u"normals, as the option \"normalProcessing\" says; whether there is one counts on "
          "the first frame"_s,
          u"normals are calculated from neighbouring positions"_s},
         {u"Qel_float_SaoNumSamples"_s, u"number of taps, rounded down"_s, u"0: nothing is obscured"_s, 11.0F,
          u"1 to 1024"_s},
         {u"Qel_float_SaoNumLogMaxOffset"_s,
          u"what is taken off the mip level of a tap, rounded down; the levels are 0 at 0 and "
          "above"_s,
          u"0"_s, 3.0F},
         {u"Qel_float_SaoNumSpiralTurns"_s, u"turns of the spiral of taps, rounded down"_s, u"0"_s, 3.0F,
          u"1 or more"_s},
         {u"Qel_float_ResolutionDivider"_s, u"what the size is divided by; the result is rounded down"_s,
          u"full resolution"_s, 1.0F, u"1 or more; 0 acts as 1"_s}},
        {{u"Qel_QelTexture*_Frame"_s,
          u"the visibility in red, green and blue, 1 being unoccluded; RGBA16F, pooled"_s}},
        {{u"normalProcessing"_s,
          u"what the normal texture holds: world-space normals or eye-space ones"_s,
          u"transposeInvert"_s,
          {u"transposeInvert"_s, u"screenspace"_s, u"calculate"_s}}}};
    return description;
}

ScalableAmbientObscuranceRenderPass::ScalableAmbientObscuranceRenderPass()
{
    declarePorts(description());
}

ScalableAmbientObscuranceRenderPass::~ScalableAmbientObscuranceRenderPass() = default;

void ScalableAmbientObscuranceRenderPass::setNormalProcessing(NormalProcessing processing)
{
    if (m_shaderProgram) {
        logFailedCheck(sourceFile, __LINE__, "NULL == m_shaderProgram",
                       u"Do not set the normal processing once a shader has been created."_s);
    }
    // Kept although it was reported and has no effect. Deliberate.
    m_normalProcessing = processing;
}

void ScalableAmbientObscuranceRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QRect viewport = m_inputs[Viewport].value.toRect();
    float divider = m_inputs[ResolutionDivider].value.toFloat();
    if (divider == 0.0F) {
        divider = 1.0F;
    }
    m_width = truncated(static_cast<float>(viewport.width()) / divider);
    m_height = truncated(static_cast<float>(viewport.height()) / divider);
    auto* depth = getInputPointer<Texture>(Depth);
    auto* positions = getInputPointer<Texture>(CameraSpacePosition);
    auto* normals = getInputPointer<Texture>(Normal);

    if (!m_framebuffer) {
        m_framebuffer = std::make_unique<FramebufferObject>(nullptr);
    }
    const AutoBinder framebufferBinder(m_framebuffer.get());
    attachTempTarget(m_framebuffer.get(), TextureFormat::RGBA16F, m_width, m_height);
    if (!m_shaderProgram) {
        buildProgram(normals != nullptr);
    }
    // Also without a depth, or with one that cannot be attached: what the pool's texture last held must not
    // show.
    clearTarget();
    if (depth) {
        m_framebuffer->attach(depth, depthAttachment(depth), 0);
        draw(depth, positions, normals);
    }

    m_outputs[Frame].value =
        publishPooled(m_framebuffer->detach(GL_COLOR_ATTACHMENT0), m_outputs[Frame].users);
    m_framebuffer->detach(GL_DEPTH_STENCIL_ATTACHMENT);
    for (Texture* input : {depth, positions, normals}) {
        TextureManager::Instance()->releaseTempTextureRef(input, 1);
    }
}

void ScalableAmbientObscuranceRenderPass::buildProgram(bool hasNormals)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    const QString enabled = u"1"_s;
    if (!hasNormals) {
        m_macroProcessor.addDefine(u"NORMAL_CALCULATE"_s, enabled);
    } else if (m_normalProcessing == NORMAL_TRANSPOSE_INVERT) {
        m_macroProcessor.addDefine(u"NORMAL_TRANSPOSE_INVERT"_s, enabled);
    } else if (m_normalProcessing == NORMAL_SCREENSPACE) {
        m_macroProcessor.addDefine(u"NORMAL_SCREENSPACE"_s, enabled);
    }
    m_shaderProgram = std::make_unique<ShaderProgram>(nullptr);
    m_shaderProgram->setMacroProcessor(&m_macroProcessor);
    m_shaderProgram->setFragDataLocations({u"out_FragColor"_s});
    m_shaderProgram->addShader(GL_VERTEX_SHADER, fullScreenVertexSource, {});
    m_shaderProgram->addShader(GL_FRAGMENT_SHADER, positionSource, {});
    m_shaderProgram->addShader(GL_FRAGMENT_SHADER, fragmentSourceFor(context), {});
    Qel::buildProgram(m_shaderProgram.get());
    m_fullScreenQuad = context->fullScreenQuad();
    enableArrays(m_fullScreenQuad, m_shaderProgram.get());
}

void ScalableAmbientObscuranceRenderPass::clearTarget()
{
    m_framebuffer->setDrawBuffers();
    OpenGLDeviceContext::current()->setViewport(0, 0, m_width, m_height);
    glClearColor(1.0F, 1.0F, 1.0F, 1.0F);
    glClear(GL_COLOR_BUFFER_BIT);
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
}

void ScalableAmbientObscuranceRenderPass::draw(Texture* depth, Texture* positions, Texture* normals)
{
    const AutoDisabler depthTestDisabler(GL_DEPTH_TEST);
    m_framebuffer->setDrawBuffers();
    OpenGLDeviceContext::current()->setViewport(0, 0, m_width, m_height);
    const AutoBinder programBinder(m_shaderProgram.get());
    const AutoBinder depthBinder(depth);
    const AutoBinder positionsBinder(positions);
    const AutoBinder normalsBinder(normals);
    setUniforms(depth, positions, normals);

    // The stencil is set up and the test left off, so that the set-up stays without effect. Deliberate.
    glDepthMask(GL_FALSE);
    OpenGLDeviceContext::current()->disable(GL_STENCIL_TEST);
    glStencilFunc(GL_EQUAL, 1, 0xff);
    glStencilOp(GL_KEEP, GL_KEEP, GL_KEEP);
    glStencilMask(0);
    checkGLError(sourceFile, __LINE__);
    drawBatch(m_fullScreenQuad.data());
}

void ScalableAmbientObscuranceRenderPass::setUniforms(Texture* depth, Texture* positions, Texture* normals)
{
    const auto projection = m_inputs[ProjectionMatrix].value.value<QMatrix4x4>();
    const float nearPlane = m_inputs[NearPlane].value.toFloat();
    const float farPlane = m_inputs[FarPlane].value.toFloat();
    const float radius = m_inputs[SAORadius].value.toFloat();
    const auto whole = [this](InputPort port) { return truncated(m_inputs[port].value.toFloat()); };

    ShaderProgram& program = *m_shaderProgram;
    program.setUniform(m_positionSampler, (positions ? positions : depth)->unit());
    if (normals) {
        program.setUniform(m_normalSampler, normals->unit());
    }
    program.setUniform(m_camera, m_inputs[CameraMatrix].value.value<QMatrix4x4>());
    program.setUniform(m_projScale, 0.5F * projection(1, 1) * static_cast<float>(m_height));
    program.setUniform(m_radius, radius);
    program.setUniform(m_radius2, radius * radius);
    program.setUniform(m_invRadius2, 1.0F / (radius * radius));
    program.setUniform(m_bias, m_inputs[SAOBias].value.toFloat());
    program.setUniform(m_intensity, m_inputs[SAOIntensity].value.toFloat());
    program.setUniform(m_clipInfo, QVector3D(nearPlane * farPlane, nearPlane - farPlane, farPlane));
    // The plus in the last component is right for rows that count from the top. Deliberate: here, where they
    // count from the bottom, a projection that is shifted upwards shifts the positions the wrong way.
    const auto p = [&projection](int row, int column) {
        return static_cast<double>(projection(row, column));
    };
    program.setUniform(m_projInfo, QVector4D(static_cast<float>(-2.0 / (m_width * p(0, 0))),
                                             static_cast<float>(-2.0 / (m_height * p(1, 1))),
                                             static_cast<float>((1.0 - p(0, 2)) / p(0, 0)),
                                             static_cast<float>((1.0 + p(1, 2)) / p(1, 1))));
    program.setUniform(m_calculatePosition, positions == nullptr);
    // Bounded, as a GPU that loops for seconds is reset.
    program.setUniform(m_numSamples, static_cast<float>(std::min(whole(SaoNumSamples), maxSamples)));
    program.setUniform(m_logMaxOffset, whole(SaoNumLogMaxOffset));
    program.setUniform(m_numSpiralTurns, static_cast<float>(whole(SaoNumSpiralTurns)));
    program.setUniform(m_coarsestLevel, std::max(depth->levels() - 1, 0));
}

} // namespace Morvane::Qel
