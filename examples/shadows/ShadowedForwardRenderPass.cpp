#include "ShadowedForwardRenderPass.h"

#include <QMatrix4x4>
#include <QtMath>

#include <algorithm>
#include <cmath>

#include <epoxy/gl.h>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/framework/ModelPrograms.h>
#include <Qel/model/GPUModel.h>
#include <Qel/model/ShadowMapManager.h>

using namespace Qt::StringLiterals;

using namespace Morvane::Qel;

namespace {

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
uniform vec3 u_CameraPosition;
uniform float u_Ambient;
uniform float u_BleedingReduction;
uniform sampler2DArray u_ShadowMaps;
uniform int u_NumLights;
uniform vec4 u_LightColors[%1];     // w: type
uniform vec4 u_LightPositions[%1];  // w: range
uniform vec4 u_LightDirections[%1]; // w: cosine of half the opening angle
uniform vec2 u_LightLayers[%1];     // first, count
uniform mat4 u_LayerTransforms[%2];
uniform float u_CascadeEnds[%2];
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
    mat4 transform = u_LayerTransforms[layer];
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

/// The fraction of a directional light that arrives, from the first cascade that covers the view depth. Each
/// cascade fades into the next one near its end.
float visibilityInCascades(int first, int count, vec3 N)
{
    int layer = first;
    int last = first + count - 1;
    while (layer < last && vo_ViewDepth > u_CascadeEnds[layer]) {
        ++layer;
    }
    float share = visibility(layer, N);
    float fade = smoothstep(%3 * u_CascadeEnds[layer], u_CascadeEnds[layer], vo_ViewDepth);
    return layer < last && fade > 0.0 ? mix(share, visibility(layer + 1, N), fade) : share;
}

/// The face of the cube around a point light that a ray from the light passes through.
int faceOf(vec3 ray)
{
    vec3 size = abs(ray);
    int axis = size.x >= size.y && size.x >= size.z ? 0 : size.y >= size.z ? 1 : 2;
    return 2 * axis + (ray[axis] < 0.0 ? 1 : 0);
}

vec3 lightFrom(int light, vec3 N, vec3 V, vec3 Kd, vec3 Ks)
{
    int type = int(u_LightColors[light].w);
    vec3 L = -u_LightDirections[light].xyz;
    float strength = 1.0;
    if (type != Directional) {
        vec3 towards = u_LightPositions[light].xyz - vo_Position;
        float distance2 = dot(towards, towards);
        L = towards * inversesqrt(max(distance2, 1e-12));
        float range = u_LightPositions[light].w;
        float end = clamp(1.0 - pow(distance2 / (range * range), 2.0), 0.0, 1.0);
        strength = end * end / max(distance2, 1e-4);
    }
    if (type == Spot) {
        float edge = u_LightDirections[light].w;
        strength *= smoothstep(edge, mix(edge, 1.0, 0.2), dot(-L, u_LightDirections[light].xyz));
    }
    float NdotL = dot(N, L);
    if (NdotL <= 0.0 || strength <= 0.0) {
        return vec3(0.0);
    }
    int layer = int(u_LightLayers[light].x);
    strength *= type == Directional ? visibilityInCascades(layer, int(u_LightLayers[light].y), N)
                                    : visibility(type == Point ? layer + faceOf(-L) : layer, N);
    float NdotH = max(0.0, dot(N, normalize(L + V)));
    return u_LightColors[light].rgb * strength * (NdotL * Kd + pow(NdotH, getNs()) * Ks);
}

void main()
{
    vec4 diffuse = managedTexture(getMap_Kd(), vo_TexCoord);
    if (diffuse.a < 0.5) discard;
    vec3 Kd = gammaCorrect(getKd() * diffuse.rgb, 1.0 / 2.2);
    vec3 Ks = gammaCorrect(getKs() * managedTexture(getMap_Ks(), vo_TexCoord).rgb, 1.0 / 2.2);
    vec3 N = normalize(gl_FrontFacing ? vo_Normal : -vo_Normal);
    vec3 V = normalize(u_CameraPosition - vo_Position);
    vec3 light = Kd * u_Ambient * (0.75 + 0.25 * N.y);
    for (int i = 0; i < u_NumLights; ++i) {
        light += lightFrom(i, N, V, Kd, Ks);
    }
    out_FragColor = vec4(gammaCorrect(1.0 - exp(-light), 2.2), 1.0);
}
)"_s;

void setVector(QVector<float>& array, int index, const QVector3D& xyz, float w)
{
    float* vector = array.data() + qsizetype{4} * index;
    vector[0] = xyz.x();
    vector[1] = xyz.y();
    vector[2] = xyz.z();
    vector[3] = w;
}

} // namespace

