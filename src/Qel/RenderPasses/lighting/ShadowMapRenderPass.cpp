#include <Qel/RenderPasses/lighting/ShadowMapRenderPass.h>

#include <QMatrix4x4>
#include <QRect>

#include <array>
#include <cmath>
#include <optional>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/support/FullScreen.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLErrors.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/VertexArrayObject.h>
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
constexpr int numBlurTaps = 4;
constexpr float blurSigma = 4.5F;

/// What casts shadows, and what of it is drawn with and without culling.
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

/// %1 is the number of taps on one side, the centre included, %2, %3 and %4 the coefficients of the Gaussian.
const QString blurFragmentSource = uR"(#version 150
uniform sampler2DArray u_FrameSampler;
uniform int u_Index;
uniform vec3 u_Step;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

vec2 momentsAt(vec2 texCoord)
{
    return texture(u_FrameSampler, vec3(texCoord, float(u_Index))).rg;
}

void main()
{
    vec3 coefficients = vec3(%2, %3, %4);
    vec2 sum = momentsAt(vo_TexCoord) * coefficients.x;
    float sumOfWeights = coefficients.x;
    for (int i = 1; i < %1; ++i) {
        coefficients.xy *= coefficients.yz;
        vec2 offset = float(i) * u_Step.xy;
        sum += (momentsAt(vo_TexCoord + offset) + momentsAt(vo_TexCoord - offset)) * coefficients.x;
        sumOfWeights += 2.0 * coefficients.x;
    }
    out_FragColor = vec4(sum / sumOfWeights, 0.0, 0.0);
}
)"_s;

/// The number as GLSL, with all the digits that single precision can use.
QString glslNumber(float number)
{
    constexpr int digits = 16;
    return QString::number(static_cast<double>(number), 'g', digits);
}

/// Empty until setImage3D; both arrays have this format.
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
        u"ShadowMapRenderPass"_s,
        u"Draws blurred variance shadow maps of a model for directional, spot and point lights."_s,
        {{u"Qel_QelGPUModel*_Geometry"_s,
          u"the model; its batches cast shadows unless their flags say otherwise"_s,
          u"is reported, and nothing is drawn"_s},
         {u"Qel_QList_InstanceData"_s,
          u"collections of instance data (InstanceDataCollection) that are bound around the drawing"_s,
          u"none are bound"_s},
         {u"Qel_QList_QelShadowMapManagerLight*_Lights"_s, u"the lights (ShadowMapManager::Light)"_s,
          u"no maps"_s},
         {u"Qel_bool_Dirty"_s,
          u"whether the model or the instance data changed since the last frame; lights and view "
          "are watched by the pass itself"_s,
          u"the maps are drawn in every frame"_s},
         {u"Qel_QMatrix4x4_ProjectionMatrix"_s, u"eye space to clip space, for fitting directional lights"_s,
          u"directional lights have one projector, fitted to the scene"_s},
         {u"Qel_QMatrix4x4_CameraMatrix"_s, u"world space to eye space, for fitting directional lights"_s,
          u"directional lights have one projector, fitted to the scene"_s},
         {u"Qel_QVector3D_SceneBoundsMin"_s, u"lower corner of the box around the scene, in world space"_s,
          u"projectors are fitted to the view and to the range of lamps"_s},
         {u"Qel_QVector3D_SceneBoundsMax"_s, u"upper corner of that box"_s,
          u"projectors are fitted to the view and to the range of lamps"_s}},
        {{u"Qel_QVariant_ShadowMapData"_s,
          u"the lights with their projectors and maps (ShadowMapManager::RenderData, as a QObject*), "
          "owned by the pass; the maps are RG32F, 512 x 512, with a layer for each projector"_s}},
        {{u"instanceDataPlanName"_s,
          u"what places the model's instances: \"InstanceInfo\", the transforms that the model's "
          "file gives them; \"VeskInstance\", the collections of the input InstanceData, which "
          "without any leaves instances untransformed"_s,
          u"VeskInstance"_s,
          {u"VeskInstance"_s, u"InstanceInfo"_s}}}};
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
    // The conditions are part of the messages, word for word.
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
    // What is dirty while there is no model is forgotten; the maps then wait for the next change. Deliberate.
    if (dirty && model && !model->isDrawEmpty(0, casterMask)) {
        drawMoments(*model);
    }
    m_renderData.setProjectionTexture(m_moments.get());
    m_outputs[ShadowMapData].value = QVariant::fromValue<QObject*>(&m_renderData);
}

/// Fits the projectors and drops arrays that no longer have a layer for each; returns whether anything
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

/// Makes what is not there yet; returns whether that was anything.
bool ShadowMapRenderPass::provideResources()
{
    bool isNew = false;
    if (!m_framebuffer) {
        m_framebuffer = std::make_unique<FramebufferObject>(nullptr);
        isNew = true;
    }
    if (!m_depth) {
        m_depth = std::make_unique<Texture>(nullptr);
        m_depth->setTarget(GL_TEXTURE_2D);
        m_depth->setFilter(GL_NEAREST, GL_NEAREST);
        m_depth->setImage2D(0, GL_DEPTH_COMPONENT32F, mapSize, mapSize, GL_DEPTH_COMPONENT, GL_FLOAT,
                            nullptr);
        checkGLError(sourceFile, __LINE__);
        isNew = true;
    }
    if (!m_moments) {
        m_moments = makeArray(GL_CLAMP_TO_BORDER, m_numLayers);
        m_moments->setBorderColor({farAway, farAway, farAway, 1.0F});
        checkGLError(sourceFile, __LINE__);
        isNew = true;
    }
    if (!m_momentsProgram) {
        buildMomentsProgram();
        isNew = true;
    }
    return isNew;
}

