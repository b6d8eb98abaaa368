#include <Qel/RenderPasses/geometry/DeferredRenderPass.h>

#include <QMatrix4x4>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

// All of this is deliberate: the depth stays in its stored range of 0 to 1 while x and y are mapped to -1 to
// 1; the normal keeps the w of its texture (1 for a texture without alpha); the texture coordinate is read
// from whatever unit 0 holds and not used; the cosine is clamped only by the 8-bit target.
const QString fragmentSource = uR"(#version 150
uniform sampler2D u_SamplerNormal;
uniform sampler2D u_SamplerTexCoord;
uniform sampler2D u_SamplerDepth;
uniform mat4 u_CameraMatrix;
uniform mat4 u_NormalMatrix;
uniform mat4 u_InvProjMatrix;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

vec4 positionFromDepth(vec2 uv)
{
    float z = texture(u_SamplerDepth, uv).r;
    vec4 position = u_InvProjMatrix * vec4(uv * 2.0 - 1.0, z, 1.0);
    return position / position.w;
}

void main()
{
    vec4 SampleVertex = positionFromDepth(vo_TexCoord);
    vec4 SampleNormal = texture(u_SamplerNormal, vo_TexCoord);
    vec2 SampleTexCoord = texture(u_SamplerTexCoord, vo_TexCoord).rg;
    vec4 LightSourcePos = u_CameraMatrix * vec4(100.0, 100.0, 100.0, 1.0);
    vec4 VertexInEyeSpace = u_CameraMatrix * SampleVertex;
    vec4 NormalInEyeSpace = u_NormalMatrix * SampleNormal;
    float LDotN = dot(normalize(LightSourcePos.xyz - VertexInEyeSpace.xyz), NormalInEyeSpace.xyz);
    out_FragColor = vec4(LDotN, LDotN, LDotN, 1.0);
}
)"_s;

} // namespace

const PassDescription& DeferredRenderPass::description()
{
    static const PassDescription description{
        .type = u"DeferredRenderPass"_s,
        .summary = u"Shades a G-buffer in grey with a point light at (100, 100, 100) in world space."_s,
        .inputs = {viewportInput(u"size of the output; the origin is ignored"_s, u"no texture is made"_s),
                   {.name = u"Qel_QMatrix4x4_ProjectionMatrix"_s,
                    .meaning = u"eye space to clip space; its inverse is transposed before use"_s,
                    .whenMissing = u"identity"_s,
                    .perspectiveReason = u"the light would flip its side within the image; "
                                         "ModelDeferredPass shades without the projection"_s},
                   cameraMatrixInput(),
                   {.name = u"Qel_QelTexture*_Normal"_s,
                    .meaning = u"the world-space normal"_s,
                    .whenMissing = u"the output is black"_s,
                    .encoding = Encoding::Data,
                    .space = Space::World},
                   {.name = u"Qel_QelTexture*_TexCoord"_s,
                    .meaning = u"not used"_s,
                    .whenMissing = u"no effect"_s},
                   {.name = u"Qel_QelTexture*_Depth"_s,
                    .meaning = u"the depth, from 0 to 1"_s,
                    .whenMissing = u"0 everywhere"_s,
                    .encoding = Encoding::Data,
                    .wantsOpaqueDepth = true}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"the cosine of the angle between normal and light direction as opaque "
                                "grey; GL_RGBA with 8 bits a channel, owned by the pass"_s,
                     .encoding = Encoding::Display,
                     .alpha = AlphaMeaning::Opaque}}};
    return description;
}

DeferredRenderPass::DeferredRenderPass()
{
    declarePorts(description());
}

DeferredRenderPass::~DeferredRenderPass() = default;

void DeferredRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();
    const auto projection = m_inputs[ProjectionMatrix].value.value<QMatrix4x4>();
    auto* normal = getInputPointer<Texture>(Normal);
    auto* texCoord = getInputPointer<Texture>(TexCoord);
    auto* depth = getInputPointer<Texture>(Depth);
    const InputReferences inputs(normal, texCoord, depth);
    if (!depth && !m_fallback) {
        m_fallback = makeTexelTexture(Qt::transparent);
        ResourceScope::leave(m_fallback);
    }
    // Deliberate: only a missing depth makes the fallback; until then other missing textures have none.
    const auto orFallback = [&](Texture* texture) { return texture ? texture : m_fallback; };

    provideTargets(m_framebuffer, m_width, m_height, m_inputs[Viewport].value.toRect(),
                   {{GL_COLOR_ATTACHMENT0, GL_RGBA, GL_BGRA, GL_UNSIGNED_BYTE}});
    provideScreenProgram(m_program, m_fullScreenBatch, {fragmentSource});
    const AutoBinder framebufferBinder(m_framebuffer);
    m_framebuffer->setDrawBuffers();
    OpenGLDeviceContext::current()->disable(GL_DEPTH_TEST);
    glClear(GL_COLOR_BUFFER_BIT);

    const AutoBinder programBinder(m_program);
    const BoundSampler normals(*m_program, m_samplerNormal, orFallback(normal), Sampling::Nearest);
    const AutoBinder texCoordBinder(orFallback(texCoord));
    const BoundSampler depths(*m_program, m_samplerDepth, orFallback(depth), Sampling::Nearest);
    m_program->setUniform(m_cameraMatrix, camera);
    m_program->setUniform(m_normalMatrix, camera.inverted().transposed());
    // Deliberate: transposed like a normal matrix; the header describes the effect.
    m_program->setUniform(m_invProjMatrix, projection.inverted().transposed());
    drawBatch(m_fullScreenBatch);
    m_outputs[Frame].value = attachedTexture(m_framebuffer, GL_COLOR_ATTACHMENT0);
}

} // namespace Morvane::Qel
