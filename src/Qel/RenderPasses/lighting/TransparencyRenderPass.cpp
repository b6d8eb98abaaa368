#include <Qel/RenderPasses/lighting/TransparencyRenderPass.h>

#include <QMatrix4x4>
#include <QRect>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/InputPointers.h>
#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/RenderPasses/support/ModelPrograms.h>
#include <Qel/RenderPasses/support/Targets.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/TransparencyRenderPass";

// Invariant, so that an opaque fragment comes back in the accumulation with the very depth that it has
// written, and fails against it.
const QString vertexSource = uR"(#version 150
#instancedata "InstanceInfo"
uniform mat4 u_CameraMatrix;
uniform mat4 u_ProjectionMatrix;
in vec3 va_Vertex;
in vec3 va_Normal;
in vec2 va_TexCoord;
out vec3 vo_Normal;
out vec2 vo_TexCoord;
invariant gl_Position;

void main()
{
    gl_Position = u_ProjectionMatrix * u_CameraMatrix * getModelMatrix() * vec4(va_Vertex, 1.0);
    vo_Normal = transpose(inverse(mat3(u_CameraMatrix))) * mat3(getModelNormalMatrix()) * va_Normal;
    vo_TexCoord = va_TexCoord;
}
)"_s;

// What both fragment stages begin with. The normal is used as it was interpolated, without normalising it.
// Deliberate.
const QString shadingSource = uR"(#version 150
#instancedata "OBJMaterial"
#include "DirectionalLight.glslh"
#include "TextureManager.glslh"
in vec3 vo_Normal;
in vec2 vo_TexCoord;

vec3 litColour()
{
    vec3 Kd = getKd() * managedTexture(getMap_Kd(), vo_TexCoord).rgb;
    vec3 Ks = getKs() * managedTexture(getMap_Ks(), vo_TexCoord).rgb;
    vec3 L = normalize(vec3(100.0, 100.0, 100.0));
    return directionalLight(Kd, Ks, getNs(), vo_Normal, L);
}
)"_s;

// out_Id has no attachment and goes nowhere. Deliberate.
const QString opaqueSource = shadingSource + uR"(
out vec4 out_FragColor;
out vec4 out_Id;

void main()
{
    float alpha = getD();
    if (alpha < 1.0) {
        discard;
    }
    out_FragColor = vec4(litColour(), alpha);
    out_Id = vec4(float(gl_PrimitiveID) + 1.0);
}
)"_s;

// Opaque fragments are not discarded: the depth test keeps them out, whose function does not pass the depths
// that they have written themselves. Where it passes them, they end what shines through. At a depth of
// exactly 0 the weight is infinite. The colour is not multiplied by alpha. All deliberate.
const QString accumulationSource = shadingSource + uR"(
out vec4 out_FragColor[2];

void main()
{
    float alpha = getD();
    float weight = pow(abs(gl_FragCoord.z), -5.0);
    out_FragColor[0] = vec4(litColour() * weight, alpha);
    out_FragColor[1] = vec4(alpha * weight);
}
)"_s;

const QString resolveSource = uR"(#version 150
uniform sampler2D u_SamplerA;
uniform sampler2D u_SamplerB;
out vec4 out_FragColor;

void main()
{
    ivec2 pixel = ivec2(gl_FragCoord.xy);
    vec4 colours = texelFetch(u_SamplerA, pixel, 0);
    float revealage = colours.a;
    float coverages = texelFetch(u_SamplerB, pixel, 0).r;
    out_FragColor = vec4(colours.rgb / clamp(coverages, 1e-4, 5e4), revealage);
}
)"_s;

} // namespace

