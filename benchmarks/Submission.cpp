// Overhead of the library in the CPU time of submission.

#include <array>
#include <vector>

#include <epoxy/gl.h>

#include "support/PlainGL.h"
#include "support/Sides.h"
#include <Qel/RenderPasses/framework/ShaderRenderPass.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>
#include <Qel/gl/UniformBlocks.h>
#include <Qel/gl/VertexArrayObject.h>
#include <Qel/graph/PassRegistry.h>
#include <Qel/graph/RenderGraph.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Bench {
namespace {

// Small enough that rasterising costs almost nothing.
constexpr int side = 8;

const QString mixSource = uR"(#version 150
uniform sampler2D u_A;
uniform sampler2D u_B;
in vec2 vo_TexCoord;
out vec4 o_Frame;

void main()
{
    o_Frame = mix(texture(u_A, vo_TexCoord), texture(u_B, vo_TexCoord), 0.5);
}
)"_s;

/// Compares a ShaderRenderPass with two textures and one target to plain GL calls that draw the same image.
void SubmitFullScreenPass(benchmark::State& state)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    const auto a = makeLinearTexture({side, side}, nullptr);
    const auto b = makeLinearTexture({side, side}, nullptr);

    ShaderRenderPass pass;
    pass.addInput(u"Qel_QRect_Viewport"_s, QRect(0, 0, side, side));
    pass.addInput(u"Qel_QelTexture*_A"_s, QVariant::fromValue<QObject*>(a.get()));
    pass.addInput(u"Qel_QelTexture*_B"_s, QVariant::fromValue<QObject*>(b.get()));
    pass.addOutput(u"Qel_QelTexture*_Frame"_s);
    pass.setFragmentShaderSource(mixSource);

    const auto target = makeLinearTexture({side, side}, nullptr);
    unsigned int framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    const unsigned int program =
        linkProgram(R"(#version 150
in vec3 va_Vertex;
in vec2 va_TexCoord;
out vec2 vo_TexCoord;
void main() { gl_Position = vec4(va_Vertex, 1.0); vo_TexCoord = va_TexCoord; })",
                    mixSource.toStdString(), {"va_Vertex", "va_Normal", "va_TexCoord"});
    const int locationA = glGetUniformLocation(program, "u_A");
    const int locationB = glGetUniformLocation(program, "u_B");
    const QSharedPointer<DrawBuffers> batch = context->fullScreenTriangle();
    {
        const AutoBinder binder(batch->VAO().data());
        glEnableVertexAttribArray(0);
        glEnableVertexAttribArray(2);
    }
    const unsigned int vertexArray = batch->VAO()->getVAO();

    const auto library = [&] { pass.start(nullptr); };
    const auto plain = [&] {
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glFramebufferTexture(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, target->textureID(), 0);
        constexpr GLenum drawBuffer = GL_COLOR_ATTACHMENT0;
        glDrawBuffers(1, &drawBuffer);
        glViewport(0, 0, side, side);
        glDisable(GL_DEPTH_TEST);
        glDisable(GL_BLEND);
        glClear(GL_COLOR_BUFFER_BIT);
        glUseProgram(program);
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, a->textureID());
        glActiveTexture(GL_TEXTURE1);
        glBindTexture(GL_TEXTURE_2D, b->textureID());
        glUniform1i(locationA, 0);
        glUniform1i(locationB, 1);
        glBindVertexArray(vertexArray);
        glDrawArrays(GL_TRIANGLES, 0, 3);
        glBindVertexArray(0);
        glBindTexture(GL_TEXTURE_2D, 0);
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, 0);
        glUseProgram(0);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    };
    compareSides(state, Wait::Submission, library, plain);
    glDeleteProgram(program);
    glDeleteFramebuffers(1, &framebuffer);
    context->makeCurrent();
}
BENCHMARK(SubmitFullScreenPass);

/// A pass that does nothing, so that only the graph costs time.
class IdleRenderPass : public RenderPassHelper
{
public:
    static const PassDescription& description()
    {
        static const PassDescription description{u"IdleRenderPass"_s,
                                                 u"Does nothing."_s,
                                                 {{u"Qel_QRect_Viewport"_s, u"size"_s, u"none"_s},
                                                  {u"Qel_float_Value"_s, u"a number"_s, u"none"_s}},
                                                 {}};
        return description;
    }
    IdleRenderPass() { declarePorts(description()); }
};

