// G-buffers and deferred shading against plain GL.

#include <QMatrix4x4>
#include <QRect>

#include <array>
#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

#include <epoxy/gl.h>

#include "support/Models.h"
#include "support/PlainGL.h"
#include "support/Sides.h"
#include <Qel/RenderPasses/geometry/DeferredRenderPass.h>
#include <Qel/RenderPasses/geometry/GBufferRenderPass.h>
#include <Qel/RenderPasses/geometry/ModelDeferredPass.h>
#include <Qel/RenderPasses/geometry/ModelRenderPass.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/model/GPUModel.h>

namespace Morvane::Qel::Bench {
namespace {

constexpr int width = 1280;
constexpr int height = 720;

/// Returns a torus of 250 x 200 quads, 100,000 triangles, with a chequered material.
ModelData makeTorus()
{
    ModelData data = makeSurface(250, 200, [](float u, float v) {
        const float a = 2.0F * std::numbers::pi_v<float> * u;
        const float b = 2.0F * std::numbers::pi_v<float> * v;
        const QVector3D normal(std::cos(a) * std::cos(b), std::sin(b), std::sin(a) * std::cos(b));
        return SurfacePoint{
            QVector3D(std::cos(a), 0, std::sin(a)) + 0.45F * normal, normal, {8.0F * u, 3.0F * v}};
    });
    QImage chequers(64, 64, QImage::Format_RGBA8888);
    for (int y = 0; y < 64; ++y) {
        for (int x = 0; x < 64; ++x) {
            chequers.setPixelColor(x, y,
                                   (x / 16 + y / 16) % 2 == 0 ? QColor(230, 200, 90) : QColor(40, 60, 90));
        }
    }
    data.images = {chequers};
    MaterialData& material = data.materials[0];
    material.kd = {0.8F, 0.9F, 1.0F};
    material.ks = {0.5F, 0.5F, 0.5F};
    material.ns = 40.0F;
    material.mapKd = 0;
    material.mapKs = 0;
    return data;
}

QMatrix4x4 makeProjection()
{
    QMatrix4x4 projection;
    projection.perspective(45.0F, static_cast<float>(width) / height, 0.1F, 20.0F);
    return projection;
}

QMatrix4x4 makeCamera()
{
    QMatrix4x4 camera;
    camera.lookAt({0, 2.2F, 2.4F}, {0, 0, 0}, {0, 1, 0});
    return camera;
}

const std::vector<const char*> attributes{"position", "normal", "texCoord"};

/// A framebuffer of textures with these internal formats, and optionally a depth texture.
class PlainTargets
{
public:
    PlainTargets(const std::vector<unsigned int>& formats, bool hasDepth)
    {
        for (const unsigned int format : formats) {
            // Format and type as the pass gives them, since drivers choose the byte order by them.
            const bool isByte = format == GL_RGBA;
            m_textures.push_back(makeTexture({width, height}, format, isByte ? GL_BGRA : GL_RGBA,
                                             isByte ? GL_UNSIGNED_BYTE : GL_FLOAT, GL_NEAREST));
        }
        const std::vector<unsigned int> colours = m_textures;
        if (hasDepth) {
            m_textures.push_back(makeTexture({width, height}, GL_DEPTH_COMPONENT32F, GL_DEPTH_COMPONENT,
                                             GL_FLOAT, GL_NEAREST));
        }
        glBindTexture(GL_TEXTURE_2D, 0);
        m_framebuffer = makeFramebuffer(colours, hasDepth ? m_textures.back() : 0);
    }
    ~PlainTargets()
    {
        glDeleteFramebuffers(1, &m_framebuffer);
        glDeleteTextures(static_cast<int>(m_textures.size()), m_textures.data());
    }
    PlainTargets(const PlainTargets&) = delete;
    PlainTargets& operator=(const PlainTargets&) = delete;

