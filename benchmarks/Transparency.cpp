// Order-independent transparency against plain GL: the same shading and render targets, and every batch drawn
// in a single unordered pass.

#include <QMatrix4x4>
#include <QRect>

#include <cmath>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <epoxy/gl.h>

#include "support/PlainGL.h"
#include "support/Sides.h"
#include <Qel/RenderPasses/lighting/TransparencyRenderPass.h>
#include <Qel/gl/BufferObject.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/VertexArrayObject.h>
#include <Qel/model/GPUModel.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Bench {

namespace {

constexpr const char* modelVertexSource = R"(#version 150
layout(std140) uniform Instance { mat4 modelMatrix; mat4 modelNormalMatrix; };
uniform mat4 camera;
uniform mat4 projection;
in vec3 va_Vertex;
in vec3 va_Normal;
in vec2 va_TexCoord;
out vec3 normal;
out vec2 uv;
invariant gl_Position;
void main()
{
    gl_Position = projection * camera * modelMatrix * vec4(va_Vertex, 1.0);
    normal = transpose(inverse(mat3(camera))) * mat3(modelNormalMatrix) * va_Normal;
    uv = va_TexCoord;
}
)";

const std::string shading = R"(#version 150
layout(std140) uniform Material { vec3 kd; float d; vec3 ks; float ns; };
uniform sampler2D mapKd;
uniform sampler2D mapKs;
in vec3 normal;
in vec2 uv;
vec3 lit()
{
    vec3 l = normalize(vec3(100.0));
    vec3 h = normalize(l + vec3(0.0, 0.0, 1.0));
    return max(0.0, dot(normal, l)) * kd * texture(mapKd, uv).rgb +
           pow(max(0.0, dot(normal, h)), ns) * ks * texture(mapKs, uv).rgb;
}
)";

const std::string opaqueSource = shading + R"(
out vec4 colour;
void main()
{
    if (d < 1.0) discard;
    colour = vec4(lit(), d);
}
)";

const std::string accumulationSource = shading + R"(
out vec4 sums[2];
void main()
{
    float weight = pow(abs(gl_FragCoord.z), -5.0);
    sums[0] = vec4(lit() * weight, d);
    sums[1] = vec4(d * weight);
}
)";

constexpr const char* triangleSource = R"(#version 150
void main()
{
    gl_Position = vec4(gl_VertexID == 1 ? 3.0 : -1.0, gl_VertexID == 2 ? 3.0 : -1.0, 0.0, 1.0);
}
)";

const std::string resolveSource = R"(#version 150
uniform sampler2D a;
uniform sampler2D b;
out vec4 colour;
void main()
{
    vec4 sums = texelFetch(a, ivec2(gl_FragCoord.xy), 0);
    colour = vec4(sums.rgb / clamp(texelFetch(b, ivec2(gl_FragCoord.xy), 0).r, 1e-4, 5e4), sums.a);
}
)";

/// The model's batches and the render targets in plain GL, never deleted. Vertex arrays and indices are those
/// of the uploaded model.
class PlainTransparency
{
public:
    PlainTransparency(const ModelData& data, const GPUModel& model, const QSize& size)
        : m_size(size)
    {
        for (const QImage& image : data.images) {
            const QImage rgba = image.convertToFormat(QImage::Format_RGBA8888);
            m_maps.push_back(makeMap(rgba.size(), rgba.constBits()));
            glGenerateMipmap(GL_TEXTURE_2D);
            glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR_MIPMAP_LINEAR);
            glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        }
        constexpr unsigned int texel = ~0U;
        const unsigned int white = makeMap({1, 1}, &texel);
        const auto mapOf = [&](int index) { return index < 0 ? white : m_maps[static_cast<size_t>(index)]; };

        std::vector<char> blocks(2 * stride * data.instances.size());
        for (size_t i = 0; i < data.instances.size(); ++i) {
            const MeshData& mesh = data.meshes.at(static_cast<size_t>(data.instances[i].mesh));
            const MaterialData& material = data.materials.at(static_cast<size_t>(mesh.material));
            const InstanceInfoBlock instance(data.instances[i].transform);
            const OBJMaterialBlock block{{material.kd[0], material.kd[1], material.kd[2]},
                                         material.d,
                                         {material.ks[0], material.ks[1], material.ks[2]},
                                         material.ns};
            std::memcpy(&blocks[2 * stride * i], &instance, sizeof(instance));
            std::memcpy(&blocks[2 * stride * i + stride], &block, sizeof(block));
            const DrawBuffers& batch = *model.drawBuffers(static_cast<int>(i));
            m_batches.push_back({batch.VAO()->getVAO(), batch.indexBO()->getBO(),
                                 static_cast<int>(mesh.indices.size()), mapOf(material.mapKd),
                                 mapOf(material.mapKs)});
        }
        glGenBuffers(1, &m_blocks);
        glBindBuffer(GL_UNIFORM_BUFFER, m_blocks);
        glBufferData(GL_UNIFORM_BUFFER, static_cast<GLsizeiptr>(blocks.size()), blocks.data(),
                     GL_STATIC_DRAW);