const PassDescription& TransparencyRenderPass::description()
{
    static const PassDescription description{
        u"TransparencyRenderPass"_s,
        u"Draws a model with transparent materials, which need no sorting."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the textures; the origin is ignored"_s,
          u"no texture is made"_s,
          {},
          u"pixels"_s},
         {u"Qel_QMatrix4x4_ProjectionMatrix"_s, u"eye space to clip space"_s, u"identity"_s},
         {u"Qel_QMatrix4x4_CameraMatrix"_s, u"world space to eye space"_s, u"identity"_s},
         {u"Qel_QelGPUModel*_Geometry"_s,
          u"the model; batches whose dissolve is below 1 are transparent, their colours being "
          "multiplied by it already"_s,
          u"the picture is cleared to 0, the depth to 1"_s},
         {u"Qel_QelTexture*_Texture"_s, u"sampled in place of the maps that a material lacks"_s,
          u"opaque white"_s}},
        {{u"Qel_QelTexture*_Frame"_s,
          u"lit colours, alpha 1 on opaque surfaces, 0 on the background, no coverage behind "
          "transparent ones; RGBA32F, owned by the pass"_s},
         {u"Qel_QelTexture*_Depth"_s,
          u"depth of the opaque surfaces from 0 at the near plane to 1; DEPTH_COMPONENT32F, "
          "owned by the pass"_s}}};
    return description;
}

TransparencyRenderPass::TransparencyRenderPass()
{
    declarePorts(description());
}

TransparencyRenderPass::~TransparencyRenderPass()
{
    if (m_opaqueFramebuffer) {
        delete m_opaqueFramebuffer->detach(GL_COLOR_ATTACHMENT0);
        delete m_opaqueFramebuffer->detach(GL_DEPTH_ATTACHMENT);
        delete m_accumulationFramebuffer->detach(GL_COLOR_ATTACHMENT0);
        delete m_accumulationFramebuffer->detach(GL_COLOR_ATTACHMENT1);
    }
}

void TransparencyRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QSize size = m_inputs[Viewport].value.toRect().size();
    auto* model = getInputPointer<GPUModel>(Geometry);
    auto* mapStandIn = getInputPointer<Texture>(MapStandIn);
    TextureManager* textures = TextureManager::Instance();

    if (!m_opaqueFramebuffer) {
        build();
    }
    if (size != m_size) {
        resize(size);
    }
    if (!size.isEmpty()) {
        Texture* formerStandIn = textures->setManagedTextureStandIn(mapStandIn ? mapStandIn : m_white.get());
        drawOpaque(model);
        accumulate(model);
        textures->setManagedTextureStandIn(formerStandIn);
        resolve();
    }
    m_outputs[Frame].value = textureVariant(m_opaqueFramebuffer->attachment(GL_COLOR_ATTACHMENT0));
    m_outputs[Depth].value = textureVariant(m_opaqueFramebuffer->attachment(GL_DEPTH_ATTACHMENT));
    textures->releaseTempTextureRef(mapStandIn, 1);
}

void TransparencyRenderPass::build()
{
    m_opaqueFramebuffer = std::make_unique<FramebufferObject>(nullptr);
    m_accumulationFramebuffer = std::make_unique<FramebufferObject>(nullptr);
    m_white.reset(makeWhiteTexture());

    const auto buildModelProgram = [](ModelProgram& modelProgram, const QString& fragmentSource,
                                      const QStringList& outputs) {
        modelProgram.program = std::make_unique<ShaderProgram>(nullptr);
        modelProgram.program->setFragDataLocations(outputs);
        addModelVertexShaders(modelProgram.program.get(), vertexSource);
        addModelFragmentShaders(modelProgram.program.get(), fragmentSource);
        buildProgram(modelProgram.program.get());
    };
    buildModelProgram(m_opaque, opaqueSource, {u"out_FragColor"_s, u"out_Id"_s});
    buildModelProgram(m_accumulation, accumulationSource, {u"out_FragColor[0]"_s, u"out_FragColor[1]"_s});

    m_resolveProgram = std::make_unique<ShaderProgram>(nullptr);
    addFullScreenShaders(m_resolveProgram.get(), resolveSource);
    buildProgram(m_resolveProgram.get());
    m_screenQuad = OpenGLDeviceContext::current()->fullScreenTriangle();
    enableArrays(m_screenQuad, m_resolveProgram.get());
}

