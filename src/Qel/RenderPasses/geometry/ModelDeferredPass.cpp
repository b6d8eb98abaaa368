#include <Qel/RenderPasses/geometry/ModelDeferredPass.h>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

// Deliberate: the depth is declared but neither bound nor read, and the normal is not normalised. The
// background has a shininess of 0; what pow(0, 0) gives there is up to the driver.
const QString fragmentSource = uR"(#version 150
#include "DirectionalLight.glslh"
uniform sampler2D u_SamplerDiffuse;
uniform sampler2D u_SamplerSpecular;
uniform sampler2D u_SamplerNormal;
uniform sampler2D u_SamplerDepth;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

void main()
{
    vec4 Kd = texture(u_SamplerDiffuse, vo_TexCoord);
    vec4 spec = texture(u_SamplerSpecular, vo_TexCoord);
    vec3 N = texture(u_SamplerNormal, vo_TexCoord).xyz;
    vec3 L = normalize(vec3(100.0, 100.0, 100.0));
    out_FragColor = vec4(directionalLight(Kd.rgb, spec.rgb, spec.a, N, L), Kd.a);
}
)"_s;

} // namespace

const PassDescription& ModelDeferredPass::description()
{
    static const PassDescription description{
        .type = u"ModelDeferredPass"_s,
        .summary = u"Shades the G-buffer of ModelRenderPass with a directional light that moves with the "
                   "camera."_s,
        .inputs = {viewportInput(u"size of the output; the origin is ignored"_s, u"no texture is made"_s),
                   {.name = u"Qel_QMatrix4x4_ProjectionMatrix"_s,
                    .meaning = u"not used"_s,
                    .whenMissing = u"no effect"_s},
                   {.name = u"Qel_QMatrix4x4_CameraMatrix"_s,
                    .meaning = u"not used"_s,
                    .whenMissing = u"no effect"_s},
                   {.name = u"Qel_QelTexture*_Diffuse"_s,
                    .meaning = u"the diffuse colour, alpha holding the dissolve"_s,
                    .whenMissing = u"no diffuse light; alpha is 1, or 0 once the depth has been missing"_s},
                   {.name = u"Qel_QelTexture*_Specular"_s,
                    .meaning = u"the specular colour, alpha holding the shininess"_s,
                    .whenMissing = u"no highlights"_s},
                   {.name = u"Qel_QelTexture*_Normal"_s,
                    .meaning = u"the eye-space normal"_s,
                    .whenMissing = u"black, with the dissolve as alpha"_s,
                    .encoding = Encoding::Data,
                    .space = Space::Eye},
                   {.name = u"Qel_QelTexture*_Depth"_s,
                    .meaning = u"not used"_s,
                    .whenMissing = u"from then on, transparent black replaces other missing textures"_s}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"the lit colour, clamped, straight alpha holding the dissolve; GL_RGBA "
                                "with 8 bits a channel, owned by the pass"_s,
                     .encoding = Encoding::AsMaterials,
                     .alpha = AlphaMeaning::Straight}}};
    return description;
}

ModelDeferredPass::ModelDeferredPass()
{
    declarePorts(description());
}

ModelDeferredPass::~ModelDeferredPass() = default;

void ModelDeferredPass::start(RenderCallbacks* /*callbacks*/)
{
    auto* diffuse = getInputPointer<Texture>(Diffuse);
    auto* specular = getInputPointer<Texture>(Specular);
    auto* normal = getInputPointer<Texture>(Normal);
    auto* depth = getInputPointer<Texture>(Depth);
    const InputReferences inputs(diffuse, specular, normal, depth);
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
    const BoundSampler diffuses(*m_program, m_samplerDiffuse, orFallback(diffuse), Sampling::Nearest);
    const BoundSampler speculars(*m_program, m_samplerSpecular, orFallback(specular), Sampling::Nearest);
    const BoundSampler normals(*m_program, m_samplerNormal, orFallback(normal), Sampling::Nearest);
    drawBatch(m_fullScreenBatch);
    m_outputs[Frame].value = attachedTexture(m_framebuffer, GL_COLOR_ATTACHMENT0);
}

} // namespace Morvane::Qel