    void bind() const
    {
        glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffer);
        glViewport(0, 0, width, height);
    }

private:
    unsigned int m_framebuffer = 0;
    std::vector<unsigned int> m_textures;
};

/// The vertex and index buffers of a mesh, drawn by one call.
class PlainMesh
{
public:
    explicit PlainMesh(const MeshData& mesh)
        : m_count(static_cast<int>(mesh.indices.size()))
    {
        glGenVertexArrays(1, &m_vertexArray);
        glGenBuffers(4, m_buffers.data());
        glBindVertexArray(m_vertexArray);
        const auto upload = [&](unsigned int location, const auto& values) {
            using Vector = typename std::decay_t<decltype(values)>::value_type;
            glBindBuffer(GL_ARRAY_BUFFER, m_buffers[location]);
            glBufferData(GL_ARRAY_BUFFER, static_cast<GLsizeiptr>(values.size() * sizeof(Vector)),
                         values.data(), GL_STATIC_DRAW);
            glVertexAttribPointer(location, sizeof(Vector) / sizeof(float), GL_FLOAT, GL_FALSE, 0, nullptr);
            glEnableVertexAttribArray(location);
        };
        upload(0, mesh.positions);
        upload(1, mesh.normals);
        upload(2, mesh.texCoords);
        glBindBuffer(GL_ELEMENT_ARRAY_BUFFER, m_buffers[3]);
        glBufferData(GL_ELEMENT_ARRAY_BUFFER,
                     static_cast<GLsizeiptr>(mesh.indices.size() * sizeof(unsigned int)), mesh.indices.data(),
                     GL_STATIC_DRAW);
        glBindVertexArray(0);
    }
    ~PlainMesh()
    {
        glDeleteVertexArrays(1, &m_vertexArray);
        glDeleteBuffers(4, m_buffers.data());
    }
    PlainMesh(const PlainMesh&) = delete;
    PlainMesh& operator=(const PlainMesh&) = delete;

    void draw() const
    {
        glBindVertexArray(m_vertexArray);
        glDrawElements(GL_TRIANGLES, m_count, GL_UNSIGNED_INT, nullptr);
        glBindVertexArray(0);
    }

private:
    int m_count;
    unsigned int m_vertexArray = 0;
    std::array<unsigned int, 4> m_buffers{};
};

void setMatrix(unsigned int program, const char* name, const QMatrix4x4& matrix)
{
    glUniformMatrix4fv(glGetUniformLocation(program, name), 1, GL_FALSE, matrix.constData());
}

void setSamplers(unsigned int program, const std::vector<const char*>& samplers)
{
    glUseProgram(program);
    for (size_t i = 0; i < samplers.size(); ++i) {
        glUniform1i(glGetUniformLocation(program, samplers[i]), static_cast<int>(i));
    }
    glUseProgram(0);
}

void bindTextures(const std::vector<unsigned int>& textures)
{
    for (size_t i = textures.size(); i-- > 0;) {
        glActiveTexture(GL_TEXTURE0 + static_cast<unsigned int>(i));
        glBindTexture(GL_TEXTURE_2D, textures[i]);
    }
}

/// Draws a mesh into a G-buffer, and sets the matrices in every frame.
class PlainGBuffer
{
public:
    PlainGBuffer(const MeshData& mesh, const std::vector<unsigned int>& formats, unsigned int program)
        : m_mesh(mesh)
        , m_targets(formats, true)
        , m_program(program)
        , m_clipFromWorld(glGetUniformLocation(program, "clipFromWorld"))
        , m_normalMatrix(glGetUniformLocation(program, "normalMatrix"))
    {
    }
    ~PlainGBuffer() { glDeleteProgram(m_program); }
    PlainGBuffer(const PlainGBuffer&) = delete;
    PlainGBuffer& operator=(const PlainGBuffer&) = delete;

