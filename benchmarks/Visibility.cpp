// Building fragment lists against the same draw in plain GL, and the cost of sorting by the number of layers.

#include <QMatrix4x4>
#include <QRect>

#include <array>
#include <chrono>
#include <cmath>
#include <numbers>
#include <vector>

#include <epoxy/gl.h>

#include "support/Models.h"
#include "support/PlainGL.h"
#include "support/Sides.h"
#include <Qel/RenderPasses/visibility/VisibilityBufferRenderPass.h>
#include <Qel/RenderPasses/visibility/VisibilitySortRenderPass.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/VertexArrayObject.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Bench {
namespace {

/// Returns a ring of 100,000 triangles, one to four layers deep.
ModelData makeRing()
{
    constexpr float turn = 2.0F * std::numbers::pi_v<float>;
    return makeSurface(500, 100, [](float u, float v) {
        const QVector3D outwards(std::cos(turn * u), std::sin(turn * u), 0.0F);
        const QVector3D normal = std::cos(turn * v) * outwards + QVector3D(0.0F, 0.0F, std::sin(turn * v));
        return SurfacePoint{0.75F * outwards + 0.3F * normal, normal, {u, v}};
    });
}

/// Builds the same lists in plain GL, without clearing the nodes: lists that are only read from their head
/// pointers do not need it.
class PlainLists
{
public:
    PlainLists(int width, int height);
    ~PlainLists();
    PlainLists(const PlainLists&) = delete;
    PlainLists& operator=(const PlainLists&) = delete;

    void draw(unsigned int vertexArray, unsigned int indices, int count);
    ShaderProgram& program() { return m_program; }

private:
    int m_width;
    int m_height;
    ShaderProgram m_program;
    std::array<unsigned int, 4> m_textures{};
    std::array<unsigned int, 2> m_framebuffers{};
    unsigned int m_counter = 0;
};

PlainLists::PlainLists(int width, int height)
    : m_width(width)
    , m_height(height)
{
    m_program.addShader(GL_VERTEX_SHADER, uR"(#version 150
uniform mat4 u_CameraMatrix;
uniform mat4 u_ProjectionMatrix;
uniform mat4 u_ModelMatrix;
in vec3 va_Vertex;
void main() { gl_Position = u_ProjectionMatrix * u_CameraMatrix * u_ModelMatrix * vec4(va_Vertex, 1.0); })"_s,
                        {});
    m_program.addShader(GL_FRAGMENT_SHADER, uR"(#version 150
#extension GL_ARB_shader_atomic_counters : enable
#extension GL_ARB_shader_image_load_store : enable
#extension GL_ARB_shading_language_420pack : enable
#extension GL_ARB_shader_bit_encoding : enable
layout(binding = 0, offset = 0) uniform atomic_uint counter;
layout(r32ui, binding = 0) uniform uimage2D heads;
layout(rgba32ui, binding = 1) writeonly uniform uimage2D nodes;
uniform int side;
uniform int draw;
void main()
{
    uint node = atomicCounterIncrement(counter);
    uint next = imageAtomicExchange(heads, ivec2(gl_FragCoord.xy), node + 1u);
    imageStore(nodes, ivec2(node % uint(side), node / uint(side)),
               uvec4(next, uint(gl_PrimitiveID) + 1u, floatBitsToUint(gl_FragCoord.z), uint(draw)));
})"_s,
                        {});
    m_program.bind();
    m_program.setUniform(u"side"_s, 4096);
    m_program.release();

    m_textures = {
        makeTexture({width, height}, GL_RGBA16F, GL_RGBA, GL_FLOAT, GL_NEAREST),
        makeTexture({width, height}, GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, GL_NEAREST),
        makeTexture({width, height}, GL_R32UI, GL_RED_INTEGER, GL_UNSIGNED_INT, GL_NEAREST),
        makeTexture({4096, 4096}, GL_RGBA32UI, GL_RGBA_INTEGER, GL_UNSIGNED_INT, GL_NEAREST)};
    m_framebuffers = {makeFramebuffer({m_textures[0]}, m_textures[1]), makeFramebuffer({m_textures[2]})};
    glGenBuffers(1, &m_counter);
    glBindBuffer(GL_ATOMIC_COUNTER_BUFFER, m_counter);
    glBufferData(GL_ATOMIC_COUNTER_BUFFER, 4, nullptr, GL_DYNAMIC_DRAW);
}

PlainLists::~PlainLists()
{
    glDeleteBuffers(1, &m_counter);
    glDeleteFramebuffers(2, m_framebuffers.data());
    glDeleteTextures(4, m_textures.data());
}

void PlainLists::draw(unsigned int vertexArray, unsigned int indices, int count)
{
    constexpr std::array<unsigned int, 4> zeroes{};
    glMemoryBarrier(GL_FRAMEBUFFER_BARRIER_BIT | GL_BUFFER_UPDATE_BARRIER_BIT);
    glBindBufferBase(GL_ATOMIC_COUNTER_BUFFER, 0, m_counter);
    glBufferSubData(GL_ATOMIC_COUNTER_BUFFER, 0, 4, zeroes.data());
    glViewport(0, 0, m_width, m_height);
    glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffers[1]);
    glClearBufferuiv(GL_COLOR, 0, zeroes.data());
    glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffers[0]);
    glMemoryBarrier(GL_SHADER_IMAGE_ACCESS_BARRIER_BIT);
    glEnable(GL_DEPTH_TEST);
    glUseProgram(m_program.programID());
    glBindImageTexture(0, m_textures[2], 0, GL_FALSE, 0, GL_READ_WRITE, GL_R32UI);
    glBindImageTexture(1, m_textures[3], 0, GL_FALSE, 0, GL_WRITE_ONLY, GL_RGBA32UI);
    glBindVertexArray(vertexArray);
    glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, indices);
    glDrawElements(GL_TRIANGLES, count, GL_UNSIGNED_INT, nullptr);
    glBindVertexArray(0);
    glUseProgram(0);
    glMemoryBarrier(GL_TEXTURE_FETCH_BARRIER_BIT);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
}

