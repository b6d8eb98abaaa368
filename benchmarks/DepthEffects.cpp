// Positions and ambient obscurance against the same methods in plain GL.

#include <QMatrix4x4>
#include <QRect>
#include <QVariant>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <memory>
#include <vector>

#include <epoxy/gl.h>

#include "support/PlainGL.h"
#include "support/Sides.h"
#include <Qel/RenderPasses/geometry/CameraSpaceZBufferRenderPass.h>
#include <Qel/RenderPasses/lighting/ScalableAmbientObscuranceRenderPass.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

namespace Morvane::Qel::Bench {
namespace {

constexpr int width = 1280;
constexpr int height = 720;
constexpr float nearPlane = 0.1F;
constexpr float farPlane = 100.0F;
constexpr float radius = 0.5F;
constexpr float bias = 0.01F;
constexpr float intensity = 1.0F;

QMatrix4x4 makeProjection()
{
    QMatrix4x4 projection;
    projection.perspective(60.0F, static_cast<float>(width) / height, nearPlane, farPlane);
    return projection;
}

/// Returns a depth image of bumps at a distance of about 5, with a strip of background.
std::unique_ptr<Texture> makeDepth()
{
    std::vector<float> depths;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const float bumps =
                std::sin(static_cast<float>(x) / 30.0F) * std::cos(static_cast<float>(y) / 20.0F);
            const float distance = 5.0F + 0.5F * bumps;
            const float depth = (farPlane - nearPlane * farPlane / distance) / (farPlane - nearPlane);
            depths.push_back(x < width / 8 ? 1.0F : depth);
        }
    }
    auto texture = std::make_unique<Texture>();
    texture->setFilter(GL_NEAREST, GL_NEAREST);
    texture->setImage2D(0, GL_DEPTH_COMPONENT32F, width, height, GL_DEPTH_COMPONENT, GL_FLOAT, depths.data());
    return texture;
}

/// Returns a program for a full-screen triangle; `uv` is the texture coordinate.
unsigned int makeProgram(const char* fragments)
{
    return linkProgram(fullScreenVertexSource, fragments);
}

/// A mipmapped texture with a framebuffer for each of its levels.
class PlainTarget
{
public:
    PlainTarget(unsigned int internalFormat, int numLevels)
        : m_framebuffers(static_cast<size_t>(numLevels))
    {
        glGenVertexArrays(1, &m_vertexArray);
        glGenTextures(1, &m_texture);
        glGenFramebuffers(numLevels, m_framebuffers.data());
        glBindTexture(GL_TEXTURE_2D, m_texture);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST_MIPMAP_NEAREST);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
        for (int level = 0; level < numLevels; ++level) {
            glTexImage2D(GL_TEXTURE_2D, level, static_cast<int>(internalFormat), std::max(1, width >> level),
                         std::max(1, height >> level), 0, GL_RGBA, GL_FLOAT, nullptr);
        }
        for (int level = 0; level < numLevels; ++level) {
            glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffers[static_cast<size_t>(level)]);
            glFramebufferTexture(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, m_texture, level);
        }
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glBindTexture(GL_TEXTURE_2D, 0);
    }
    ~PlainTarget()
    {
        glDeleteFramebuffers(static_cast<int>(m_framebuffers.size()), m_framebuffers.data());
        glDeleteTextures(1, &m_texture);
        glDeleteVertexArrays(1, &m_vertexArray);
    }
    PlainTarget(const PlainTarget&) = delete;
    PlainTarget& operator=(const PlainTarget&) = delete;

    void begin(unsigned int program, unsigned int source) const
    {
        glBindVertexArray(m_vertexArray);
        glUseProgram(program);
        glActiveTexture(GL_TEXTURE0);
        glBindTexture(GL_TEXTURE_2D, source);
    }
    void drawInto(int level) const
    {
        glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffers[static_cast<size_t>(level)]);
        glViewport(0, 0, std::max(1, width >> level), std::max(1, height >> level));
        glDrawArrays(GL_TRIANGLES, 0, 3);
    }
    static void end()
    {
        glBindTexture(GL_TEXTURE_2D, 0);
        glUseProgram(0);
        glBindVertexArray(0);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }
    unsigned int texture() const { return m_texture; }
    unsigned int framebuffer() const { return m_framebuffers.front(); }

