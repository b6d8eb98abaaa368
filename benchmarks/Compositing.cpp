// The compositing passes against plain GL: a program for a single operator or environment, drawn into a
// texture that is created once.

#include <QMatrix4x4>
#include <QRect>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include <epoxy/gl.h>

#include "support/PlainGL.h"
#include "support/Sides.h"
#include <Qel/RenderPasses/compositing/BlendRenderPass.h>
#include <Qel/RenderPasses/compositing/SkyboxRenderPass.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel::Bench {

namespace {

constexpr int width = 1920;
constexpr int height = 1080;

/// A GL_RGBA16F framebuffer and an empty vertex array, to draw full-screen in plain GL. Its objects are never
/// deleted.
class PlainTarget
{
public:
    PlainTarget()
    {
        glGenVertexArrays(1, &m_vertexArray);
        glActiveTexture(GL_TEXTURE0);
        m_target = makeTexture({width, height}, GL_RGBA16F, GL_RGBA, GL_HALF_FLOAT, GL_NEAREST);
        m_framebuffer = makeFramebuffer({m_target});
    }

    /// Draws one oversized triangle. The state that the library relies on is neither saved nor restored.
    void draw(unsigned int program, const std::vector<Texture*>& textures) const
    {
        glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffer);
        glViewport(0, 0, width, height);
        glDisable(GL_DEPTH_TEST);
        glDisable(GL_BLEND);
        glUseProgram(program);
        for (size_t i = 0; i < textures.size(); ++i) {
            glActiveTexture(static_cast<unsigned int>(GL_TEXTURE0 + i));
            glBindTexture(textures[i]->target(), textures[i]->textureID());
        }
        glBindVertexArray(m_vertexArray);
        glDrawArrays(GL_TRIANGLES, 0, 3);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }

private:
    unsigned int m_vertexArray = 0;
    unsigned int m_target = 0;
    unsigned int m_framebuffer = 0;
};

/// Returns a frame of the pass that makes no assumption about GL state.
std::function<void()> librarySide(RenderPass& pass)
{
    return [&pass] {
        OpenGLDeviceContext::current()->makeCurrent();
        pass.start(nullptr);
    };
}