void BuildFragmentLists(benchmark::State& state)
{
    if (!hasGLExtension("ARB_shader_image_load_store")) {
        state.SkipWithError("the context has no image stores");
        return;
    }
    constexpr int width = 1280;
    constexpr int height = 720;
    GPUModel model(makeRing());
    QMatrix4x4 projection;
    projection.perspective(40.0F, static_cast<float>(width) / height, 0.1F, 10.0F);
    QMatrix4x4 camera;
    camera.lookAt({0.6F, 1.2F, 2.4F}, {}, {0.0F, 1.0F, 0.0F});

    VisibilityBufferRenderPass pass;
    pass.setInput(VisibilityBufferRenderPass::Viewport, QRect(0, 0, width, height));
    pass.setInput(VisibilityBufferRenderPass::ProjectionMatrix, projection);
    pass.setInput(VisibilityBufferRenderPass::CameraMatrix, camera);
    pass.setInput(VisibilityBufferRenderPass::Geometry, QVariant::fromValue(&model));

    PlainLists lists(width, height);
    lists.program().setUniform(u"u_ProjectionMatrix"_s, projection);
    lists.program().setUniform(u"u_CameraMatrix"_s, camera);
    lists.program().setUniform(u"u_ModelMatrix"_s, QMatrix4x4());
    DrawBuffers* batch = model.drawBuffers(0);
    compareSides(
        state, Wait::Pixels, [&] { pass.start(nullptr); },
        [&] { lists.draw(batch->VAO()->getVAO(), batch->indexBO()->getBO(), batch->count()); });
    OpenGLDeviceContext::current()->makeCurrent();
}
BENCHMARK(BuildFragmentLists)->Unit(benchmark::kMillisecond);

/// Returns planes that cover the viewport, in an order that sorting has to change.
ModelData makeStack(int numLayers)
{
    ModelData data;
    data.meshes.resize(1);
    data.materials.emplace_back();
    MeshData& mesh = data.meshes[0];
    for (int i = 0; i < numLayers; ++i) {
        // 37 is coprime to the numbers of layers.
        const float height = static_cast<float>(i * 37 % numLayers) / static_cast<float>(numLayers);
        const auto first = static_cast<unsigned int>(mesh.positions.size());
        for (const QVector2D& corner :
             {QVector2D(-1, -1), QVector2D(1, -1), QVector2D(-1, 1), QVector2D(1, 1)}) {
            mesh.positions.emplace_back(corner, height);
        }
        for (const unsigned int offset : {0U, 1U, 2U, 2U, 1U, 3U}) {
            mesh.indices.push_back(first + offset);
        }
    }
    mesh.normals.resize(mesh.positions.size());
    mesh.texCoords.resize(mesh.positions.size());
    data.instances.emplace_back();
    return data;
}

/// Sorts the lists of all pixels, by list length.
void SortFragmentLists(benchmark::State& state)
{
    if (!hasGLExtension("ARB_shader_image_load_store")) {
        state.SkipWithError("the context has no image stores");
        return;
    }
    const auto numLayers = static_cast<int>(state.range(0));
    // At this size, 32 layers fit into the node buffer.
    const QRect viewport(0, 0, 640, 360);
    GPUModel model(makeStack(numLayers));
    VisibilityBufferRenderPass lists;
    lists.setInput(VisibilityBufferRenderPass::Viewport, viewport);
    lists.setInput(VisibilityBufferRenderPass::Geometry, QVariant::fromValue(&model));
    VisibilitySortRenderPass sort;
    sort.setInput(VisibilitySortRenderPass::Viewport, viewport);
    const auto run = [&] {
        // The pass sorts in place, so every round needs new lists.
        lists.start(nullptr);
        sort.setInput(VisibilitySortRenderPass::HeadPointers, lists.output(0));
        sort.setInput(VisibilitySortRenderPass::NodeBuffer, lists.output(1));
        sort.setInput(VisibilitySortRenderPass::NodeBufferWidth, lists.output(2));
        glFinish();
        const auto start = std::chrono::steady_clock::now();
        sort.start(nullptr);
        glFinish();
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        return elapsed.count();
    };
    run();
    std::vector<double> seconds;
    for ([[maybe_unused]] auto iteration : state) {
        seconds.push_back(run());
        state.SetIterationTime(seconds.back());
    }
    state.counters["ms"] = 1e3 * median(seconds);
    state.counters["ms_per_layer"] = 1e3 * median(seconds) / numLayers;
}
BENCHMARK(SortFragmentLists)->Arg(1)->Arg(8)->Arg(32)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
} // namespace Morvane::Qel::Bench
