// The Gaussian blur against two draws written by hand with the same taps.

#include <QRect>
#include <QVariant>

#include <array>
#include <cmath>
#include <memory>
#include <type_traits>
#include <vector>

#include <epoxy/gl.h>

#include "support/Sides.h"
#include <Qel/RenderPasses/postprocessing/BlurAndCombineRenderPass.h>
#include <Qel/RenderPasses/postprocessing/GaussianBlurRenderPass.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Bench {
namespace {

constexpr int width = 1920;
constexpr int height = 1080;
constexpr int radius = 5;
constexpr int numTaps = 1 + radius;

std::unique_ptr<Texture> makePicture()
{
    std::vector<unsigned char> texels(static_cast<size_t>(width * height * 4));
    for (size_t i = 0; i < texels.size(); ++i) {
        texels[i] = i % 4 == 3 ? 255 : static_cast<unsigned char>(i * 2654435761U >> 13);
    }
    auto picture = std::make_unique<Texture>();
    picture->setFilter(GL_LINEAR, GL_LINEAR);
    picture->setWrap(GL_CLAMP_TO_EDGE);
    picture->setImage2D(0, GL_RGBA8, width, height, GL_RGBA, GL_UNSIGNED_BYTE, texels.data());
    return picture;
}

/// What somebody would write for this one blur.
class BlurByHand
{
public:
    BlurByHand();
    ~BlurByHand();
    BlurByHand(const BlurByHand&) = delete;
    BlurByHand& operator=(const BlurByHand&) = delete;

    void draw(unsigned int picture) const
    {
        glUseProgram(m_program);
        glBindVertexArray(m_vertexArray);
        glViewport(0, 0, width, height);
        glActiveTexture(GL_TEXTURE0);
        drawInto(0, picture, 1.0F / width, 0.0F);
        drawInto(1, m_textures[0], 0.0F, 1.0F / height);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glBindTexture(GL_TEXTURE_2D, 0);
        glBindVertexArray(0);
        glUseProgram(0);
    }

private:
    void drawInto(size_t target, unsigned int source, float stepX, float stepY) const
    {
        glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffers[target]);
        glBindTexture(GL_TEXTURE_2D, source);
        glUniform2f(m_step, stepX, stepY);
        glDrawArrays(GL_TRIANGLES, 0, 3);
    }

    unsigned int m_program;
    unsigned int m_vertexArray = 0;
    int m_step = -1;
    std::array<unsigned int, 2> m_textures{};
    std::array<unsigned int, 2> m_framebuffers{};
};

unsigned int compile(unsigned int program, unsigned int stage, const char* source)
{
    const unsigned int shader = glCreateShader(stage);
    glShaderSource(shader, 1, &source, nullptr);
    glCompileShader(shader);
    glAttachShader(program, shader);
    return shader;
}

BlurByHand::BlurByHand()
    : m_program(glCreateProgram())
{
    glDeleteShader(compile(m_program, GL_VERTEX_SHADER, R"(#version 150
out vec2 uv;
void main()
{
    uv = vec2(gl_VertexID == 1 ? 2.0 : 0.0, gl_VertexID == 2 ? 2.0 : 0.0);
    gl_Position = vec4(uv * 2.0 - 1.0, 0.0, 1.0);
})"));
    glDeleteShader(compile(m_program, GL_FRAGMENT_SHADER, R"(#version 150
uniform sampler2D picture;
uniform vec2 texel;
uniform float weights[6];
uniform float offsets[6];
in vec2 uv;
out vec4 colour;
void main()
{
    colour = texture(picture, uv) * weights[0];
    for (int i = 1; i < 6; ++i) {
        colour += (texture(picture, uv + offsets[i] * texel) + texture(picture, uv - offsets[i] * texel))
                * weights[i];
    }
})"));
    glLinkProgram(m_program);
    m_step = glGetUniformLocation(m_program, "texel");

    std::array<float, 2 * numTaps - 1> taps{};
    float sum = 0.0F;
    for (size_t x = 0; x < taps.size(); ++x) {
        taps[x] = std::exp(-0.5F * static_cast<float>(x * x) / (radius * radius));
        sum += x == 0 ? taps[x] : 2.0F * taps[x];
    }
    std::array<float, numTaps> weights{taps[0] / sum};
    std::array<float, numTaps> offsets{};
    for (size_t i = 1; i < numTaps; ++i) {
        const float pair = taps[2 * i - 1] + taps[2 * i];
        weights[i] = pair / sum;
        offsets[i] = static_cast<float>(2 * i - 1) + taps[2 * i] / pair;
    }
    glUseProgram(m_program);
    glUniform1fv(glGetUniformLocation(m_program, "weights"), numTaps, weights.data());
    glUniform1fv(glGetUniformLocation(m_program, "offsets"), numTaps, offsets.data());
    glUseProgram(0);

    glGenVertexArrays(1, &m_vertexArray);
    glGenTextures(2, m_textures.data());
    glGenFramebuffers(2, m_framebuffers.data());
    for (size_t i = 0; i < m_textures.size(); ++i) {
        glBindTexture(GL_TEXTURE_2D, m_textures[i]);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA16F, width, height, 0, GL_RGBA, GL_HALF_FLOAT, nullptr);
        for (const GLenum filter : {GL_TEXTURE_MIN_FILTER, GL_TEXTURE_MAG_FILTER}) {
            glTexParameteri(GL_TEXTURE_2D, filter, GL_LINEAR);
        }
        for (const GLenum wrap : {GL_TEXTURE_WRAP_S, GL_TEXTURE_WRAP_T}) {
            glTexParameteri(GL_TEXTURE_2D, wrap, GL_CLAMP_TO_EDGE);
        }
        glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffers[i]);
        glFramebufferTexture(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, m_textures[i], 0);
    }
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glBindTexture(GL_TEXTURE_2D, 0);
}

