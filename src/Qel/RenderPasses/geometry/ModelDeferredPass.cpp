#include <Qel/RenderPasses/geometry/ModelDeferredPass.h>

#include <QRect>

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

// The depth is declared but neither bound nor read: deliberate. The normal is used as it is stored. The
// background has a shininess of 0, and the driver decides what the light makes of that.
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
        u"ModelDeferredPass"_s,
        u"Shades the images of ModelRenderPass by a directional light that moves with the "
        "camera."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the texture; the origin is ignored"_s,
          u"no texture is made"_s,
          {},
          u"pixels"_s},
         {u"Qel_QMatrix4x4_ProjectionMatrix"_s, u"not used"_s, u"nothing changes"_s},
         {u"Qel_QMatrix4x4_CameraMatrix"_s, u"not used"_s, u"nothing changes"_s},
         {u"Qel_QelTexture*_Diffuse"_s, u"diffuse colours, alpha the dissolve"_s,
          u"no diffuse light; an alpha of 0 once a depth was missing, else of 1"_s},
         {u"Qel_QelTexture*_Specular"_s, u"specular colours, alpha the shininess"_s, u"no highlights"_s},
         {u"Qel_QelTexture*_Normal"_s, u"normals in eye space"_s, u"black, with the dissolve as alpha"_s},
         {u"Qel_QelTexture*_Depth"_s, u"not used"_s,
          u"transparent black stands in for other missing textures, from then on"_s}},
        {{u"Qel_QelTexture*_Frame"_s,
          u"lit colours, alpha the dissolve; GL_RGBA of 8 bits, owned by the pass"_s}}};
    return description;
}

ModelDeferredPass::ModelDeferredPass()
{
    declarePorts(description());
}

ModelDeferredPass::~ModelDeferredPass() = default;

void ModelDeferredPass::start(RenderCallbacks* /*callbacks*/)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    const QRect viewport = m_inputs[Viewport].value.toRect();
    auto* diffuse = getInputPointer<Texture>(Diffuse);
    auto* specular = getInputPointer<Texture>(Specular);
    auto* normal = getInputPointer<Texture>(Normal);
    auto* depth = getInputPointer<Texture>(Depth);
    if (!depth && !m_fallback) {
        m_fallback = makeTransparentTexture();
    }
    // Only a missing depth makes the fallback: until then other missing textures have none. Deliberate.
    const auto orFallback = [&](Texture* texture) { return texture ? texture : m_fallback; };

    if (!m_framebuffer) {
        m_framebuffer = new FramebufferObject(nullptr);
    }
    if (viewport.width() != m_width || viewport.height() != m_height) {
        resize(viewport.width(), viewport.height());
    }
    if (!m_program) {
        buildProgram();
    }

    const AutoBinder framebufferBinder(m_framebuffer);
    m_framebuffer->setDrawBuffers();
    context->disable(GL_DEPTH_TEST);
    glClear(GL_COLOR_BUFFER_BIT);
    {
        const AutoBinder programBinder(m_program);
        const AutoBinder diffuseBinder(orFallback(diffuse));
        const AutoBinder specularBinder(orFallback(specular));
        const AutoBinder normalBinder(orFallback(normal));
        m_program->setUniform(m_samplerDiffuse, samplerUnit(orFallback(diffuse)));
        m_program->setUniform(m_samplerSpecular, samplerUnit(orFallback(specular)));
        m_program->setUniform(m_samplerNormal, samplerUnit(orFallback(normal)));
        drawBatch(m_fullScreenBatch.data());
    }
    m_outputs[Frame].value = textureVariant(m_framebuffer->attachment(GL_COLOR_ATTACHMENT0));
    for (Texture* input : {diffuse, specular, normal, depth}) {
        TextureManager::Instance()->releaseTempTextureRef(input, 1);
    }
}

void ModelDeferredPass::resize(int width, int height)
{
    m_width = width;
    m_height = height;
    const AutoBinder framebufferBinder(m_framebuffer);
    replaceAttachment(m_framebuffer, GL_COLOR_ATTACHMENT0,
                      makeTarget(width, height, GL_RGBA, GL_BGRA, GL_UNSIGNED_BYTE));
}

void ModelDeferredPass::buildProgram()
{
    m_program = new ShaderProgram(nullptr);
    addFullScreenShaders(m_program, fragmentSource);
    Qel::buildProgram(m_program);
    m_fullScreenBatch = OpenGLDeviceContext::current()->fullScreenTriangle();
    enableArrays(m_fullScreenBatch, m_program);
}

} // namespace Morvane::Qel
