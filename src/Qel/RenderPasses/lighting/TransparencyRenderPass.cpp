#include <Qel/RenderPasses/lighting/TransparencyRenderPass.h>

#include <QMatrix4x4>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/ModelPrograms.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/RenderPasses/support/ScreenBounds.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/TransparencyRenderPass";

// Invariant, so that an opaque fragment that is drawn in the accumulation too has the same depth as in the
// opaque pass.
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

// The common start of both fragment stages. Deliberate: the interpolated normal is not normalised again.
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

// Deliberate: out_Id has no attachment and is written nowhere.
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

// All deliberate: opaque fragments are not discarded; they set the revealage to 0 if the depth function
// passes equal depths. At a depth of exactly 0 the weight is infinite; the colour is not multiplied by alpha.
const QString accumulationSource = shadingSource + uR"(
out vec4 out_FragColor[2];

void main()
{
    float alpha = getD();
    float square = gl_FragCoord.z * gl_FragCoord.z;
    float weight = 1.0 / (square * square * abs(gl_FragCoord.z));
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
        .type = u"TransparencyRenderPass"_s,
        .summary = u"Draws a model with order-independent transparency."_s,
        .inputs = {viewportInput(u"size of the outputs; the origin is ignored"_s, u"no texture is made"_s),
                   projectionMatrixInput(),
                   cameraMatrixInput(),
                   modelInput(u"the model; batches with a dissolve below 1 are transparent, and their "
                              "colours count as premultiplied by it"_s,
                              u"the outputs are cleared to 0, the depth to 1"_s),
                   {.name = u"Qel_QelTexture*_Texture"_s,
                    .meaning =
                        u"sampled in place of the maps that a material lacks; linear RGB, alpha ignored"_s,
                    .whenMissing = u"opaque white"_s,
                    .encoding = Encoding::Linear}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"lit colours, linear and unclamped; alpha is 1 on opaque surfaces, 0 on the "
                                "background, and not coverage behind transparent ones; RGBA32F, owned by the "
                                "pass"_s,
                     .encoding = Encoding::Linear,
                     .alpha = AlphaMeaning::Data},
                    {.name = u"Qel_QelTexture*_Depth"_s,
                     .meaning = u"depth of the opaque surfaces, 0 at the near plane to 1 at the far plane; "
                                "DEPTH_COMPONENT32F, owned by the pass"_s,
                     .encoding = Encoding::Data}}};
    return description;
}

TransparencyRenderPass::TransparencyRenderPass()
{
    declarePorts(description());
}

TransparencyRenderPass::~TransparencyRenderPass()
{
    deleteTarget(m_opaqueFramebuffer.get(), GL_COLOR_ATTACHMENT0);
    deleteTarget(m_opaqueFramebuffer.get(), GL_DEPTH_ATTACHMENT);
    deleteTarget(m_accumulationFramebuffer.get(), GL_COLOR_ATTACHMENT0);
    deleteTarget(m_accumulationFramebuffer.get(), GL_COLOR_ATTACHMENT1);
}

void TransparencyRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QRect viewport = m_inputs[Viewport].value.toRect();
    auto* model = getInputPointer<GPUModel>(Geometry);
    auto* mapStandIn = getInputPointer<Texture>(MapStandIn);
    const InputReferences inputs(mapStandIn);

    provideAllTargets(viewport);
    providePrograms();
    if (!viewport.isEmpty()) {
        TextureManager* textures = TextureManager::Instance();
        Texture* formerStandIn = textures->setManagedTextureStandIn(mapStandIn ? mapStandIn : m_white.get());
        drawOpaque(model);
        if (model) {
            addTransparent(*model);
        }
        textures->setManagedTextureStandIn(formerStandIn);
        glDepthMask(GL_TRUE);
        glBlendFunc(GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA);
    }
    m_outputs[Frame].value = textureVariant(m_opaqueFramebuffer->attachment(GL_COLOR_ATTACHMENT0));
    m_outputs[Depth].value = textureVariant(m_opaqueFramebuffer->attachment(GL_DEPTH_ATTACHMENT));
}

void TransparencyRenderPass::provideAllTargets(const QRect& viewport)
{
    const bool isNew = provideTargets(m_opaqueFramebuffer, m_width, m_height, viewport,
                                      {{GL_COLOR_ATTACHMENT0, GL_RGBA32F, GL_BGRA, GL_FLOAT}, depthTarget});
    if (isNew) {
        FramebufferObject& accumulation = provide(m_accumulationFramebuffer);
        replaceTargets(accumulation, viewport.size(),
                       {{GL_COLOR_ATTACHMENT0, GL_RGBA32F, GL_BGRA, GL_FLOAT},
                        {GL_COLOR_ATTACHMENT1, GL_R32F, GL_BGRA, GL_FLOAT}});
        accumulation.attach(m_opaqueFramebuffer->attachment(GL_DEPTH_ATTACHMENT), GL_DEPTH_ATTACHMENT, 0);
    }
}