std::unique_ptr<Texture> makeImage(int seed)
{
    std::vector<unsigned char> texels(static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
    for (size_t i = 0; i < texels.size(); i += 4) {
        const size_t n = (i / 4 * 2654435761U + static_cast<size_t>(seed)) >> 7U;
        const auto alpha = static_cast<unsigned char>(1 + n % 255);
        texels[i] = static_cast<unsigned char>((n >> 8U) % (alpha + 1U));
        texels[i + 1] = static_cast<unsigned char>((n >> 12U) % (alpha + 1U));
        texels[i + 2] = static_cast<unsigned char>((n >> 16U) % (alpha + 1U));
        texels[i + 3] = alpha;
    }
    return makeLinearTexture({width, height}, texels.data());
}

/// The blend operators in numerical order, as GLSL of the texels s and d with colours S and D.
struct Operator
{
    const char* name;
    const char* expression;
};
const std::array<Operator, 26> operators{
    Operator{"Clear", "vec4(0.0)"},
    {"Source", "s"},
    {"Destination", "d"},
    {"SourceOver", "vec4(S + D * (1.0 - s.a), u)"},
    {"DestinationOver", "vec4(D + S * (1.0 - d.a), u)"},
    {"SourceIn", "s * d.a"},
    {"DestinationIn", "d * s.a"},
    {"SourceOut", "s * (1.0 - d.a)"},
    {"DestinationOut", "d * (1.0 - s.a)"},
    {"SourceAtop", "vec4(S * d.a + D * (1.0 - s.a), d.a)"},
    {"DestinationAtop", "vec4(D * s.a + S * (1.0 - d.a), s.a)"},
    {"Xor", "vec4(o, s.a + d.a - 2.0 * s.a * d.a)"},
    {"Add", "s + d"},
    {"Multiply", "vec4(S * D + o, u)"},
    {"Screen", "vec4(S + D - S * D, u)"},
    {"Overlay", "vec4(mix(S * (1.0 + d.a) + D * (1.0 + s.a) - 2.0 * S * D - d.a * s.a, 2.0 * S * D + o, "
                "lessThanEqual(2.0 * D, vec3(1.0))), u)"},
    {"Darken", "vec4(min(S * d.a, D * s.a) + o, u)"},
    {"Lighten", "vec4(max(S * d.a, D * s.a) + o, u)"},
    {"ColorDodge", "vec4(mix(s.a * d.a * min(vec3(1.0), D / d.a * s.a / (s.a - S)) + o, "
                   "mix(s.a * d.a + o, S * (1.0 - d.a), equal(D, vec3(0.0))), equal(S, vec3(s.a))), u)"},
    {"ColorBurn", "vec4(mix(s.a * d.a * (1.0 - min(vec3(1.0), (1.0 - D / d.a) * s.a / S)) + o, "
                  "mix(vec3(0.0), vec3(s.a * d.a), equal(D, vec3(d.a))) + D * (1.0 - s.a), "
                  "equal(S, vec3(0.0))), u)"},
    {"HardLight", "vec4(mix(S * (1.0 + d.a) + D * (1.0 + s.a) - 2.0 * S * D - d.a * s.a, 2.0 * S * D + o, "
                  "lessThanEqual(2.0 * S, vec3(s.a))), u)"},
    {"SoftLight", "vec4(mix(d.a * (2.0 * S - s.a) * mix(sqrt(m) - m, m * (m * (16.0 * m - 12.0) - 3.0), "
                  "lessThanEqual(4.0 * D, vec3(d.a))) + S - S * d.a + D, "
                  "D * (s.a + (2.0 * S - s.a) * (1.0 - m)) + o, lessThanEqual(2.0 * S, vec3(s.a))), u)"},
    {"Exclusion", "vec4(S * d.a + D * s.a - 2.0 * S * D + o, u)"},
    {"Difference", "vec4(S + D - 2.0 * min(S * d.a, D * s.a), u)"},
    {"InvertAndAdd", "vec4(o + (0.5 - 0.5 * (D - S)) * s.a * d.a, u)"},
    {"MultiplyKeepAlpha", "s * d"},
};

const std::string triangleSource = R"(#version 150
out vec2 uv;
void main()
{
    uv = vec2(gl_VertexID == 1 ? 2.0 : 0.0, gl_VertexID == 2 ? 2.0 : 0.0);
    gl_Position = vec4(2.0 * uv - 1.0, 0.0, 1.0);
}
)";

