// Overhead of the shadow map pass over drawing its maps in plain GL.

#include <array>
#include <cmath>
#include <numbers>

#include <epoxy/gl.h>

#include "support/Models.h"
#include "support/PlainGL.h"
#include "support/Sides.h"
#include <Qel/RenderPasses/lighting/ShadowMapRenderPass.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/VertexArrayObject.h>
#include <Qel/model/GPUModel.h>

namespace Morvane::Qel::Bench {
namespace {

constexpr int side = ShadowMapManager::mapSize;
constexpr int numLayers = 4;

/// Returns a sphere of radius 1 of 100,352 triangles, counter-clockwise from outside.
ModelData makeSphere()
{
    return makeSurface(224, 224, [](float u, float v) {
        const float polar = std::numbers::pi_v<float> * v;
        const float azimuth = 2.0F * std::numbers::pi_v<float> * u;
        const QVector3D point(std::sin(polar) * std::cos(azimuth), std::cos(polar),
                              -std::sin(polar) * std::sin(azimuth));
        return SurfacePoint{point, point, {}};
    });
}

unsigned int makeArray()
{
    unsigned int texture = 0;
    glGenTextures(1, &texture);
    glBindTexture(GL_TEXTURE_2D_ARRAY, texture);
    glTexImage3D(GL_TEXTURE_2D_ARRAY, 0, GL_RG32F, side, side, numLayers, 0, GL_RG, GL_FLOAT, nullptr);
    for (const GLenum filter : {GL_TEXTURE_MIN_FILTER, GL_TEXTURE_MAG_FILTER}) {
        glTexParameteri(GL_TEXTURE_2D_ARRAY, filter, GL_LINEAR);
    }
    for (const GLenum direction : {GL_TEXTURE_WRAP_S, GL_TEXTURE_WRAP_T}) {
        glTexParameteri(GL_TEXTURE_2D_ARRAY, direction, GL_CLAMP_TO_EDGE);
    }
    return texture;
}

/// Draws the same maps in plain GL: the scene into each layer, then the horizontal and vertical blur of each
/// layer, with the shaders of the pass.
class PlainMaps
{
public:
    explicit PlainMaps(const GPUModel& model)
        : m_moments(makeArray())
        , m_scratch(makeArray())
        , m_vertexArray(model.drawBuffers(0)->VAO()->getVAO())
        , m_indices(model.drawBuffers(0)->indexBO()->getBO())
        , m_numIndices(model.drawBuffers(0)->count())
    {
        m_program = linkProgram(R"(#version 150
            uniform mat4 modelViewProjectionMatrix;
            layout(std140) uniform Instance { mat4 modelMatrix; } b_Instance;
            in vec3 va_Vertex;
            out vec2 vo_fragPos;
            void main()
            {
                vec4 pos = modelViewProjectionMatrix * b_Instance.modelMatrix * vec4(va_Vertex, 1.0);
                vo_fragPos = vec2(pos.z, pos.w);
                gl_Position = pos;
            })",
                                R"(#version 150
            in vec2 vo_fragPos;
            out vec4 out_fragDepth;
            void main()
            {
                float depth = vo_fragPos.x / vo_fragPos.y + 0.0001;
                if (depth < 0.0) discard;
                depth = min(depth, 1.0);
                out_fragDepth = vec4(depth, depth * depth, 0.0, 0.0);
            })",
                                {"va_Vertex"});
        m_blurProgram = linkProgram(R"(#version 150
            in vec3 va_Vertex;
            out vec2 vo_TexCoord;
            void main() { gl_Position = vec4(va_Vertex, 1.0); vo_TexCoord = va_Vertex.xy * 0.5 + 0.5; })",
                                    R"(#version 150
            uniform sampler2DArray u_FrameSampler;
            uniform int u_Index;
            uniform vec3 u_Step;
            in vec2 vo_TexCoord;
            out vec4 out_FragColor;
            void main()
            {
                vec3 c = vec3(0.08865384012460709, 0.9756109714508057, 0.9518167972564697);
                vec2 sum = texture(u_FrameSampler, vec3(vo_TexCoord, float(u_Index))).rg * c.x;
                float weights = c.x;
                for (int i = 1; i < 4; ++i) {
                    c.xy *= c.yz;
                    vec2 o = float(i) * u_Step.xy;
                    sum += (texture(u_FrameSampler, vec3(vo_TexCoord + o, float(u_Index))).rg +
                            texture(u_FrameSampler, vec3(vo_TexCoord - o, float(u_Index))).rg) * c.x;
                    weights += 2.0 * c.x;
                }
                out_FragColor = vec4(sum / weights, 0.0, 0.0);
            })",
                                    {"va_Vertex"});
        m_transform = glGetUniformLocation(m_program, "modelViewProjectionMatrix");
        m_index = glGetUniformLocation(m_blurProgram, "u_Index");
        m_step = glGetUniformLocation(m_blurProgram, "u_Step");
        glGenFramebuffers(1, &m_framebuffer);
        glGenTextures(1, &m_depth);
        glBindTexture(GL_TEXTURE_2D, m_depth);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_DEPTH_COMPONENT32F, side, side, 0, GL_DEPTH_COMPONENT, GL_FLOAT,
                     nullptr);
        constexpr std::array<float, 16> identity{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
        glGenBuffers(1, &m_instance);
        glBindBuffer(GL_UNIFORM_BUFFER, m_instance);
        glBufferData(GL_UNIFORM_BUFFER, sizeof(identity), identity.data(), GL_STATIC_DRAW);
        constexpr std::array<float, 12> corners{-1, -1, 0, 1, -1, 0, -1, 1, 0, 1, 1, 0};
        glGenBuffers(1, &m_corners);
        glBindBuffer(GL_ARRAY_BUFFER, m_corners);
        glBufferData(GL_ARRAY_BUFFER, sizeof(corners), corners.data(), GL_STATIC_DRAW);
        glGenVertexArrays(1, &m_quad);
        glBindVertexArray(m_quad);
        glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 0, nullptr);
        glEnableVertexAttribArray(0);
        glBindVertexArray(0);
    }

    ~PlainMaps()
    {
        glDeleteVertexArrays(1, &m_quad);
        glDeleteBuffers(1, &m_corners);
        glDeleteBuffers(1, &m_instance);
        glDeleteFramebuffers(1, &m_framebuffer);
        glDeleteTextures(1, &m_depth);
        glDeleteTextures(1, &m_moments);
        glDeleteTextures(1, &m_scratch);
        glDeleteProgram(m_program);
        glDeleteProgram(m_blurProgram);
    }
    PlainMaps(const PlainMaps&) = delete;
    PlainMaps& operator=(const PlainMaps&) = delete;

    void draw(const ShadowMapManager::RenderData& data) const
    {
        glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffer);
        glFramebufferTexture(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, m_depth, 0);
        glViewport(0, 0, side, side);
        glEnable(GL_DEPTH_TEST);
        glEnable(GL_DEPTH_CLAMP);
        glEnable(GL_CULL_FACE);
        glClearColor(1e9F, 1e9F, 1e9F, 1.0F);
        glUseProgram(m_program);
        glBindBufferBase(GL_UNIFORM_BUFFER, 0, m_instance);
        glBindVertexArray(m_vertexArray);
        glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, m_indices);
        for (int layer = 0; layer < numLayers; ++layer) {
            glFramebufferTextureLayer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, m_moments, 0, layer);
            glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
            glUniformMatrix4fv(m_transform, 1, GL_FALSE, data.transform(layer).constData());
            glDrawElements(GL_TRIANGLES, m_numIndices, GL_UNSIGNED_INT, nullptr);
        }
        // The blur needs no depth and writes every texel of a layer.
        glDisable(GL_DEPTH_TEST);
        glDisable(GL_DEPTH_CLAMP);
        glDisable(GL_CULL_FACE);
        glFramebufferTexture(GL_FRAMEBUFFER, GL_DEPTH_ATTACHMENT, 0, 0);
        glUseProgram(m_blurProgram);
        glBindVertexArray(m_quad);
        glActiveTexture(GL_TEXTURE0);
        for (const bool isFirst : {true, false}) {
            glBindTexture(GL_TEXTURE_2D_ARRAY, isFirst ? m_moments : m_scratch);
            glUniform3f(m_step, isFirst ? 1.0F / side : 0.0F, isFirst ? 0.0F : 1.0F / side, 0.0F);
            for (int layer = 0; layer < numLayers; ++layer) {
                glFramebufferTextureLayer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0,
                                          isFirst ? m_scratch : m_moments, 0, layer);
                glUniform1i(m_index, layer);
                glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
            }
        }
        glBindTexture(GL_TEXTURE_2D_ARRAY, 0);
        glBindVertexArray(0);
        glUseProgram(0);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }

private:
    unsigned int m_moments;
    unsigned int m_scratch;
    unsigned int m_vertexArray;
    unsigned int m_indices;
    int m_numIndices;
    unsigned int m_program = 0;
    unsigned int m_blurProgram = 0;
    int m_transform = -1;
    int m_index = -1;
    int m_step = -1;
    unsigned int m_framebuffer = 0;
    unsigned int m_depth = 0;
    unsigned int m_instance = 0;
    unsigned int m_corners = 0;
    unsigned int m_quad = 0;
};

/// Draws the maps of four directional lights.
void ShadowMaps(benchmark::State& state)
{
    GPUModel model(makeSphere());
    std::array<ShadowMapManager::Light, numLayers> lights;
    QVariantList list;
    for (int i = 0; i < numLayers; ++i) {
        ShadowMapManager::Light& light = lights[static_cast<size_t>(i)];
        light.direction = QVector3D(0.3F * static_cast<float>(i), -1.0F, 0.2F);
        list.append(QVariant::fromValue(&light));
    }
    ShadowMapRenderPass pass;
    pass.setInput(ShadowMapRenderPass::Geometry, QVariant::fromValue(&model));
    pass.setInput(ShadowMapRenderPass::Lights, list);
    pass.setInput(ShadowMapRenderPass::Dirty, true);
    pass.setInput(ShadowMapRenderPass::SceneBoundsMin, model.bounds().first);
    pass.setInput(ShadowMapRenderPass::SceneBoundsMax, model.bounds().second);
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->applyBaseState();
    pass.start(nullptr);
    const auto* data = qobject_cast<const ShadowMapManager::RenderData*>(
        pass.output(ShadowMapRenderPass::ShadowMapData).value<QObject*>());
    {
        const PlainMaps maps(model);
        compareSides(
            state, Wait::Pixels, [&] { pass.start(nullptr); }, [&] { maps.draw(*data); });
    }
    context->makeCurrent();
}
BENCHMARK(ShadowMaps);

/// Runs the pass in a frame in which nothing changed.
void SubmitUnchangedShadowMaps(benchmark::State& state)
{
    GPUModel model(makeSphere());
    ShadowMapManager::Light light;
    ShadowMapRenderPass pass;
    pass.setInput(ShadowMapRenderPass::Geometry, QVariant::fromValue(&model));
    pass.setInput(ShadowMapRenderPass::Lights, QVariantList{QVariant::fromValue(&light)});
    pass.setInput(ShadowMapRenderPass::Dirty, false);
    OpenGLDeviceContext::current()->applyBaseState();
    pass.start(nullptr);
    for ([[maybe_unused]] auto iteration : state) {
        pass.start(nullptr);
    }
}
BENCHMARK(SubmitUnchangedShadowMaps);

} // namespace
} // namespace Morvane::Qel::Bench