private:
    unsigned int m_vertexArray = 0;
    unsigned int m_texture = 0;
    std::vector<unsigned int> m_framebuffers;
};

/// Compares one draw of the positions and one per smaller mip level. Both sides fill all levels in the same
/// pattern.
void comparePositions(benchmark::State& state)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->makeCurrent();
    context->applyBaseState();
    const auto depth = makeDepth();
    const QMatrix4x4 inverse = makeProjection().inverted();
    CameraSpaceZBufferRenderPass pass;
    pass.setInput(CameraSpaceZBufferRenderPass::Viewport, QRect(0, 0, width, height));
    pass.setInput(CameraSpaceZBufferRenderPass::InputFrame, QVariant::fromValue<QObject*>(depth.get()));
    pass.setInput(CameraSpaceZBufferRenderPass::ProjectionMatrix, makeProjection());

    const unsigned int program = makeProgram(R"(#version 150
uniform sampler2D depth;
uniform mat4 inverseProjection;
in vec2 uv;
out vec4 position;
void main()
{
    vec4 p = inverseProjection * vec4(vec3(uv, texture(depth, uv).r) * 2.0 - 1.0, 1.0);
    position = vec4(p.xyz / p.w, 1.0);
})");
    const unsigned int levelProgram = makeProgram(R"(#version 150
uniform sampler2D positions;
uniform int finer;
in vec2 uv;
out vec4 position;
void main()
{
    ivec2 texel = ivec2(gl_FragCoord.xy);
    ivec2 chosen = 2 * texel + ivec2((texel.y & 1) ^ 1, (texel.x & 1) ^ 1);
    position = texelFetch(positions, min(chosen, textureSize(positions, finer) - 1), finer);
})");
    const int inverseLocation = glGetUniformLocation(program, "inverseProjection");
    const int finerLocation = glGetUniformLocation(levelProgram, "finer");
    const int numLevels = std::bit_width(static_cast<unsigned int>(std::max(width, height)));
    {
        const PlainTarget plain(GL_RGBA32F, numLevels);
        compareSides(
            state, Wait::Pixels, [&] { pass.start(nullptr); },
            [&] {
                plain.begin(program, depth->textureID());
                glUniformMatrix4fv(inverseLocation, 1, GL_FALSE, inverse.constData());
                plain.drawInto(0);
                plain.begin(levelProgram, plain.texture());
                for (int level = 1; level < numLevels; ++level) {
                    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAX_LEVEL, level - 1);
                    glUniform1i(finerLocation, level - 1);
                    plain.drawInto(level);
                }
                glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAX_LEVEL, 1000);
                PlainTarget::end();
            });
    }
    glDeleteProgram(program);
    glDeleteProgram(levelProgram);
}

BENCHMARK(comparePositions)->Name("Positions/1280x720")->Unit(benchmark::kMillisecond);