    void draw(const std::vector<unsigned int>& textures) const
    {
        const QMatrix4x4 camera = makeCamera();
        m_targets.bind();
        glClearColor(0, 0, 0, 0);
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        glEnable(GL_DEPTH_TEST);
        glUseProgram(m_program);
        glUniformMatrix4fv(m_clipFromWorld, 1, GL_FALSE, (makeProjection() * camera).constData());
        glUniformMatrix4fv(m_normalMatrix, 1, GL_FALSE, camera.inverted().transposed().constData());
        bindTextures(textures);
        m_mesh.draw();
        bindTextures(std::vector<unsigned int>(textures.size()));
        glUseProgram(0);
        glDisable(GL_DEPTH_TEST);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }

private:
    PlainMesh m_mesh;
    PlainTargets m_targets;
    unsigned int m_program;
    int m_clipFromWorld;
    int m_normalMatrix;
};

template<class Pass>
void setView(Pass& pass)
{
    pass.setInput(Pass::Viewport, QRect(0, 0, width, height));
    pass.setInput(Pass::ProjectionMatrix, makeProjection());
    pass.setInput(Pass::CameraMatrix, makeCamera());
}

void drawModelGBuffer(benchmark::State& state)
{
    applyBaseState();
    const ModelData data = makeTorus();
    GPUModel model(data);
    ModelRenderPass pass;
    setView(pass);
    pass.setInput(ModelRenderPass::Geometry, QVariant::fromValue(&model));

    const unsigned int program = linkProgram(R"(#version 150
uniform mat4 clipFromWorld;
uniform mat4 normalMatrix;
in vec3 position;
in vec3 normal;
in vec2 texCoord;
out vec3 eyeNormal;
out vec2 uv;
void main()
{
    gl_Position = clipFromWorld * vec4(position, 1.0);
    eyeNormal = mat3(normalMatrix) * normal;
    uv = texCoord;
})",
                                             R"(#version 150
uniform sampler2D diffuseMap;
uniform sampler2D specularMap;
uniform vec4 diffuse;
uniform vec4 specular;
in vec3 eyeNormal;
in vec2 uv;
out vec4 outDiffuse;
out vec4 outSpecular;
out vec3 outNormal;
out float outId;
void main()
{
    outDiffuse = vec4(diffuse.rgb * texture(diffuseMap, uv).rgb, diffuse.a);
    outSpecular = vec4(specular.rgb * texture(specularMap, uv).rgb, specular.a);
    outNormal = normalize(eyeNormal);
    outId = float(gl_PrimitiveID) + 1.0;
})",
                                             attributes, {"outDiffuse", "outSpecular", "outNormal", "outId"});
    setSamplers(program, {"diffuseMap", "specularMap"});
    glUseProgram(program);
    glUniform4f(glGetUniformLocation(program, "diffuse"), 0.8F, 0.9F, 1.0F, 1.0F);
    glUniform4f(glGetUniformLocation(program, "specular"), 0.5F, 0.5F, 0.5F, 40.0F);
    glUseProgram(0);
    const PlainGBuffer plain(data.meshes[0], {GL_RGBA32F, GL_RGBA32F, GL_RGB32F, GL_R32F}, program);
    Texture map;
    const QImage& image = data.images[0];
    map.setImage2D(0, GL_RGBA8, image.width(), image.height(), GL_RGBA, GL_UNSIGNED_BYTE, image.constBits());
    map.generateMipmap();
    map.setFilter(GL_LINEAR_MIPMAP_LINEAR, GL_LINEAR);
    map.setWrap(GL_REPEAT);

    compareSides(
        state, Wait::Pixels, [&] { pass.start(nullptr); },
        [&] {
            plain.draw({map.textureID(), map.textureID()});
        },
        applyBaseState);
}
BENCHMARK(drawModelGBuffer)->Name("ModelGBuffer/1280x720/100000")->Unit(benchmark::kMillisecond);

void drawBatchGBuffer(benchmark::State& state)
{
    applyBaseState();
    const ModelData data = makeTorus();
    const GPUModel model(data);
    GBufferRenderPass pass;
    setView(pass);
    pass.setInput(GBufferRenderPass::Geometry, QVariant::fromValue<QObject*>(model.drawBuffers(0)));

    const unsigned int program = linkProgram(R"(#version 150
uniform mat4 clipFromWorld;
in vec3 position;
in vec3 normal;
in vec2 texCoord;
out vec3 worldNormal;
out vec2 uv;
void main()
{
    gl_Position = clipFromWorld * vec4(position, 1.0);
    worldNormal = normal;
    uv = texCoord;
})",
                                             R"(#version 150
in vec3 worldNormal;
in vec2 uv;
out vec3 outNormal;
out vec2 outTexCoord;
out float outId;
void main()
{
    outNormal = worldNormal;
    outTexCoord = uv;
    outId = float(gl_PrimitiveID) + 1.0;
})",
                                             attributes, {"outNormal", "outTexCoord", "outId"});
    const PlainGBuffer plain(data.meshes[0], {GL_RGB32F, GL_RG32F, GL_R32F}, program);
    compareSides(
        state, Wait::Pixels, [&] { pass.start(nullptr); }, [&] { plain.draw({}); }, applyBaseState);
}
BENCHMARK(drawBatchGBuffer)->Name("GBuffer/1280x720/100000")->Unit(benchmark::kMillisecond);

/// Draws one full-screen triangle with a fragment shader.
class PlainFullScreen
{
public:
    PlainFullScreen(const char* fragment, const std::vector<const char*>& samplers)
        : m_targets({GL_RGBA}, false)
        , m_program(linkProgram(fullScreenVertexSource, fragment, {}, {"color"}))
    {
        setSamplers(m_program, samplers);
        glGenVertexArrays(1, &m_vertexArray);
    }
    ~PlainFullScreen()
    {
        glDeleteProgram(m_program);
        glDeleteVertexArrays(1, &m_vertexArray);
    }
    PlainFullScreen(const PlainFullScreen&) = delete;
    PlainFullScreen& operator=(const PlainFullScreen&) = delete;

    unsigned int program() const { return m_program; }
    void draw(const std::vector<unsigned int>& textures) const
    {
        m_targets.bind();
        glUseProgram(m_program);
        bindTextures(textures);
        glBindVertexArray(m_vertexArray);
        glDrawArrays(GL_TRIANGLES, 0, 3);
        glBindVertexArray(0);
        bindTextures(std::vector<unsigned int>(textures.size()));
        glUseProgram(0);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }

private:
    PlainTargets m_targets;
    unsigned int m_program;
    unsigned int m_vertexArray = 0;
};

