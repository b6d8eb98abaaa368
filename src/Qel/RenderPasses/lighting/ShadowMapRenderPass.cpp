#include <Qel/RenderPasses/lighting/ShadowMapRenderPass.h>

#include <QMatrix4x4>

#include <array>
#include <optional>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/RenderPasses/lighting/ShadowMapBlur.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/ShadowMapRenderPass";
constexpr const char* sourceFileName = "ShadowMapRenderPass";

constexpr int mapSize = ShadowMapManager::mapSize;
constexpr float farAway = 1.0e9F;
constexpr float depthBias = 0.0001F;
constexpr int blurIterations = 1;

/// Flags that must be clear on batches that cast shadows; DoubleSided selects those drawn without culling.
constexpr unsigned long long casterMask = DrawFlag::Hidden | DrawFlag::CastsNoShadow;
constexpr unsigned long long sidednessMask = casterMask | DrawFlag::DoubleSided;

/// %1 is the name of the instance-data plan.
const QString momentsVertexSource = uR"(#version 150
#instancedata "%1"
uniform mat4 modelViewProjectionMatrix;
in vec3 va_Vertex;
out vec2 vo_fragPos;

void main()
{
    vec4 pos = modelViewProjectionMatrix * getModelMatrix() * vec4(va_Vertex, 1.0);
    vo_fragPos = vec2(pos.z, pos.w);
    gl_Position = pos;
}
)"_s;

/// %1 is the depth bias.
const QString momentsFragmentSource = uR"(#version 150
in vec2 vo_fragPos;
out vec4 out_fragDepth;

void main()
{
    float depth = vo_fragPos.x / vo_fragPos.y + %1;
    if (depth < 0.0) discard;
    depth = min(depth, 1.0);
    out_fragDepth = vec4(depth, depth * depth, 0.0, 0.0);
}
)"_s;

/// Makes an array texture for moments; maps and blur scratch share this format.
std::unique_ptr<Texture> makeArray(int wrapMode, int numLayers)
{
    auto texture = std::make_unique<Texture>(nullptr);
    texture->setTarget(GL_TEXTURE_2D_ARRAY);
    texture->setFilter(GL_LINEAR, GL_LINEAR);
    texture->setParameter(GL_TEXTURE_WRAP_S, wrapMode);
    texture->setParameter(GL_TEXTURE_WRAP_T, wrapMode);
    texture->setImage3D(GL_RG32F, mapSize, mapSize, numLayers, GL_RG, GL_FLOAT, nullptr);
    return texture;
}

/// The value of an input, or nothing if the input is null or of a type that does not convert.
template<class Value>
std::optional<Value> valueOf(const QVariant& variant)
{
    if (variant.isNull() || !variant.canConvert<Value>()) {
        return {};
    }
    return variant.value<Value>();
}

template<class Value>
const Value* pointerTo(const std::optional<Value>& value)
{
    return value ? &*value : nullptr;
}

} // namespace