/// Compares the pass to the published method in plain GL, with the same run-time choices of input and number
/// of samples, which is the argument.
void compareObscurance(benchmark::State& state)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->makeCurrent();
    context->applyBaseState();
    const auto depth = makeDepth();
    const QMatrix4x4 projection = makeProjection();
    using Pass = ScalableAmbientObscuranceRenderPass;
    Pass pass;
    pass.setInput(Pass::Viewport, QRect(0, 0, width, height));
    pass.setInput(Pass::ProjectionMatrix, projection);
    pass.setInput(Pass::NearPlane, nearPlane);
    pass.setInput(Pass::FarPlane, farPlane);
    pass.setInput(Pass::Depth, QVariant::fromValue<QObject*>(depth.get()));
    pass.setInput(Pass::SAORadius, radius);
    pass.setInput(Pass::SAOBias, bias);
    pass.setInput(Pass::SAOIntensity, intensity);
    pass.setInput(Pass::SaoNumSamples, static_cast<float>(state.range(0)));

    const unsigned int program = makeProgram(R"(#version 400
uniform sampler2D source;
uniform bool isDepth;
uniform vec4 projection;               // slope of one pixel, and of the first one
uniform float pixelsOfUnit;            // at distance 1
uniform vec2 planes;
uniform float radius;
uniform float bias;
uniform float intensity;
uniform int count;
uniform float turns;
uniform int logOffset;
uniform int coarsest;
in vec2 uv;
out vec4 colour;

vec3 positionOf(ivec2 pixel, float depth)
{
    float z = planes.x * planes.y / ((planes.x - planes.y) * depth + planes.y);
    return vec3((vec2(pixel) * projection.xy + projection.zw) * z, -z);
}

float light(vec3 v, vec3 n)
{
    return max(0.0, 1.0 - dot(v, v) / (radius * radius)) * max(0.0, dot(v, n) - bias);
}

vec3 spiral(int i, float disk, float rotation, float pixelWidth)
{
    float alpha = (float(i) + 0.5) / float(count);
    float angle = alpha * turns * 6.28 + rotation;
    float reach = alpha * disk;
    int level = clamp(findMSB(int(reach * pixelWidth)) - logOffset, 0, 5);
    return vec3(reach * vec2(cos(angle), sin(angle)), level);
}

void main()
{
    vec2 step = fwidth(uv);
    ivec2 pixel = ivec2(gl_FragCoord.xy);
    ivec2 size = textureSize(source, 0);
    float depth = 0.0;
    vec3 p;
    if (isDepth) {
        depth = texelFetch(source, pixel, 0).r;
        p = positionOf(pixel, depth);
    } else {
        p = textureLod(source, uv, 0.0).xyz;
    }
    vec3 n = normalize(cross(dFdx(p), dFdy(p)));
    if (depth == 1.0) {
        discard;
    }
    float rotation = float((3 * (pixel.x ^ pixel.y) + pixel.x * pixel.y) * 10);
    float disk = -pixelsOfUnit * radius / p.z;
    float sum = 0.0;
    if (isDepth) {
        for (int i = 0; i < count; ++i) {
            vec3 tap = spiral(i, disk, rotation, step.x);
            ivec2 at = clamp(pixel + ivec2(tap.xy), ivec2(0), size - 1);
            int level = min(int(tap.z), coarsest);
            ivec2 texel = min(at >> level, max(size >> level, 1) - 1);
            sum += light(positionOf(at, texelFetch(source, texel, level).r) - p, n);
        }
    } else {
        for (int i = 0; i < count; ++i) {
            vec3 tap = spiral(i, disk, rotation, step.x);
            sum += light(textureLod(source, uv + tap.xy * step, tap.z).xyz - p, n);
        }
    }
    float a = max(0.0, 1.0 - 4.0 * sum * intensity * 5.0 / float(count));
    colour = vec4(a, a, a, 1.0);
})");
    const auto location = [program](const char* name) { return glGetUniformLocation(program, name); };
    glUseProgram(program);
    glUniform1i(location("isDepth"), 1);
    glUniform2f(location("planes"), nearPlane, farPlane);
    glUniform1f(location("radius"), radius);
    glUniform1f(location("bias"), bias);
    glUniform1f(location("intensity"), intensity);
    glUniform1i(location("count"), static_cast<int>(state.range(0)));
    glUniform1f(location("turns"), 3.0F);
    glUniform1i(location("logOffset"), 3);
    glUniform1i(location("coarsest"), 0);
    const int projectionLocation = location("projection");
    const int pixelsLocation = location("pixelsOfUnit");
    const std::array slopes{2.0F / (width * projection(0, 0)), 2.0F / (height * projection(1, 1))};
    {
        const PlainTarget plain(GL_RGBA16F, 1);
        compareSides(
            state, Wait::Pixels, [&] { pass.start(nullptr); },
            [&] {
                plain.begin(program, depth->textureID());
                glBindFramebuffer(GL_FRAMEBUFFER, plain.framebuffer());
                glClearColor(1.0F, 1.0F, 1.0F, 1.0F);
                glClear(GL_COLOR_BUFFER_BIT);
                glUniform4f(projectionLocation, slopes[0], slopes[1],
                            slopes[0] / 2.0F - 1.0F / projection(0, 0),
                            slopes[1] / 2.0F - 1.0F / projection(1, 1));
                glUniform1f(pixelsLocation, 0.5F * projection(1, 1) * height);
                plain.drawInto(0);
                PlainTarget::end();
            });
    }
    glDeleteProgram(program);
}
BENCHMARK(compareObscurance)
    ->Name("AmbientObscurance/1280x720")
    ->ArgName("samples")
    ->Arg(11)
    ->Arg(32)
    ->Unit(benchmark::kMillisecond);

} // namespace
} // namespace Morvane::Qel::Bench