BlurByHand::~BlurByHand()
{
    glDeleteFramebuffers(2, m_framebuffers.data());
    glDeleteTextures(2, m_textures.data());
    glDeleteVertexArrays(1, &m_vertexArray);
    glDeleteProgram(m_program);
}

void blurFullHD(benchmark::State& state)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->makeCurrent();
    context->applyBaseState();
    const auto picture = makePicture();
    GaussianBlurRenderPass pass;
    pass.setInput(GaussianBlurRenderPass::Viewport, QRect(0, 0, width, height));
    pass.setInput(GaussianBlurRenderPass::Input, QVariant::fromValue<QObject*>(picture.get()));
    pass.setInput(GaussianBlurRenderPass::BlurRadius, static_cast<float>(radius));
    const BlurByHand byHand;
    compareSides(
        state, Wait::Pixels, [&] { pass.start(nullptr); }, [&] { byHand.draw(picture->textureID()); });
}
BENCHMARK(blurFullHD)->Name("GaussianBlur/1920x1080/radius5")->Unit(benchmark::kMillisecond);

/// Frames whose radius changes, always to one that was there before, against frames whose radius stays. The
/// difference is the rebuild of the kernel and of one program for the blur and two for the glow.
template<class Pass>
void changeRadius(benchmark::State& state)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->makeCurrent();
    context->applyBaseState();
    const auto picture = makePicture();
    const auto setUp = [&](Pass& pass) {
        for (int i = 0; i < pass.numInputs(); ++i) {
            if (pass.inputName(i).startsWith(u"Qel_QelTexture*_"_s)) {
                pass.setInput(i, QVariant::fromValue<QObject*>(picture.get()));
            }
        }
        pass.setInput(Pass::Viewport, QRect(0, 0, 16, 16));
        if constexpr (std::is_same_v<Pass, BlurAndCombineRenderPass>) {
            pass.setInput(Pass::GlowAmount, 1.0F);
        }
        pass.setInput(Pass::BlurRadius, 5.0F);
    };
    Pass changing;
    Pass steady;
    setUp(changing);
    setUp(steady);
    float next = 2.0F;
    compareSides(
        state, Wait::Submission,
        [&] {
            next = next == 12.0F ? 2.0F : next + 1.0F;
            changing.setInput(Pass::BlurRadius, next);
            changing.start(nullptr);
        },
        [&] { steady.start(nullptr); });
    state.counters["rebuild_us"] = state.counters["library_us"].value - state.counters["by_hand_us"].value;
}
BENCHMARK(changeRadius<GaussianBlurRenderPass>)->Name("SubmitNewRadius/GaussianBlur")->Iterations(400);
BENCHMARK(changeRadius<BlurAndCombineRenderPass>)->Name("SubmitNewRadius/BlurAndCombine")->Iterations(400);

} // namespace
} // namespace Morvane::Qel::Bench