const PassDescription& ShadowMapRenderPass::description()
{
    static const PassDescription description{
        .type = u"ShadowMapRenderPass"_s,
        .summary = u"Draws blurred variance shadow maps for directional, spot and point lights."_s,
        .inputs = {modelInput(u"the model; its batches cast shadows unless their flags say otherwise; when "
                              "the last one stops casting, its shadow stays"_s,
                              u"an error is logged and nothing is drawn"_s),
                   {.name = u"Qel_QList_InstanceData"_s,
                    .meaning = u"instance-data collections (InstanceDataCollection) to bind while drawing"_s,
                    .whenMissing = u"none are bound"_s},
                   {.name = u"Qel_QList_QelShadowMapManagerLight*_Lights"_s,
                    .meaning = u"the lights (ShadowMapManager::Light)"_s,
                    .whenMissing = u"no maps"_s},
                   {.name = u"Qel_bool_Dirty"_s,
                    .meaning =
                        u"whether the model or its instance data changed since the last frame; changes of "
                        "lights and view are detected by the pass"_s,
                    .whenMissing = u"the maps are redrawn every frame"_s},
                   {.name = u"Qel_QMatrix4x4_ProjectionMatrix"_s,
                    .meaning = u"eye space to clip space, for fitting directional lights"_s,
                    .whenMissing = u"directional lights get one projector, fitted to the scene"_s},
                   {.name = u"Qel_QMatrix4x4_CameraMatrix"_s,
                    .meaning = u"world space to eye space, for fitting directional lights"_s,
                    .whenMissing = u"directional lights get one projector, fitted to the scene"_s},
                   {.name = u"Qel_QVector3D_SceneBoundsMin"_s,
                    .meaning = u"minimum corner of the scene's bounding box, in world space"_s,
                    .whenMissing = u"projectors are fitted to the view and to the lights' ranges"_s},
                   {.name = u"Qel_QVector3D_SceneBoundsMax"_s,
                    .meaning = u"maximum corner of the scene's bounding box, in world space"_s,
                    .whenMissing = u"projectors are fitted to the view and to the lights' ranges"_s}},
        .outputs = {{.name = u"Qel_QVariant_ShadowMapData"_s,
                     .meaning = u"lights, projectors and maps (ShadowMapManager::RenderData, as a QObject*), "
                                "owned by the pass; the maps hold mean depth and mean squared depth, RG32F, "
                                "512 x 512, one layer per projector"_s}},
        .options = {{.name = u"instanceDataPlanName"_s,
                     .meaning = u"source of the instance transforms: the model (InstanceInfo), or the "
                                "collections of the input InstanceData (VeskInstance), without which "
                                "instances are not transformed"_s,
                     .defaultValue = u"VeskInstance"_s,
                     .choices = {u"VeskInstance"_s, u"InstanceInfo"_s}}}};
    return description;
}

ShadowMapRenderPass::ShadowMapRenderPass()
    : m_instanceDataPlanName(u"VeskInstance"_s)
    , m_macroProcessor(std::make_unique<GLSLMacroProcessor>())
{
    m_macroProcessor->addIncludePath(u":/Media/Shaders"_s);
    declarePorts(description());
}

ShadowMapRenderPass::~ShadowMapRenderPass() = default;

void ShadowMapRenderPass::setInstanceDataPlanName(const QString& name)
{
    m_instanceDataPlanName = name;
}

void ShadowMapRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QVariant& modelAsQVariant = m_inputs[Geometry].value;
    GPUModel* model = nullptr;
    // The text of each condition appears in its message, so the redundant comparisons must stay.
    if (QEL_CHECK(sourceFile, false == modelAsQVariant.isNull(), u"Input Geometry is NULL"_s) &&
        QEL_CHECK(sourceFile, true == modelAsQVariant.canConvert<GPUModel*>(),
                  u"Input Geometry is not a 'GPUModel*', type is '%1'"_s.arg(
                      QLatin1StringView(modelAsQVariant.typeName())))) {
        model = getInputPointer<GPUModel>(Geometry);
    }
    const QVariant& dirtyInput = m_inputs[Dirty].value;
    bool dirty = dirtyInput.isNull() || dirtyInput.toBool();
    dirty |= updateLights();
    dirty |= provideResources();
    // Deliberate: a change without a model is forgotten, so the maps stay undrawn until the next change; and
    // without a caster they keep what they showed.
    if (dirty && model && !model->isDrawEmpty(0, casterMask)) {
        drawMoments(*model);
    }
    m_renderData.setProjectionTexture(m_moments.get());
    m_outputs[ShadowMapData].value = QVariant::fromValue<QObject*>(&m_renderData);
}

/// Fits the projectors and drops the arrays if the number of layers changed. Returns whether anything
/// changed.
bool ShadowMapRenderPass::updateLights()
{
    const auto projection = valueOf<QMatrix4x4>(m_inputs[ProjectionMatrix].value);
    const auto camera = valueOf<QMatrix4x4>(m_inputs[CameraMatrix].value);
    const auto lower = valueOf<QVector3D>(m_inputs[SceneBoundsMin].value);
    const auto upper = valueOf<QVector3D>(m_inputs[SceneBoundsMax].value);
    std::optional<QPair<QVector3D, QVector3D>> bounds;
    if (lower && upper) {
        bounds.emplace(*lower, *upper);
    }
    bool changed = ShadowMapManager::processLights(
        m_inputs[Lights].value, m_renderData, pointerTo(projection), pointerTo(camera), pointerTo(bounds));
    if (m_moments && m_renderData.numLayers() != m_numLayers) {
        m_moments.reset();
        m_blurScratch.reset();
        changed = true;
    }
    m_numLayers = m_renderData.numLayers();
    return changed;
}