const PassDescription& ShadowedForwardRenderPass::description()
{
    static const PassDescription description{
        .type = "ShadowedForwardRenderPass",
        .summary = "Draws a model with the lights and shadows of a shadow map record.",
        .inputs = {viewportInput("size of the output", "1 x 1"),
                   projectionMatrixInput(),
                   cameraMatrixInput(),
                   modelInput("the model; all its batches are drawn", "the output is cleared to 0"),
                   {.name = "Qel_QVariant_ShadowMapData",
                    .meaning = "the record that a ShadowMapRenderPass publishes",
                    .whenMissing = "ambient light only"},
                   {.name = "Qel_float_Ambient",
                    .meaning = "light that comes evenly from all directions",
                    .whenMissing = "0",
                    .defaultValue = 0.1F,
                    .range = "0 or more"},
                   {.name = "Qel_float_LightBleedingReduction",
                    .meaning = "fraction of visible light below which a light counts as blocked",
                    .whenMissing = "0",
                    .defaultValue = 0.25F,
                    .range = "0 to 0.99"}},
        .outputs = {{.name = "Qel_QelTexture*_Frame",
                     .meaning = "the lit model, sRGB, alpha 0 on the background; RGBA8, from the pool"}}};
    return description;
}

ShadowedForwardRenderPass::ShadowedForwardRenderPass()
    : m_colors(4 * maxLights)
    , m_positions(4 * maxLights)
    , m_directions(4 * maxLights)
    , m_layers(2 * maxLights)
    , m_transforms(16 * maxLayers)
    , m_cascadeEnds(maxLayers)
{
    declarePorts(description());
}

ShadowedForwardRenderPass::~ShadowedForwardRenderPass() = default;

void ShadowedForwardRenderPass::start(RenderCallbacks* /*callbacks*/)
{
    const QSize size = m_inputs[Viewport].value.toRect().size();
    auto* model = getInputPointer<GPUModel>(Geometry);
    const auto* data = getInputPointer<ShadowMapManager::RenderData>(ShadowMapData);
    setLights(data);

    const PooledTexture depth(TextureFormat::Depth24Stencil8, size);
    const AttachedDepth attachedDepth(provide(m_framebuffer), depth.get());
    const PooledTarget target(*m_framebuffer, TextureFormat::RGBA8, size);
    if (!m_program) {
        buildModelProgram(
            provide(m_program), {"out_FragColor"}, vertexSource,
            fragmentSource.arg(QString::number(maxLights), QString::number(maxLayers),
                               QString::number(double(ShadowMapManager::cascadeFadeBegin), 'f')));
    }
    glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
    glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    if (model) {
        draw(*model, data ? data->projectionTexture() : nullptr);
    }
    m_outputs[Frame].value = target.publish(m_outputs[Frame].users);
}

/// Fills the uniform arrays with the lights, up to the sizes of the arrays.
void ShadowedForwardRenderPass::setLights(const ShadowMapRenderData* data)
{
    m_numLights = 0;
    if (!data) {
        return;
    }
    for (const ShadowMapRenderData::Light& light : data->lights()) {
        const int numLayers = light.firstLayer + light.numProjectors;
        if (m_numLights == maxLights || numLayers > maxLayers) {
            break;
        }
        if (light.numProjectors == 0) {
            continue;
        }
        const ShadowMapManager::Light& source = light.source;
        setVector(m_colors, m_numLights, source.color, static_cast<float>(source.type));
        setVector(m_positions, m_numLights, source.position, source.range);
        setVector(m_directions, m_numLights, source.direction,
                  std::cos(qDegreesToRadians(source.angle) / 2.0F));
        m_layers[2 * m_numLights] = static_cast<float>(light.firstLayer);
        m_layers[2 * m_numLights + 1] = static_cast<float>(light.numProjectors);
        for (int layer = light.firstLayer; layer < numLayers; ++layer) {
            std::copy_n(data->transform(layer).constData(), 16, m_transforms.data() + qsizetype{16} * layer);
            m_cascadeEnds[layer] = data->cascadeEnd(layer);
        }
        ++m_numLights;
    }
}

void ShadowedForwardRenderPass::draw(GPUModel& model, Texture* shadowMaps)
{
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();
    const AutoEnabler depthTest(GL_DEPTH_TEST);
    const AutoBinder programBinder(m_program.get());
    const BoundSampler sampler(*m_program, m_shadowMaps, shadowMaps, Sampling::Linear);
    m_program->setUniform(m_projectionMatrix, m_inputs[ProjectionMatrix].value.value<QMatrix4x4>());
    m_program->setUniform(m_cameraMatrix, camera);
    m_program->setUniform(m_cameraPosition, camera.inverted().column(3).toVector3D());
    m_program->setUniform(m_ambient, m_inputs[Ambient].value.toFloat());
    m_program->setUniform(m_bleedingReduction,
                          std::clamp(m_inputs[LightBleedingReduction].value.toFloat(), 0.0F, 0.99F));
    m_program->setUniform(m_numLightsUniform, shadowMaps ? m_numLights : 0);
    m_program->setUniform(m_lightColors, m_colors);
    m_program->setUniform(m_lightPositions, m_positions);
    m_program->setUniform(m_lightDirections, m_directions);
    m_program->setUniform(m_lightLayers, m_layers);
    m_program->setUniform(m_layerTransforms, m_transforms);
    m_program->setUniform(m_layerCascadeEnds, m_cascadeEnds);
    model.draw(m_program.get(), 0, 0, WindingType::CounterClockwise);
}