void TransparencyRenderPass::providePrograms()
{
    if (!m_opaque.program) {
        buildModelProgram(provide(m_opaque.program), {u"out_FragColor"_s, u"out_Id"_s}, vertexSource,
                          opaqueSource);
        buildModelProgram(provide(m_accumulation.program), {u"out_FragColor[0]"_s, u"out_FragColor[1]"_s},
                          vertexSource, accumulationSource);
    }
    provideScreenProgram(m_resolveProgram, m_fullScreenBatch, {resolveSource});
    if (!m_white) {
        m_white.reset(makeTexelTexture(Qt::white));
    }
}

void TransparencyRenderPass::drawOpaque(GPUModel* model)
{
    const AutoBinder framebufferBinder(m_opaqueFramebuffer.get());
    m_opaqueFramebuffer->setDrawBuffers();
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    const AutoEnabler depthTest(GL_DEPTH_TEST);
    // The program would discard the others.
    drawModel(model, m_opaque, Opacity::Opaque);
}

/// Accumulates and resolves where that can change a pixel.
void TransparencyRenderPass::addTransparent(GPUModel& model)
{
    // With this function all opaque fragments fail the depth test: each finds its own depth or a nearer one.
    const bool onlyTransparent = OpenGLDeviceContext::current()->depthFunction() == GL_LESS;
    if (onlyTransparent && model.isDrawEmpty(Opacity::Transparent)) {
        return;
    }
    QRect area({}, m_inputs[Viewport].value.toRect().size());
    if (onlyTransparent) {
        area = coveredPixels(model.partBounds(Opacity::Transparent),
                             m_inputs[ProjectionMatrix].value.value<QMatrix4x4>(),
                             m_inputs[CameraMatrix].value.value<QMatrix4x4>(), area.size());
    }
    if (area.isEmpty()) {
        return;
    }
    const AutoEnabler scissorTest(GL_SCISSOR_TEST);
    glScissor(area.x(), area.y(), area.width(), area.height());
    accumulate(&model, onlyTransparent ? std::optional(Opacity::Transparent) : std::nullopt);
    resolve();
}

void TransparencyRenderPass::accumulate(GPUModel* model, std::optional<Opacity> batches)
{
    const AutoBinder framebufferBinder(m_accumulationFramebuffer.get());
    m_accumulationFramebuffer->setDrawBuffers();
    glClearColor(0.0F, 0.0F, 0.0F, 1.0F);
    glClear(GL_COLOR_BUFFER_BIT);
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
    const AutoEnabler depthTest(GL_DEPTH_TEST);
    const AutoEnabler blending(GL_BLEND);
    // Colour and coverage are summed; the alpha of target 0 becomes the product of (1 - alpha).
    glBlendFuncSeparate(GL_ONE, GL_ONE, GL_ZERO, GL_ONE_MINUS_SRC_ALPHA);
    glDepthMask(GL_FALSE);
    drawModel(model, m_accumulation, batches);
}

void TransparencyRenderPass::drawModel(GPUModel* model, ModelProgram& modelProgram,
                                       std::optional<Opacity> batches)
{
    if (!model) {
        return;
    }
    ShaderProgram* program = modelProgram.program.get();
    const AutoBinder programBinder(program);
    program->setUniform(modelProgram.projectionMatrix, m_inputs[ProjectionMatrix].value.value<QMatrix4x4>());
    program->setUniform(modelProgram.cameraMatrix, m_inputs[CameraMatrix].value.value<QMatrix4x4>());
    checkGLError(sourceFile, __LINE__);
    if (batches) {
        model->draw(program, *batches, WindingType::CounterClockwise);
    } else {
        model->draw(program, 0, 0, WindingType::CounterClockwise);
    }
}

void TransparencyRenderPass::resolve()
{
    const AutoDisabler depthTest(GL_DEPTH_TEST);
    const AutoEnabler blending(GL_BLEND);
    // Deliberate: alpha is blended by the same function, which mixes revealage into the opaque image's alpha.
    glBlendFunc(GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA);
    const AutoBinder framebufferBinder(m_opaqueFramebuffer.get());
    m_opaqueFramebuffer->setDrawBuffers();
    const AutoBinder programBinder(m_resolveProgram.get());
    const BoundSampler colours(*m_resolveProgram, m_samplerA,
                               m_accumulationFramebuffer->attachment(GL_COLOR_ATTACHMENT0),
                               Sampling::Nearest);
    const BoundSampler coverages(*m_resolveProgram, m_samplerB,
                                 m_accumulationFramebuffer->attachment(GL_COLOR_ATTACHMENT1),
                                 Sampling::Nearest);
    drawBatch(m_fullScreenBatch);
}

} // namespace Morvane::Qel