/// Makes what is missing. Returns whether anything was made.
bool ShadowMapRenderPass::provideResources()
{
    bool isNew = false;
    if (!m_framebuffer) {
        provide(m_framebuffer);
        isNew = true;
    }
    if (!m_depth) {
        m_depth.reset(makeTarget({mapSize, mapSize}, GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT));
        checkGLError(sourceFile, __LINE__);
        isNew = true;
    }
    if (!m_moments) {
        m_moments = makeArray(GL_CLAMP_TO_BORDER, m_numLayers);
        m_moments->setBorderColor({farAway, farAway, farAway, 1.0F});
        clearMoments();
        checkGLError(sourceFile, __LINE__);
        isNew = true;
    }
    if (!m_momentsProgram) {
        buildMomentsProgram();
        isNew = true;
    }
    return isNew;
}

/// Gives maps that nothing is drawn into the value of texels without an occluder.
void ShadowMapRenderPass::clearMoments()
{
    constexpr std::array<float, 4> noOccluder{farAway, farAway, farAway, 1.0F};
    const AutoBinder framebufferBinder(m_framebuffer.get());
    for (int layer = 0; layer < m_numLayers; ++layer) {
        m_framebuffer->attach3D(m_moments.get(), GL_COLOR_ATTACHMENT0, layer, 0);
        m_framebuffer->setDrawBuffers();
        glClearBufferfv(GL_COLOR, 0, noOccluder.data());
    }
    m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
}

void ShadowMapRenderPass::buildMomentsProgram()
{
    const InstanceDataPlan* plan = InstanceDataRegistry::Instance()->getPlan(m_instanceDataPlanName);
    ShaderProgram& program = provide(m_momentsProgram);
    program.setMacroProcessor(m_macroProcessor.get());
    program.setFragDataLocations({u"out_fragDepth"_s});
    program.addShader(GL_VERTEX_SHADER, momentsVertexSource.arg(m_instanceDataPlanName), {});
    if (plan) {
        program.addShader(GL_VERTEX_SHADER, plan->glslc(), {});
    }
    program.addShaderFromFile(GL_VERTEX_SHADER, u"QelUtilities.glslc"_s);
    program.addShader(GL_FRAGMENT_SHADER,
                      momentsFragmentSource.arg(QString::number(static_cast<double>(depthBias), 'g', 6)), {});
    buildProgram(program);
    if (!program.isValid()) {
        logInformation(sourceFileName, __LINE__, program.log());
    } else if (plan) {
        plan->assertShaderProgram(&program);
    }
}

void ShadowMapRenderPass::drawMoments(GPUModel& model)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    const QRect viewport = context->viewport();
    context->setViewport(0, 0, mapSize, mapSize);
    {
        const AutoBinder programBinder(m_momentsProgram.get());
        const AutoEnabler depthTest(GL_DEPTH_TEST);
        glClearColor(farAway, farAway, farAway, 1.0F);
        context->disable(GL_BLEND);
        glDepthMask(GL_TRUE);
        context->enable(GL_DEPTH_CLAMP);

        const QVariantList collections = m_inputs[InstanceData].value.toList();
        for (const QVariant& collection : collections) {
            if (auto* data = pointerFromVariant<InstanceDataCollection>(collection)) {
                data->bind(nullptr);
            }
        }
        {
            const AutoBinder framebufferBinder(m_framebuffer.get());
            m_framebuffer->attach(m_depth.get(), GL_DEPTH_ATTACHMENT, 0);
            for (const ShadowMapManager::RenderData::Light& light : m_renderData.lights()) {
                for (int j = 0; j < light.numProjectors; ++j) {
                    drawLayer(model, light.firstLayer + j);
                }
            }
            checkGLError(sourceFile, __LINE__);
            for (const QVariant& collection : collections) {
                if (auto* data = pointerFromVariant<InstanceDataCollection>(collection)) {
                    data->unbind(nullptr);
                }
            }
            m_framebuffer->detach(GL_DEPTH_ATTACHMENT);
        }
        context->disable(GL_DEPTH_CLAMP);
        _gaussBlurShadowMapArray(blurIterations);
    }
    context->setViewport(viewport.x(), viewport.y(), viewport.width(), viewport.height());
}

