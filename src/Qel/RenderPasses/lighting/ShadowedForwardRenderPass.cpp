#include <Qel/RenderPasses/lighting/ShadowedForwardRenderPass.h>

#include <QMatrix4x4>
#include <QtMath>

#include <algorithm>
#include <cmath>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/ModelPrograms.h>
#include <Qel/RenderPasses/framework/PassFrame.h>
#include <Qel/core/Diagnostics.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/UniformBlocks.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr const char* sourceFile = "Core/Qel/src/RenderPasses/ShadowedForwardRenderPass";

const QString vertexSource = uR"(#version 150
#instancedata "InstanceInfo"
uniform mat4 u_ProjectionMatrix;
uniform mat4 u_CameraMatrix;
in vec3 va_Vertex;
in vec3 va_Normal;
in vec2 va_TexCoord;
out vec3 vo_Position;
out float vo_ViewDepth;
out vec3 vo_Normal;
out vec2 vo_TexCoord;

void main()
{
    vec4 world = getModelMatrix() * vec4(va_Vertex, 1.0);
    vec4 eye = u_CameraMatrix * world;
    gl_Position = u_ProjectionMatrix * eye;
    vo_Position = world.xyz;
    vo_ViewDepth = -eye.z;
    vo_Normal = mat3(getModelNormalMatrix()) * va_Normal;
    vo_TexCoord = va_TexCoord;
}
)"_s;

// %1 and %2 are the array sizes, %3 the fraction of a cascade's end at which it begins to fade.
const QString fragmentSource = uR"(#version 150
#instancedata "OBJMaterial"
#include "TextureManager.glslh"
#include "QelUtilities.glslh"
const int Directional = 0;
const int Spot = 1;
const int Point = 2;
uniform vec4 u_CameraPosition; // homogeneous: infinitely far away in an orthographic view
uniform float u_Ambient;
uniform float u_BleedingReduction;
uniform sampler2DArray u_ShadowMaps;
uniform int u_NumLights;
struct Light
{
    vec4 color;     // w: type
    vec4 position;  // w: range
    vec4 direction; // w: cosine of half the opening angle
    vec4 layers;    // first, count
};
layout(std140) uniform ShadowedLights
{
    Light b_Lights[%1];
    vec4 b_CascadeEnds[%2 / 4];
};
layout(std140) uniform ShadowTransforms
{
    mat4 b_Transforms[%2];
};
in vec3 vo_Position;
in float vo_ViewDepth;
in vec3 vo_Normal;
in vec2 vo_TexCoord;
out vec4 out_FragColor;

/// The fraction of light that reaches a depth at a position in the map, from the mean and the mean square of
/// the depths around it. Negative if the blur mixed in empty parts of the map, which make it useless.
float shareOfLight(vec3 place, float depth)
{
    vec2 moments = textureLod(u_ShadowMaps, place, 0.0).rg;
    if (moments.x > 1.5) {
        return -1.0;
    }
    // The maps end at depth 1, so the depth is clamped before the comparison.
    float behind = min(depth, 1.0) - moments.x;
    if (behind <= 0.0) {
        return 1.0;
    }
    // The rounding error of subtracting two squares close to 1 must not count as shadow.
    const float leastVariance = 5e-7;
    float variance = max(moments.y - moments.x * moments.x, leastVariance);
    float bound = variance / (variance + behind * behind);
    return clamp((bound - u_BleedingReduction) / (1.0 - u_BleedingReduction), 0.0, 1.0);
}