void TransparencyRenderPass::resize(const QSize& size)
{
    m_size = size;
    const auto target = [&](unsigned int internalFormat) {
        return makeTarget(size.width(), size.height(), internalFormat, GL_BGRA, GL_FLOAT);
    };
    replaceAttachment(m_opaqueFramebuffer.get(), GL_COLOR_ATTACHMENT0, target(GL_RGBA32F));
    replaceAttachment(m_opaqueFramebuffer.get(), GL_DEPTH_ATTACHMENT,
                      makeDepthTarget(size.width(), size.height()));
    replaceAttachment(m_accumulationFramebuffer.get(), GL_COLOR_ATTACHMENT0, target(GL_RGBA32F));
    replaceAttachment(m_accumulationFramebuffer.get(), GL_COLOR_ATTACHMENT1, target(GL_R32F));
    m_accumulationFramebuffer->attach(m_opaqueFramebuffer->attachment(GL_DEPTH_ATTACHMENT),
                                      GL_DEPTH_ATTACHMENT, 0);
}

void TransparencyRenderPass::drawOpaque(GPUModel* model)
{
    const AutoBinder framebufferBinder(m_opaqueFramebuffer.get());
    m_opaqueFramebuffer->setDrawBuffers();
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    const AutoEnabler depthTest(GL_DEPTH_TEST);
    drawModel(model, m_opaque);
}

void TransparencyRenderPass::accumulate(GPUModel* model)
{
    const AutoBinder framebufferBinder(m_accumulationFramebuffer.get());
    m_accumulationFramebuffer->setDrawBuffers();
    glClearColor(0.0F, 0.0F, 0.0F, 1.0F);
    glClear(GL_COLOR_BUFFER_BIT);
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
    const AutoEnabler depthTest(GL_DEPTH_TEST);
    const AutoEnabler blending(GL_BLEND);
    // Colours and coverages are summed up; alpha becomes the product of what every layer lets through.
    glBlendFuncSeparate(GL_ONE, GL_ONE, GL_ZERO, GL_ONE_MINUS_SRC_ALPHA);
    glDepthMask(GL_FALSE);
    drawModel(model, m_accumulation);
    glDepthMask(GL_TRUE);
}

void TransparencyRenderPass::drawModel(GPUModel* model, ModelProgram& modelProgram)
{
    if (!model) {
        return;
    }
    ShaderProgram* program = modelProgram.program.get();
    const AutoBinder programBinder(program);
    program->setUniform(modelProgram.projectionMatrix, m_inputs[ProjectionMatrix].value.value<QMatrix4x4>());
    program->setUniform(modelProgram.cameraMatrix, m_inputs[CameraMatrix].value.value<QMatrix4x4>());
    checkGLError(sourceFile, __LINE__);
    model->draw(program, 0, 0, WindingType::CounterClockwise);
}

void TransparencyRenderPass::resolve()
{
    const AutoDisabler depthTest(GL_DEPTH_TEST);
    const AutoEnabler blending(GL_BLEND);
    // For alpha too, which mixes revealages with what was there. Deliberate.
    glBlendFunc(GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA);
    const AutoBinder framebufferBinder(m_opaqueFramebuffer.get());
    m_opaqueFramebuffer->setDrawBuffers();
    Texture* colours = m_accumulationFramebuffer->attachment(GL_COLOR_ATTACHMENT0);
    Texture* coverages = m_accumulationFramebuffer->attachment(GL_COLOR_ATTACHMENT1);
    const AutoBinder coloursBinder(colours);
    const AutoBinder coveragesBinder(coverages);
    const AutoBinder programBinder(m_resolveProgram.get());
    m_resolveProgram->setUniform(m_samplerA, colours->unit());
    m_resolveProgram->setUniform(m_samplerB, coverages->unit());
    drawBatch(m_screenQuad.data());
}

} // namespace Morvane::Qel