        m_colour = makeTexture(size, GL_RGBA32F, GL_RGBA, GL_FLOAT, GL_NEAREST);
        m_depth = makeTexture(size, GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT, GL_FLOAT, GL_NEAREST);
        m_colours = makeTexture(size, GL_RGBA32F, GL_RGBA, GL_FLOAT, GL_NEAREST);
        m_coverages = makeTexture(size, GL_R32F, GL_RED, GL_FLOAT, GL_NEAREST);
        m_opaqueFramebuffer = makeFramebuffer({m_colour}, m_depth);
        m_accumulationFramebuffer = makeFramebuffer({m_colours, m_coverages}, m_depth);
        glGenVertexArrays(1, &m_emptyVertexArray);

        m_opaque = makeModelProgram(opaqueSource);
        m_accumulation = makeModelProgram(accumulationSource);
        m_resolve = linkProgram(triangleSource, resolveSource);
        glUseProgram(m_resolve);
        glUniform1i(glGetUniformLocation(m_resolve, "a"), 0);
        glUniform1i(glGetUniformLocation(m_resolve, "b"), 1);
        glUseProgram(0);
    }

    void draw(const QMatrix4x4& projection, const QMatrix4x4& camera) const
    {
        glViewport(0, 0, m_size.width(), m_size.height());
        glBindFramebuffer(GL_FRAMEBUFFER, m_opaqueFramebuffer);
        glDisable(GL_BLEND);
        glEnable(GL_DEPTH_TEST);
        glClearColor(0.0F, 0.0F, 0.0F, 0.0F);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        drawModel(m_opaque, projection, camera);

        glBindFramebuffer(GL_FRAMEBUFFER, m_accumulationFramebuffer);
        glClearColor(0.0F, 0.0F, 0.0F, 1.0F);
        glClear(GL_COLOR_BUFFER_BIT);
        glEnable(GL_BLEND);
        glBlendFuncSeparate(GL_ONE, GL_ONE, GL_ZERO, GL_ONE_MINUS_SRC_ALPHA);
        glDepthMask(GL_FALSE);
        drawModel(m_accumulation, projection, camera);
        glDepthMask(GL_TRUE);

        glBindFramebuffer(GL_FRAMEBUFFER, m_opaqueFramebuffer);
        glDisable(GL_DEPTH_TEST);
        glBlendFunc(GL_ONE_MINUS_SRC_ALPHA, GL_SRC_ALPHA);
        glUseProgram(m_resolve);
        bindMap(0, m_colours);
        bindMap(1, m_coverages);
        glBindVertexArray(m_emptyVertexArray);
        glDrawArrays(GL_TRIANGLES, 0, 3);
        // Everything that the library has on record is as it was, so that it needs no makeCurrent.
        glBindVertexArray(0);
        glUseProgram(0);
        glDisable(GL_BLEND);
        bindMap(0, 0);
        bindMap(1, 0);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }

    unsigned int texture() const { return m_colour; }

private:
    static constexpr size_t stride = 256;

    struct Batch
    {
        unsigned int vertexArray;
        unsigned int indices;
        int numIndices;
        unsigned int mapKd;
        unsigned int mapKs;
    };
    struct ModelProgram
    {
        unsigned int name;
        int projection;
        int camera;
    };

    /// Returns a repeating texture, bound to unit 0.
    static unsigned int makeMap(const QSize& size, const void* texels)
    {
        glActiveTexture(GL_TEXTURE0);
        const unsigned int map = makeTexture(size, GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, GL_NEAREST, texels);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_REPEAT);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_REPEAT);
        return map;
    }

    static ModelProgram makeModelProgram(const std::string& fragmentSource)
    {
        const unsigned int program =
            linkProgram(modelVertexSource, fragmentSource, {"va_Vertex", "va_Normal", "va_TexCoord"});
        glUniformBlockBinding(program, glGetUniformBlockIndex(program, "Instance"), 0);
        glUniformBlockBinding(program, glGetUniformBlockIndex(program, "Material"), 1);
        glUseProgram(program);
        glUniform1i(glGetUniformLocation(program, "mapKd"), 0);
        glUniform1i(glGetUniformLocation(program, "mapKs"), 1);
        return {program, glGetUniformLocation(program, "projection"),
                glGetUniformLocation(program, "camera")};
    }

    static void bindMap(unsigned int unit, unsigned int texture)
    {
        glActiveTexture(GL_TEXTURE0 + unit);
        glBindTexture(GL_TEXTURE_2D, texture);
    }

    void drawModel(const ModelProgram& program, const QMatrix4x4& projection, const QMatrix4x4& camera) const
    {
        glUseProgram(program.name);
        glUniformMatrix4fv(program.projection, 1, GL_FALSE, projection.constData());
        glUniformMatrix4fv(program.camera, 1, GL_FALSE, camera.constData());
        glFrontFace(GL_CCW);
        Batch bound{};
        GLintptr offset = 0;
        for (const Batch& batch : m_batches) {
            glBindBufferRange(GL_UNIFORM_BUFFER, 0, m_blocks, offset, sizeof(InstanceInfoBlock));
            glBindBufferRange(GL_UNIFORM_BUFFER, 1, m_blocks, offset + static_cast<GLintptr>(stride),
                              sizeof(OBJMaterialBlock));
            offset += 2 * static_cast<GLintptr>(stride);
            if (batch.mapKd != bound.mapKd) {
                bindMap(0, batch.mapKd);
            }
            if (batch.mapKs != bound.mapKs) {
                bindMap(1, batch.mapKs);
            }
            if (batch.vertexArray != bound.vertexArray) {
                glBindVertexArray(batch.vertexArray);
                glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, batch.indices);
            }
            glDrawElements(GL_TRIANGLES, batch.numIndices, GL_UNSIGNED_INT, nullptr);
            bound = batch;
        }
    }

    QSize m_size;
    std::vector<Batch> m_batches;
    std::vector<unsigned int> m_maps;
    unsigned int m_blocks = 0;
    unsigned int m_colour = 0;
    unsigned int m_depth = 0;
    unsigned int m_colours = 0;
    unsigned int m_coverages = 0;
    unsigned int m_opaqueFramebuffer = 0;
    unsigned int m_accumulationFramebuffer = 0;
    unsigned int m_emptyVertexArray = 0;
    ModelProgram m_opaque{};
    ModelProgram m_accumulation{};
    unsigned int m_resolve = 0;
};