/// The fraction of light that a layer of the map lets through to this fragment, whose normal is N.
float visibility(int layer, vec3 N)
{
    mat4 transform = b_Transforms[layer];
    vec4 position = transform * vec4(vo_Position, 1.0);
    position.xyz /= position.w;
    vec3 place = vec3(position.xy * 0.5 + 0.5, float(layer));
    float share = shareOfLight(place, position.z);
    if (share >= 0.0) {
        return share;
    }
    // Beside an empty part of the map, such as a window: average samples beyond the radius of the blur, each
    // compared at the depth of this surface's plane. If all are empty, nothing blocks the light.
    vec4 plane = vec4(N, -dot(N, vo_Position)) * inverse(transform);
    float sum = 0.0;
    float count = 0.0;
    for (int i = 0; i < 9; ++i) {
        vec2 offset = 5.0 * (vec2(i % 3, i / 3) - 1.0) / vec2(textureSize(u_ShadowMaps, 0).xy);
        float depth = position.z - dot(plane.xy, 2.0 * offset) / plane.z;
        share = shareOfLight(place + vec3(offset, 0.0), depth);
        if (share >= 0.0) {
            sum += share;
            count += 1.0;
        }
    }
    return count > 0.0 ? sum / count : 1.0;
}

float cascadeEnd(int layer)
{
    return b_CascadeEnds[layer / 4][layer % 4];
}

/// The fraction of a directional light that arrives, from the first cascade that covers the view depth. Each
/// cascade fades into the next one near its end.
float visibilityInCascades(int first, int count, vec3 N)
{
    int layer = first;
    int last = first + count - 1;
    while (layer < last && vo_ViewDepth > cascadeEnd(layer)) {
        ++layer;
    }
    float share = visibility(layer, N);
    // The last end is infinite.
    float fade = layer < last ? smoothstep(%3 * cascadeEnd(layer), cascadeEnd(layer), vo_ViewDepth) : 0.0;
    return fade > 0.0 ? mix(share, visibility(layer + 1, N), fade) : share;
}

/// The face of the cube around a point light that a ray from the light passes through.
int faceOf(vec3 ray)
{
    vec3 size = abs(ray);
    int axis = size.x >= size.y && size.x >= size.z ? 0 : size.y >= size.z ? 1 : 2;
    return 2 * axis + (ray[axis] < 0.0 ? 1 : 0);
}

vec3 lightFrom(Light light, vec3 N, vec3 V, vec3 Kd, vec3 Ks)
{
    int type = int(light.color.w);
    vec3 L = -light.direction.xyz;
    float strength = 1.0;
    if (type != Directional) {
        vec3 towards = light.position.xyz - vo_Position;
        float distance2 = dot(towards, towards);
        L = towards * inversesqrt(max(distance2, 1e-12));
        float range = light.position.w;
        float end = clamp(1.0 - pow(distance2 / (range * range), 2.0), 0.0, 1.0);
        strength = end * end / max(distance2, 1e-4);
    }
    if (type == Spot) {
        float edge = light.direction.w;
        strength *= smoothstep(edge, mix(edge, 1.0, 0.2), dot(-L, light.direction.xyz));
    }
    float NdotL = dot(N, L);
    if (NdotL <= 0.0 || strength <= 0.0) {
        return vec3(0.0);
    }
    int layer = int(light.layers.x);
    int count = int(light.layers.y);
    if (count > 0) {
        strength *= type == Directional ? visibilityInCascades(layer, count, N)
                                        : visibility(type == Point ? layer + faceOf(-L) : layer, N);
    }
    // GLSL leaves pow(0, 0) undefined.
    float NdotH = max(1e-6, dot(N, normalize(L + V)));
    return light.color.rgb * strength * (NdotL * Kd + pow(NdotH, getNs()) * Ks);
}

void main()
{
    // Both before the discard, after which the derivatives that choose the mip level would be undefined.
    vec4 diffuse = managedTexture(getMap_Kd(), vo_TexCoord);
    vec4 specular = managedTexture(getMap_Ks(), vo_TexCoord);
    if (diffuse.a < 0.5) discard;
    vec3 Kd = gammaCorrect(getKd() * diffuse.rgb, 1.0 / 2.2);
    vec3 Ks = gammaCorrect(getKs() * specular.rgb, 1.0 / 2.2);
    vec3 N = normalize(gl_FrontFacing ? vo_Normal : -vo_Normal);
    vec3 V = normalize(u_CameraPosition.xyz - u_CameraPosition.w * vo_Position);
    vec3 light = Kd * u_Ambient * (0.75 + 0.25 * N.y);
    for (int i = 0; i < u_NumLights; ++i) {
        light += lightFrom(b_Lights[i], N, V, Kd, Ks);
    }
    out_FragColor = vec4(gammaCorrect(1.0 - exp(-light), 2.2), 1.0);
}
)"_s;