void Blend(benchmark::State& state)
{
    const Operator& op = operators.at(static_cast<size_t>(state.range(0)));
    state.SetLabel(op.name);
    const unsigned int program = linkProgram(triangleSource, std::string(R"(#version 150
uniform sampler2D A;
uniform sampler2D B;
in vec2 uv;
out vec4 color;
void main()
{
    vec4 s = texture(A, uv);
    vec4 d = texture(B, uv);
    vec3 S = s.rgb;
    vec3 D = d.rgb;
    float u = s.a + d.a - s.a * d.a;
    vec3 o = S * (1.0 - d.a) + D * (1.0 - s.a);
    vec3 m = D / d.a;
    color = )") + op.expression + ";\n}\n");
    glUseProgram(program);
    glUniform1i(glGetUniformLocation(program, "A"), 0);
    glUniform1i(glGetUniformLocation(program, "B"), 1);
    const std::unique_ptr<Texture> a = makeImage(1);
    const std::unique_ptr<Texture> b = makeImage(2);
    BlendRenderPass pass(static_cast<BlendRenderPass::BlendMode>(state.range(0)));
    pass.setInput(BlendRenderPass::Viewport, QRect(0, 0, width, height));
    pass.setInput(BlendRenderPass::FrameA, QVariant::fromValue<QObject*>(a.get()));
    pass.setInput(BlendRenderPass::FrameB, QVariant::fromValue<QObject*>(b.get()));
    const PlainTarget plain;
    compareSides(state, Wait::Pixels, librarySide(pass), [&] { plain.draw(program, {a.get(), b.get()}); });
    glDeleteProgram(program);
}

BENCHMARK(Blend)->DenseRange(0, 25)->Unit(benchmark::kMillisecond);

void Skybox(benchmark::State& state)
{
    constexpr int faceSize = 512;
    const std::vector<unsigned char> texels(static_cast<size_t>(faceSize) * static_cast<size_t>(faceSize) * 4,
                                            128);
    Texture cubemap;
    cubemap.setTarget(GL_TEXTURE_CUBE_MAP);
    cubemap.setFilter(GL_LINEAR, GL_LINEAR);
    for (unsigned int face = 0; face < 6; ++face) {
        cubemap.setFaceImage(GL_TEXTURE_CUBE_MAP_POSITIVE_X + face, 0, GL_RGBA8, faceSize, faceSize, GL_RGBA,
                             GL_UNSIGNED_BYTE, texels.data());
    }
    QMatrix4x4 projection;
    projection.perspective(60.0F, static_cast<float>(width) / static_cast<float>(height), 0.1F, 100.0F);
    QMatrix4x4 camera;
    camera.rotate(30.0F, 0.3F, 1.0F, 0.2F);
    const QMatrix4x4 toDirection = (projection * camera).inverted();

    const unsigned int program = linkProgram(R"(#version 150
uniform mat4 toDirection;
out vec3 direction;
void main()
{
    vec2 p = vec2(gl_VertexID == 1 ? 3.0 : -1.0, gl_VertexID == 2 ? 3.0 : -1.0);
    gl_Position = vec4(p, 0.0, 1.0);
    direction = (toDirection * gl_Position).xyz;
}
)",
                                             R"(#version 150
uniform samplerCube environment;
in vec3 direction;
out vec4 color;
void main()
{
    color = texture(environment, direction);
}
)");
    glUseProgram(program);
    glUniform1i(glGetUniformLocation(program, "environment"), 0);
    glUniformMatrix4fv(glGetUniformLocation(program, "toDirection"), 1, GL_FALSE, toDirection.constData());
    SkyboxRenderPass pass;
    pass.setInput(SkyboxRenderPass::Viewport, QRect(0, 0, width, height));
    pass.setInput(SkyboxRenderPass::ProjectionMatrix, projection);
    pass.setInput(SkyboxRenderPass::CameraMatrix, camera);
    pass.setInput(SkyboxRenderPass::Cubemap, QVariant::fromValue<QObject*>(&cubemap));
    // The caller provides a frame and a stencil, as behind a scene, so the pass clears nothing.
    TextureManager* pool = TextureManager::Instance();
    Texture* frame = pool->tempTexture(TextureFormat::RGBA16F, width, height);
    Texture depth;
    const std::vector<unsigned int> background(static_cast<size_t>(width * height), 0U);
    depth.setImage2D(0, GL_DEPTH24_STENCIL8, width, height, GL_DEPTH_STENCIL, GL_UNSIGNED_INT_24_8,
                     background.data());
    pass.setInput(SkyboxRenderPass::InputFrame, QVariant::fromValue<QObject*>(frame));
    pass.setInput(SkyboxRenderPass::Depth, QVariant::fromValue<QObject*>(&depth));
    pass.setNumOutputUsers(SkyboxRenderPass::Frame, 1);
    const PlainTarget plain;
    compareSides(state, Wait::Pixels, librarySide(pass), [&] { plain.draw(program, {&cubemap}); });
    pool->releaseTempTextureRef(frame, 1);
    glDeleteProgram(program);
}
BENCHMARK(Skybox)->Unit(benchmark::kMillisecond);

} // namespace

} // namespace Morvane::Qel::Bench