void ShadowMapRenderPass::buildMomentsProgram()
{
    const InstanceDataPlan* plan = InstanceDataRegistry::Instance()->getPlan(m_instanceDataPlanName);
    m_momentsProgram = std::make_unique<ShaderProgram>(nullptr);
    m_momentsProgram->setMacroProcessor(m_macroProcessor.get());
    m_momentsProgram->setFragDataLocations({u"out_fragDepth"_s});
    m_momentsProgram->addShader(GL_VERTEX_SHADER, momentsVertexSource.arg(m_instanceDataPlanName), {});
    if (plan) {
        m_momentsProgram->addShader(GL_VERTEX_SHADER, plan->glslc(), {});
    }
    m_momentsProgram->addShaderFromFile(GL_VERTEX_SHADER, u"QelUtilities.glslc"_s);
    m_momentsProgram->addShader(
        GL_FRAGMENT_SHADER,
        momentsFragmentSource.arg(QString::number(static_cast<double>(depthBias), 'g', 6)), {});
    buildProgram(m_momentsProgram.get());
    if (!m_momentsProgram->isValid()) {
        logInformation(sourceFileName, __LINE__, m_momentsProgram->log());
    } else if (plan) {
        plan->assertShaderProgram(m_momentsProgram.get());
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
    // Not restored: neither double-sided batches nor the blur's quad, whose triangles wind either way, may be
    // culled.
    context->disable(GL_CULL_FACE);
    if (!model.isDrawEmpty(DrawFlag::DoubleSided, sidednessMask)) {
        model.draw(m_momentsProgram.get(), DrawFlag::DoubleSided, sidednessMask,
                   WindingType::CounterClockwise);
    }
    m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
}

/// Makes what the blur needs and is not there yet.
void ShadowMapRenderPass::provideBlurResources()
{
    if (!m_blurScratch) {
        m_blurScratch = makeArray(GL_CLAMP_TO_EDGE, m_numLayers);
        checkGLError(sourceFile, __LINE__);
    }
    if (!m_blurProgram) {
        const float a = 1.0F / (std::sqrt(2.0F * static_cast<float>(M_PI)) * blurSigma);
        const float b = std::exp(-0.5F / (blurSigma * blurSigma));
        const float c = b * b;
        m_blurProgram = std::make_unique<ShaderProgram>(nullptr);
        addFullScreenShaders(m_blurProgram.get(),
                             blurFragmentSource.arg(QString::number(numBlurTaps), glslNumber(a),
                                                    glslNumber(b), glslNumber(c)));
        buildProgram(m_blurProgram.get());
    }
    if (!m_quad) {
        constexpr int numVertices = 6;
        constexpr std::array<float, 3 * numVertices> positions{-1, -1, -1, -1, 1,  -1, 1, -1, -1,
                                                               -1, 1,  -1, 1,  -1, -1, 1, 1,  -1};
        constexpr std::array<float, 2 * numVertices> texCoords{0, 0, 0, 1, 1, 0, 0, 1, 1, 0, 1, 1};
        const auto upload = [](const auto& values) {
            auto buffer = QSharedPointer<BufferObject>::create(GL_ARRAY_BUFFER);
            buffer->upload(values.data(), static_cast<int>(values.size()), GL_STATIC_DRAW);
            return buffer;
        };
        const auto vertexArray = QSharedPointer<VertexArrayObject>::create();
        vertexArray->upload(u"va_Vertex"_s, upload(positions), 3, GL_FLOAT);
        vertexArray->upload(u"va_TexCoord"_s, upload(texCoords), 2, GL_FLOAT);
        m_quad = std::make_unique<DrawBuffers>(nullptr);
        m_quad->setVAO(vertexArray);
        m_quad->setPrimitiveType(GL_TRIANGLES);
        m_quad->setVertexCount(numVertices);
        const AutoBinder quadBinder(m_quad.get());
        vertexArray->enableShaderProgramArrays(m_blurProgram.get());
    }
}

void ShadowMapRenderPass::_gaussBlurShadowMapArray(int iterations)
{
    if (iterations < 1) {
        return;
    }
    // Taps beyond the edge must not read the border, which would light up the edges of the maps.
    m_moments->setParameter(GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    m_moments->setParameter(GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    provideBlurResources();

    const AutoBinder framebufferBinder(m_framebuffer.get());
    m_framebuffer->attach(m_depth.get(), GL_DEPTH_ATTACHMENT, 0);
    const AutoBinder programBinder(m_blurProgram.get());
    // The shader has no such uniform. Deliberate; without effect.
    m_blurProgram->setUniform(m_sigma, blurSigma);
    constexpr float texel = 1.0F / static_cast<float>(mapSize);
    const std::array<QVector3D, 2> steps{QVector3D(texel, 0.0F, 0.0F), QVector3D(0.0F, texel, 0.0F)};
    const std::array<Texture*, 2> arrays{m_moments.get(), m_blurScratch.get()};
    const AutoBinder quadBinder(m_quad.get());
    for (int k = 0; k < 2 * iterations; ++k) {
        const auto parity = static_cast<size_t>(k % 2);
        Texture* source = arrays[parity];
        Texture* destination = arrays[1 - parity];
        const AutoBinder sourceBinder(source);
        m_blurProgram->setUniform(m_step, steps[parity]);
        m_blurProgram->setUniform(m_frameSampler, source->unit());
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
    m_moments->setBorderColor({farAway, farAway, farAway, 1.0F});
    m_moments->setParameter(GL_TEXTURE_WRAP_S, GL_CLAMP_TO_BORDER);
    m_moments->setParameter(GL_TEXTURE_WRAP_T, GL_CLAMP_TO_BORDER);
}

} // namespace Morvane::Qel
