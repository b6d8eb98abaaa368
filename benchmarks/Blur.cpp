// The Gaussian blur against two plain GL draws with the same taps.

#include <QRect>
#include <QVariant>

#include <array>
#include <cmath>
#include <memory>
#include <type_traits>
#include <vector>

#include <epoxy/gl.h>

#include "support/PlainGL.h"
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

std::unique_ptr<Texture> makeImage()
{
    std::vector<unsigned char> texels(static_cast<size_t>(width * height * 4));
    for (size_t i = 0; i < texels.size(); ++i) {
        texels[i] = i % 4 == 3 ? 255 : static_cast<unsigned char>(i * 2654435761U >> 13);
    }
    return makeLinearTexture({width, height}, texels.data());
}

/// The same blur in plain GL, for this radius only.
class PlainBlur
{
public:
    PlainBlur();
    ~PlainBlur();
    PlainBlur(const PlainBlur&) = delete;
    PlainBlur& operator=(const PlainBlur&) = delete;

    void draw(unsigned int image) const
    {
        glUseProgram(m_program);
        glBindVertexArray(m_vertexArray);
        glViewport(0, 0, width, height);
        glActiveTexture(GL_TEXTURE0);
        drawInto(0, image, 1.0F / width, 0.0F);
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

PlainBlur::PlainBlur()
    : m_program(linkProgram(fullScreenVertexSource, R"(#version 150
uniform sampler2D image;
uniform vec2 texel;
uniform float weights[6];
uniform float offsets[6];
in vec2 uv;
out vec4 colour;
void main()
{
    colour = texture(image, uv) * weights[0];
    for (int i = 1; i < 6; ++i) {
        colour += (texture(image, uv + offsets[i] * texel) + texture(image, uv - offsets[i] * texel))
                * weights[i];
    }
})"))
{
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
    for (size_t i = 0; i < m_textures.size(); ++i) {
        m_textures[i] = makeTexture({width, height}, GL_RGBA16F, GL_RGBA, GL_HALF_FLOAT, GL_LINEAR);
        m_framebuffers[i] = makeFramebuffer({m_textures[i]});
    }
    glBindTexture(GL_TEXTURE_2D, 0);
}

PlainBlur::~PlainBlur()
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
    const auto image = makeImage();
    GaussianBlurRenderPass pass;
    pass.setInput(GaussianBlurRenderPass::Viewport, QRect(0, 0, width, height));
    pass.setInput(GaussianBlurRenderPass::Input, QVariant::fromValue<QObject*>(image.get()));
    pass.setInput(GaussianBlurRenderPass::BlurRadius, static_cast<float>(radius));
    const PlainBlur plain;
    compareSides(
        state, Wait::Pixels, [&] { pass.start(nullptr); }, [&] { plain.draw(image->textureID()); });
}
BENCHMARK(blurFullHD)->Name("GaussianBlur/1920x1080/radius5")->Unit(benchmark::kMillisecond);

/// Compares frames that change to a previously used radius with frames that keep theirs. The difference is
/// the rebuild of the kernel and of one program (blur) or two (glow).
template<class Pass>
void changeRadius(benchmark::State& state)
{
    OpenGLDeviceContext* context = OpenGLDeviceContext::current();
    context->makeCurrent();
    context->applyBaseState();
    const auto image = makeImage();
    const auto setUp = [&](Pass& pass) {
        for (int i = 0; i < pass.numInputs(); ++i) {
            if (pass.inputName(i).startsWith(u"Qel_QelTexture*_"_s)) {
                pass.setInput(i, QVariant::fromValue<QObject*>(image.get()));
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
    state.counters["rebuild_us"] = state.counters["library_us"].value - state.counters["plain_gl_us"].value;
}
BENCHMARK(changeRadius<GaussianBlurRenderPass>)->Name("SubmitNewRadius/GaussianBlur")->Iterations(400);
BENCHMARK(changeRadius<BlurAndCombineRenderPass>)->Name("SubmitNewRadius/BlurAndCombine")->Iterations(400);

} // namespace
} // namespace Morvane::Qel::Bench