std::array<float, 4> toVector(const QVector3D& xyz, float w)
{
    return {xyz.x(), xyz.y(), xyz.z(), w};
}

/// Makes a uniform buffer for a block, with its initial contents.
template<class Block>
std::unique_ptr<BufferObject> makeUniformBuffer(const Block& block, unsigned int bindingPoint)
{
    auto buffer = std::make_unique<BufferObject>(GL_UNIFORM_BUFFER);
    buffer->uploadBytes(&block, sizeof(Block), GL_DYNAMIC_DRAW);
    buffer->setIndexedTarget(GL_UNIFORM_BUFFER, bindingPoint, 0, sizeof(Block));
    return buffer;
}

/// Uploads a block if it differs from the buffer's contents, which `current` repeats.
template<class Block>
void update(BufferObject& buffer, Block& current, const Block& block)
{
    if (block != current) {
        current = block;
        buffer.updateBytes(&block, sizeof(Block));
    }
}

} // namespace

const PassDescription& ShadowedForwardRenderPass::description()
{
    static const PassDescription description{
        .type = u"ShadowedForwardRenderPass"_s,
        .summary = u"Draws a model in one pass, lit by the graph's lights with their shadows."_s,
        .inputs = {viewportInput(u"size of the output; the origin is ignored"_s, u"1 x 1"_s),
                   projectionMatrixInput(),
                   cameraMatrixInput(),
                   modelInput(u"the model; all its batches are drawn"_s, u"the output is cleared to 0"_s),
                   {.name = u"Qel_QVariant_ShadowMapData"_s,
                    .meaning = u"lights and shadow maps, from a ShadowMapRenderPass; the first 128 lights "
                               "are used"_s,
                    .whenMissing = u"ambient light only"_s},
                   {.name = u"Qel_float_Ambient"_s,
                    .meaning = u"ambient light, as a fraction of a white light of intensity 1; surfaces "
                               "that face down receive half of it"_s,
                    .whenMissing = u"0"_s,
                    .defaultValue = 0.1F,
                    .range = u"0 or more"_s,
                    .limits = {0.0}},
                   {.name = u"Qel_float_LightBleedingReduction"_s,
                    .meaning = u"fraction of a light below which a surface counts as in full shadow; more "
                               "removes light that leaks through overlapping shadows, and hardens edges"_s,
                    .whenMissing = u"0"_s,
                    .defaultValue = 0.25F,
                    .range = u"0 to 0.99, values outside are clamped"_s,
                    .limits = {0.0, 0.99}}},
        .outputs = {{.name = u"Qel_QelTexture*_Frame"_s,
                     .meaning = u"the lit model, tone-mapped and sRGB-encoded, alpha 1 where something was "
                                "drawn, otherwise 0; RGBA8, from the pool"_s,
                     .encoding = Encoding::Display,
                     .alpha = AlphaMeaning::Premultiplied}}};
    return description;
}

ShadowedForwardRenderPass::ShadowedForwardRenderPass()
{
    declarePorts(description());
}

ShadowedForwardRenderPass::~ShadowedForwardRenderPass() = default;

void ShadowedForwardRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QSize size = m_inputs[Viewport].value.toRect().size();
    auto* model = getInputPointer<GPUModel>(Geometry);
    const auto* data = getInputPointer<ShadowMapManager::RenderData>(ShadowMapData);

    const PooledTexture depth(TextureFormat::Depth24Stencil8, size);
    const AttachedDepth attachedDepth(provide(m_framebuffer), depth.get());
    const PooledTarget target(*m_framebuffer, TextureFormat::RGBA8, size);
    if (!m_program) {
        buildModelProgram(
            provide(m_program), {u"out_FragColor"_s}, vertexSource,
            fragmentSource.arg(QString::number(maxLights), QString::number(ShadowMapManager::maxLayers),
                               QString::number(double{ShadowMapManager::cascadeFadeBegin}, 'f')));
        m_lightsBuffer = makeUniformBuffer(m_lights, UniformBlocks::shadowedLights);
        m_transformsBuffer = makeUniformBuffer(m_transforms, UniformBlocks::shadowTransforms);
    }
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    if (model) {
        draw(*model, data);
    }
    m_outputs[Frame].value = target.publish(m_outputs[Frame].users);
}

void ShadowedForwardRenderPass::draw(GPUModel& model, const ShadowMapRenderData* data)
{
    const int numLights = data ? updateLights(*data) : 0;
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();
    const AutoEnabler depthTest(GL_DEPTH_TEST);
    const AutoBinder programBinder(m_program.get());
    const AutoBinder lightsBinder(m_lightsBuffer.get());
    const AutoBinder transformsBinder(m_transformsBuffer.get());
    const BoundSampler sampler(*m_program, m_shadowMaps, data ? data->projectionTexture() : nullptr,
                               Sampling::Own);
    const auto projection = m_inputs[ProjectionMatrix].value.value<QMatrix4x4>();
    m_program->setUniform(m_projectionMatrix, projection);
    m_program->setUniform(m_cameraMatrix, camera);
    m_program->setUniform(m_cameraPosition, camera.inverted().column(projection.isAffine() ? 2 : 3));
    m_program->setUniform(m_ambient, m_inputs[Ambient].value.toFloat());
    m_program->setUniform(m_bleedingReduction,
                          std::clamp(m_inputs[LightBleedingReduction].value.toFloat(), 0.0F, 0.99F));
    m_program->setUniform(m_numLights, numLights);
    model.draw(m_program.get(), 0, 0, WindingType::CounterClockwise);
}

/// Updates the uniform buffers where the record changed; returns the number of lights.
int ShadowedForwardRenderPass::updateLights(const ShadowMapRenderData& data)
{
    LightsBlock block{};
    TransformsBlock transforms{};
    const size_t numLights = std::min(data.lights().size(), block.lights.size());
    for (size_t i = 0; i < numLights; ++i) {
        const ShadowMapRenderData::Light& light = data.lights()[i];
        const ShadowMapManager::Light& source = light.source;
        block.lights[i] = {
            toVector(source.color, static_cast<float>(source.type)), toVector(source.position, source.range),
            toVector(source.direction, std::cos(qDegreesToRadians(source.angle) / 2.0F)),
            toVector({static_cast<float>(light.firstLayer),
                      data.projectionTexture() ? static_cast<float>(light.numProjectors) : 0.0F, 0.0F},
                     0.0F)};
    }
    for (int layer = 0; layer < data.numLayers(); ++layer) {
        const auto index = static_cast<size_t>(layer);
        std::copy_n(data.transform(layer).constData(), 16, transforms[index].begin());
        block.cascadeEnds[index] = data.cascadeEnd(layer);
    }
    const size_t numIgnored = data.lights().size() - numLights;
    if (numIgnored > 0 && numIgnored != m_numIgnoredLights) {
        logNotice(sourceFile, __LINE__,
                  u"%1 lights; only the first %2 are used"_s.arg(data.lights().size()).arg(numLights));
    }
    m_numIgnoredLights = numIgnored;
    update(*m_lightsBuffer, m_lights, block);
    update(*m_transformsBuffer, m_transforms, transforms);
    return static_cast<int>(numLights);
}

} // namespace Morvane::Qel