std::vector<float> readTexels(unsigned int texture, const QSize& size)
{
    std::vector<float> texels(static_cast<size_t>(size.width() * size.height()) * 4);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_2D, texture);
    glGetTexImage(GL_TEXTURE_2D, 0, GL_RGBA, GL_FLOAT, texels.data());
    return texels;
}

void compareTransparency(benchmark::State& state, Wait wait, const ModelData& data, const QSize& size,
                         const QMatrix4x4& projection, const QMatrix4x4& camera)
{
    GPUModel model(data);
    TransparencyRenderPass pass;
    pass.setInput(TransparencyRenderPass::Viewport, QRect(QPoint(0, 0), size));
    pass.setInput(TransparencyRenderPass::ProjectionMatrix, projection);
    pass.setInput(TransparencyRenderPass::CameraMatrix, camera);
    pass.setInput(TransparencyRenderPass::Geometry, QVariant::fromValue(&model));
    applyBaseState();
    pass.start(nullptr);
    const PlainTransparency plain(data, model, size);
    plain.draw(projection, camera);
    auto* frame = qobject_cast<Texture*>(pass.output(TransparencyRenderPass::Frame).value<QObject*>());
    const std::vector<float> drawn = readTexels(frame->textureID(), size);
    const std::vector<float> drawnPlain = readTexels(plain.texture(), size);
    for (size_t i = 0; i < drawn.size(); ++i) {
        if (!(std::abs(drawn[i] - drawnPlain[i]) < 1e-3F)) {
            state.SkipWithError("the two sides draw different images");
            return;
        }
    }
    compareSides(
        state, wait, [&] { pass.start(nullptr); }, [&] { plain.draw(projection, camera); },
        [] { OpenGLDeviceContext::current()->applyBaseState(); });
}

/// Draws the example scene, with its transparent curtains and leaves.
void Transparency(benchmark::State& state)
{
    QString error;
    const std::optional<ModelData> data =
        importModel(u"" QEL_SOURCE_DIR "/examples/scenes/arcade.obj"_s, &error);
    if (!data) {
        state.SkipWithError(qPrintable(error));
        return;
    }
    const QSize size(1280, 720);
    QMatrix4x4 projection;
    projection.perspective(50.0F, 1280.0F / 720.0F, 0.1F, 100.0F);
    QMatrix4x4 camera;
    camera.lookAt({0.1F, 1.35F, -1.1F}, {-1.75F, 0.95F, -3.9F}, {0.0F, 1.0F, 0.0F});
    compareTransparency(state, Wait::Pixels, *data, size, projection, camera);
}
BENCHMARK(Transparency)->Unit(benchmark::kMillisecond);

/// Draws small batches, every second one transparent, to so few pixels that only the calls cost time.
void SubmitTransparency(benchmark::State& state)
{
    ModelData data;
    MeshData& mesh = data.meshes.emplace_back();
    mesh.positions = {{0, 0, 0}, {0.01F, 0, 0}, {0, 0.01F, 0}};
    mesh.normals = {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}};
    mesh.texCoords.resize(3);
    mesh.indices = {0, 1, 2};
    data.materials.resize(2);
    data.materials[1].d = 0.5F;
    data.meshes.push_back(mesh);
    data.meshes[1].material = 1;
    data.instances.resize(static_cast<size_t>(state.range(0)));
    for (size_t i = 0; i < data.instances.size(); ++i) {
        data.instances[i].mesh = static_cast<int>(i % 2);
    }
    compareTransparency(state, Wait::Submission, data, {8, 8}, {}, {});
}
BENCHMARK(SubmitTransparency)->Arg(1)->Arg(100);

} // namespace

} // namespace Morvane::Qel::Bench