unsigned int nameOf(const QVariant& texture)
{
    return qobject_cast<Texture*>(texture.value<QObject*>())->textureID();
}

void shadeGBuffer(benchmark::State& state)
{
    applyBaseState();
    const GPUModel model(makeTorus());
    GBufferRenderPass gbuffer;
    setView(gbuffer);
    gbuffer.setInput(GBufferRenderPass::Geometry, QVariant::fromValue<QObject*>(model.drawBuffers(0)));
    gbuffer.start(nullptr);
    const QVariant normal = gbuffer.output(GBufferRenderPass::Normal);
    const QVariant depth = gbuffer.output(GBufferRenderPass::Depth);
    DeferredRenderPass pass;
    setView(pass);
    pass.setInput(DeferredRenderPass::Normal, normal);
    pass.setInput(DeferredRenderPass::TexCoord, gbuffer.output(GBufferRenderPass::TexCoord));
    pass.setInput(DeferredRenderPass::Depth, depth);

    const PlainFullScreen plain(R"(#version 150
uniform sampler2D normals;
uniform sampler2D depths;
uniform mat4 camera;
uniform mat4 normalMatrix;
uniform mat4 unproject;
in vec2 uv;
out vec4 color;
void main()
{
    vec4 place = unproject * vec4(uv * 2.0 - 1.0, texture(depths, uv).r, 1.0);
    vec4 light = camera * vec4(100.0, 100.0, 100.0, 1.0);
    vec4 eye = camera * (place / place.w);
    vec4 normal = normalMatrix * texture(normals, uv);
    color = vec4(vec3(dot(normalize(light.xyz - eye.xyz), normal.xyz)), 1.0);
})",
                                {"normals", "depths"});
    glUseProgram(plain.program());
    setMatrix(plain.program(), "camera", makeCamera());
    setMatrix(plain.program(), "normalMatrix", makeCamera().inverted().transposed());
    setMatrix(plain.program(), "unproject", makeProjection().inverted().transposed());
    glUseProgram(0);
    compareSides(
        state, Wait::Pixels, [&] { pass.start(nullptr); },
        [&] {
            plain.draw({nameOf(normal), nameOf(depth)});
        },
        applyBaseState);
}
BENCHMARK(shadeGBuffer)->Name("Deferred/1280x720")->Unit(benchmark::kMillisecond);

void shadeModelGBuffer(benchmark::State& state)
{
    applyBaseState();
    GPUModel model(makeTorus());
    ModelRenderPass gbuffer;
    setView(gbuffer);
    gbuffer.setInput(ModelRenderPass::Geometry, QVariant::fromValue(&model));
    gbuffer.start(nullptr);
    ModelDeferredPass pass;
    setView(pass);
    const QVariant diffuse = gbuffer.output(ModelRenderPass::Diffuse);
    const QVariant specular = gbuffer.output(ModelRenderPass::Specular);
    const QVariant normal = gbuffer.output(ModelRenderPass::Normal);
    pass.setInput(ModelDeferredPass::Diffuse, diffuse);
    pass.setInput(ModelDeferredPass::Specular, specular);
    pass.setInput(ModelDeferredPass::Normal, normal);
    pass.setInput(ModelDeferredPass::Depth, gbuffer.output(ModelRenderPass::Depth));

    const PlainFullScreen plain(R"(#version 150
uniform sampler2D diffuseImage;
uniform sampler2D specularImage;
uniform sampler2D normals;
in vec2 uv;
out vec4 color;
void main()
{
    vec4 diffuse = texture(diffuseImage, uv);
    vec4 specular = texture(specularImage, uv);
    vec3 normal = texture(normals, uv).xyz;
    vec3 light = normalize(vec3(1.0));
    vec3 halfway = normalize(light + vec3(0.0, 0.0, 1.0));
    color = vec4(max(0.0, dot(normal, light)) * diffuse.rgb +
                     pow(max(0.0, dot(normal, halfway)), specular.a) * specular.rgb,
                 diffuse.a);
})",
                                {"diffuseImage", "specularImage", "normals"});
    compareSides(
        state, Wait::Pixels, [&] { pass.start(nullptr); },
        [&] {
            plain.draw({nameOf(diffuse), nameOf(specular), nameOf(normal)});
        },
        applyBaseState);
}
BENCHMARK(shadeModelGBuffer)->Name("ModelDeferred/1280x720")->Unit(benchmark::kMillisecond);

} // namespace
} // namespace Morvane::Qel::Bench