void ShadowMapRenderPass::drawLayer(GPUModel& model, int layer)
{
    m_framebuffer->attach3D(m_moments.get(), GL_COLOR_ATTACHMENT0, layer, 0);
    m_framebuffer->setDrawBuffers();
    m_momentsProgram->setUniform(m_modelViewProjectionMatrix, m_renderData.transform(layer));
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    if (!model.isDrawEmpty(0, sidednessMask)) {
        context->enable(GL_CULL_FACE);
        model.draw(m_momentsProgram.get(), 0, sidednessMask, WindingType::CounterClockwise);
    }
    // Left disabled: double-sided batches and the blur's quad, whose triangles have opposite winding, must
    // not be culled.
    context->disable(GL_CULL_FACE);
    if (!model.isDrawEmpty(DrawFlag::DoubleSided, sidednessMask)) {
        model.draw(m_momentsProgram.get(), DrawFlag::DoubleSided, sidednessMask,
                   WindingType::CounterClockwise);
    }
    m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
}

void ShadowMapRenderPass::provideBlurResources()
{
    if (!m_blurScratch) {
        m_blurScratch = makeArray(GL_CLAMP_TO_EDGE, m_numLayers);
        checkGLError(sourceFile, __LINE__);
    }
    if (!m_blurProgram) {
        m_blurProgram = makeShadowBlurProgram();
    }
    if (!m_quad) {
        m_quad = makeShadowBlurQuad(*m_blurProgram);
    }
}

void ShadowMapRenderPass::_gaussBlurShadowMapArray(int iterations)
{
    if (iterations < 1) {
        return;
    }
    provideBlurResources();
    const AutoBinder framebufferBinder(m_framebuffer.get());
    m_framebuffer->attach(m_depth.get(), GL_DEPTH_ATTACHMENT, 0);
    const AutoBinder programBinder(m_blurProgram.get());
    // Deliberate: the shader has no such uniform, so the call has no effect.
    m_blurProgram->setUniform(m_sigma, shadowBlurSigma);
    constexpr float texel = 1.0F / static_cast<float>(mapSize);
    const std::array<QVector3D, 2> steps{QVector3D(texel, 0.0F, 0.0F), QVector3D(0.0F, texel, 0.0F)};
    const std::array<Texture*, 2> arrays{m_moments.get(), m_blurScratch.get()};
    const AutoBinder quadBinder(m_quad.get());
    for (int k = 0; k < 2 * iterations; ++k) {
        const auto parity = static_cast<size_t>(k % 2);
        Texture* destination = arrays[1 - parity];
        // Clamped to the edge: taps that read the maps' border of 1e9 would erase shadows along the edges.
        const BoundSampler source(*m_blurProgram, m_frameSampler, arrays[parity], Sampling::Linear);
        m_blurProgram->setUniform(m_step, steps[parity]);
        for (int layer = 0; layer < m_numLayers; ++layer) {
            m_blurProgram->setUniform(m_index, layer);
            m_framebuffer->attach3D(destination, GL_COLOR_ATTACHMENT0, layer, 0);
            m_framebuffer->setDrawBuffers();
            glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
            m_quad->draw();
            m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
        }
    }
    checkGLError(sourceFile, __LINE__);
    m_framebuffer->detach(GL_DEPTH_ATTACHMENT);
    // Set again, whatever consumers have made of them: outside the map nothing is in shadow.
    m_moments->setBorderColor({farAway, farAway, farAway, 1.0F});
    m_moments->setParameter(GL_TEXTURE_WRAP_S, GL_CLAMP_TO_BORDER);
    m_moments->setParameter(GL_TEXTURE_WRAP_T, GL_CLAMP_TO_BORDER);
}

} // namespace Morvane::Qel
