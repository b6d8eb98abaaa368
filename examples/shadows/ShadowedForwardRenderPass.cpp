#include "ShadowedForwardRenderPass.h"

#include <QMatrix4x4>
#include <QRect>
#include <QtMath>

#include <algorithm>
#include <cmath>

#include <epoxy/gl.h>

#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
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

// %1 and %2 are the sizes of the arrays, %3 the part of a cascade that has been passed when it begins to
// fade.
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

/// The share of a light that arrives at a depth, by the mean and the mean square of the depths around the
/// place; negative where the blur mixed in places at which the map is empty, for then it tells nothing.
float shareOfLight(vec3 place, float depth)
{
    vec2 moments = textureLod(u_ShadowMaps, place, 0.0).rg;
    if (moments.x > 1.5) {
        return -1.0;
    }
    // The maps end at depth 1, and so does what is compared with them.
    float behind = min(depth, 1.0) - moments.x;
    if (behind <= 0.0) {
        return 1.0;
    }
    // What single precision loses when two squares of nearly 1 are subtracted must not count as shadow.
    const float leastVariance = 5e-7;
    float variance = max(moments.y - moments.x * moments.x, leastVariance);
    float bound = variance / (variance + behind * behind);
    return clamp((bound - u_BleedingReduction) / (1.0 - u_BleedingReduction), 0.0, 1.0);
}

/// The same at this place, whose surface has the normal N.
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
    // Beside an empty part of the map, such as a window: ask beyond the reach of the blur, at the depths of the
    // plane on which this place lies. Where all is empty, nothing stands in the light.
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

/// The share of a directional light that arrives: by the first cascade that reaches so far, which fades into
/// the next one along its last part.
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

/// Which face of the cube around a point light the ray from it passes.
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
        "ShadowedForwardRenderPass",
        "Draws a model lit by the lights of a shadow map record, with their shadows.",
        {{"Qel_QRect_Viewport", "size of the picture", "1 x 1", {}, "pixels"},
         {"Qel_QMatrix4x4_ProjectionMatrix", "eye space to clip space", "identity"},
         {"Qel_QMatrix4x4_CameraMatrix", "world space to eye space", "identity"},
         {"Qel_QelGPUModel*_Geometry", "the model; all its batches are drawn", "the picture is empty"},
         {"Qel_QVariant_ShadowMapData", "the record that a ShadowMapRenderPass publishes",
          "ambient light only"},
         {"Qel_float_Ambient", "light that comes from everywhere", "0", 0.1F, "0 or more"},
         {"Qel_float_LightBleedingReduction", "below this share of its light, a lamp counts as hidden", "0",
          0.25F, "0 to 0.99"}},
        {{"Qel_QelTexture*_Frame", "the lit model, RGBA8; alpha 0 where there is nothing"}}};
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
    const QRect viewport = m_inputs[Viewport].value.toRect();
    auto* model = getInputPointer<GPUModel>(Geometry);
    const auto* data = getInputPointer<ShadowMapManager::RenderData>(ShadowMapData);
    if (!m_program) {
        build();
    }
    setLights(data);

    TextureManager* pool = TextureManager::Instance();
    Texture* frame = pool->tempTexture(TextureFormat::RGBA8, viewport.width(), viewport.height());
    Texture* depth = pool->tempTexture(TextureFormat::Depth24Stencil8, viewport.width(), viewport.height());
    {
        const AutoBinder framebufferBinder(m_framebuffer.get());
        m_framebuffer->attach(frame, GL_COLOR_ATTACHMENT0, 0);
        m_framebuffer->attach(depth, GL_DEPTH_STENCIL_ATTACHMENT, 0);
        m_framebuffer->setDrawBuffers();
        glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        if (model) {
            draw(*model, data);
        }
        m_framebuffer->detach(GL_COLOR_ATTACHMENT0);
        m_framebuffer->detach(GL_DEPTH_STENCIL_ATTACHMENT);
    }
    pool->releaseTempTextureRef(depth, 1);
    m_outputs[Frame].value = QVariant::fromValue<QObject*>(frame);
    pool->addTempTextureRef(frame, m_outputs[Frame].users);
    pool->releaseTempTextureRef(frame, 1);
}

void ShadowedForwardRenderPass::build()
{
    const InstanceDataRegistry* plans = InstanceDataRegistry::Instance();
    m_framebuffer = std::make_unique<FramebufferObject>();
    m_program = std::make_unique<ShaderProgram>();
    m_program->setFragDataLocations({"out_FragColor"});
    m_program->addShader(GL_VERTEX_SHADER, vertexSource, "ShadowedForwardRenderPass.vert");
    m_program->addShader(GL_VERTEX_SHADER, plans->getPlan("InstanceInfo")->glslc(), {});
    m_program->addShader(GL_FRAGMENT_SHADER,
                         fragmentSource.arg(QString::number(maxLights), QString::number(maxLayers),
                                            QString::number(double(ShadowMapManager::cascadeFadeBegin), 'f')),
                         "ShadowedForwardRenderPass.frag");
    m_program->addShader(GL_FRAGMENT_SHADER, plans->getPlan("OBJMaterial")->glslc(), {});
    m_program->addShaderFromFile(GL_FRAGMENT_SHADER, "TextureManager.glslc");
    m_program->addShaderFromFile(GL_FRAGMENT_SHADER, "QelUtilities.glslc");
}

/// Fills the arrays with as many lights as they hold.
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

void ShadowedForwardRenderPass::draw(GPUModel& model, const ShadowMapRenderData* data)
{
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();
    const AutoEnabler depthTest(GL_DEPTH_TEST);
    const AutoBinder programBinder(m_program.get());
    // An AutoBinder of null binds nothing.
    Texture* shadowMaps = data ? data->projectionTexture() : nullptr;
    const AutoBinder shadowMapsBinder(shadowMaps);
    m_program->setUniform(m_projectionMatrix, m_inputs[ProjectionMatrix].value.value<QMatrix4x4>());
    m_program->setUniform(m_cameraMatrix, camera);
    m_program->setUniform(m_cameraPosition, camera.inverted().column(3).toVector3D());
    m_program->setUniform(m_ambient, m_inputs[Ambient].value.toFloat());
    m_program->setUniform(m_bleedingReduction,
                          std::clamp(m_inputs[LightBleedingReduction].value.toFloat(), 0.0F, 0.99F));
    m_program->setUniform(m_shadowMaps, shadowMaps ? shadowMaps->unit() : 0);
    m_program->setUniform(m_numLightsUniform, shadowMaps ? m_numLights : 0);
    m_program->setUniform(m_lightColors, m_colors);
    m_program->setUniform(m_lightPositions, m_positions);
    m_program->setUniform(m_lightDirections, m_directions);
    m_program->setUniform(m_lightLayers, m_layers);
    m_program->setUniform(m_layerTransforms, m_transforms);
    m_program->setUniform(m_layerCascadeEnds, m_cascadeEnds);
    model.draw(m_program.get(), 0, 0, WindingType::CounterClockwise);
}