/// Measures the overhead of the graph per pass.
void SubmitGraph(benchmark::State& state)
{
    const auto numPasses = static_cast<int>(state.range(0));
    PassRegistry registry;
    registry.add<IdleRenderPass>();
    GraphDescription description;
    description.viewport = {side, side};
    for (int i = 0; i < numPasses; ++i) {
        description.passes.push_back({u"pass%1"_s.arg(i), u"IdleRenderPass"_s, {}, {}});
    }
    QStringList errors;
    const auto graph = RenderGraph::create(description, registry, {}, &errors);
    QString error;
    if (!graph || !graph->renderFrame(&error)) {
        state.SkipWithError(qPrintable(errors.join(u' ') + error));
        return;
    }
    for ([[maybe_unused]] auto iteration : state) {
        graph->renderFrame(&error);
    }
    // Seconds per pass and frame, printed with an SI prefix such as 400n.
    state.counters["s_per_pass"] = benchmark::Counter(
        numPasses, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(SubmitGraph)->Arg(1)->Arg(10)->Arg(50);

/// Compares drawing a model of many small batches to a loop over the GL calls of each batch.
void SubmitModel(benchmark::State& state)
{
    const auto numBatches = static_cast<int>(state.range(0));
    ModelData data;
    MeshData& mesh = data.meshes.emplace_back();
    mesh.positions = {{0, 0, 0}, {0.01F, 0, 0}, {0, 0.01F, 0}};
    mesh.normals = {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}};
    mesh.texCoords.resize(3);
    mesh.indices = {0, 1, 2};
    data.materials.emplace_back();
    data.instances.resize(static_cast<size_t>(numBatches));
    GPUModel model(data);

    const InstanceDataRegistry* registry = InstanceDataRegistry::Instance();
    ShaderProgram program;
    program.addShader(GL_VERTEX_SHADER, uR"(#version 150
#instancedata "InstanceInfo"
in vec3 va_Vertex;
void main() { gl_Position = getModelMatrix() * vec4(va_Vertex, 1.0); })"_s,
                      {});
    program.addShader(GL_VERTEX_SHADER, registry->getPlan(u"InstanceInfo"_s)->glslc(), {});
    program.addShader(GL_FRAGMENT_SHADER, uR"(#version 150
#instancedata "OBJMaterial"
out vec4 out_FragColor;
void main() { out_FragColor = vec4(getKd(), getD()); })"_s,
                      {});
    program.addShader(GL_FRAGMENT_SHADER, registry->getPlan(u"OBJMaterial"_s)->glslc(), {});

    const auto target = makeLinearTexture({side, side}, nullptr);
    FramebufferObject framebuffer;
    const AutoBinder framebufferBinder(&framebuffer);
    framebuffer.attach(target.get(), GL_COLOR_ATTACHMENT0, 0);
    framebuffer.setDrawBuffers();
    const AutoBinder programBinder(&program);
    if (!program.isValid()) {
        state.SkipWithError(qPrintable(program.log()));
        return;
    }

    const QSharedPointer<VertexArrayObject> vertexArray = model.drawBuffers(0)->VAO();
    const unsigned int indices = model.drawBuffers(0)->indexBO()->getBO();
    const int stride = std::max(InstanceDataCollection::uniformBufferAlignment(), 128);
    BufferObject instances(GL_UNIFORM_BUFFER);
    const std::vector<char> blocks(static_cast<size_t>(stride) * static_cast<size_t>(numBatches));
    instances.uploadBytes(blocks.data(), static_cast<qsizetype>(blocks.size()), GL_STATIC_DRAW);

    const auto library = [&] { model.draw(&program, 0, 0, WindingType::CounterClockwise); };
    const auto plain = [&] {
        glFrontFace(GL_CCW);
        glBindBufferRange(GL_UNIFORM_BUFFER, UniformBlocks::objMaterial, instances.getBO(), 0, 32);
        for (int i = 0; i < numBatches; ++i) {
            glBindBufferRange(GL_UNIFORM_BUFFER, UniformBlocks::instanceInfo, instances.getBO(),
                              static_cast<GLintptr>(stride) * i, 128);
            glBindVertexArray(vertexArray->getVAO());
            glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, indices);
            glDrawElements(GL_TRIANGLES, 3, GL_UNSIGNED_INT, nullptr);
        }
        glBindVertexArray(0);
    };
    compareSides(state, Wait::Submission, library, plain);
    state.counters["extra_us_per_batch"] =
        (state.counters["library_us"].value - state.counters["plain_gl_us"].value) / numBatches;
}
BENCHMARK(SubmitModel)->Arg(1)->Arg(100)->Arg(1000);

} // namespace
} // namespace Morvane::Qel::Bench
