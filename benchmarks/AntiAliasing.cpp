// FXAA and SMAA against the same shaders in plain GL.

#include <QRect>
#include <QVector4D>

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <epoxy/gl.h>

#include "support/PlainGL.h"
#include "support/Sides.h"
#include <Qel/RenderPasses/postprocessing/FastApproximateAntiAliasingRenderPass.h>
#include <Qel/RenderPasses/postprocessing/SMAARenderPass.h>
#include <Qel/RenderPasses/support/SmaaTables.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Bench {
namespace {

/// Returns slanted bands, with silhouettes a few dozen pixels apart as in a typical frame.
std::unique_ptr<Texture> makeFrame(int width, int height)
{
    std::vector<unsigned char> texels;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const auto level =
                static_cast<unsigned char>((y + x / 7 + 3 * (x / 50)) / 40 % 2 == 0 ? 60 : 190);
            texels.insert(texels.end(), {level, level, static_cast<unsigned char>(level / 2), 255});
        }
    }
    return makeLinearTexture({width, height}, texels.data());
}

/// Draws full-screen in plain GL into its own texture.
class PlainDraw
{
public:
    /// `vertex` and `fragment` are the bodies of the stages; the texture coordinate is `at`.
    PlainDraw(int width, int height, const QString& vertex, const QString& fragment, const QString& file,
              const std::vector<const char*>& samplers);
    ~PlainDraw()
    {
        glDeleteVertexArrays(1, &m_vertexArray);
        glDeleteFramebuffers(1, &m_framebuffer);
        glDeleteTextures(1, &m_target);
    }
    PlainDraw(const PlainDraw&) = delete;
    PlainDraw& operator=(const PlainDraw&) = delete;

    void draw(const std::vector<unsigned int>& textures) const
    {
        glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffer);
        glViewport(0, 0, m_width, m_height);
        glClear(GL_COLOR_BUFFER_BIT);
        glUseProgram(m_program.programID());
        glBindVertexArray(m_vertexArray);
        for (size_t unit = 0; unit < textures.size(); ++unit) {
            glActiveTexture(GL_TEXTURE0 + static_cast<unsigned int>(unit));
            glBindTexture(GL_TEXTURE_2D, textures[unit]);
        }
        glDrawArrays(GL_TRIANGLES, 0, 3);
        glBindVertexArray(0);
        glUseProgram(0);
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
    }
    unsigned int target() const { return m_target; }

private:
    int m_width;
    int m_height;
    ShaderProgram m_program;
    unsigned int m_vertexArray = 0;
    unsigned int m_framebuffer = 0;
    unsigned int m_target = 0;
};

PlainDraw::PlainDraw(int width, int height, const QString& vertex, const QString& fragment,
                     const QString& file, const std::vector<const char*>& samplers)
    : m_width(width)
    , m_height(height)
{
    GLSLMacroProcessor processor;
    processor.addDefine(u"SMAA_RT_METRICS"_s, u"metrics"_s);
    processor.addDefine(u"SMAA_GLSL_3"_s, u"1"_s);
    processor.addDefine(u"SMAA_PRESET_ULTRA"_s, u"1"_s);
    m_program.setMacroProcessor(&processor);
    m_program.addShader(GL_VERTEX_SHADER,
                        u"#version 150\n#define SMAA_INCLUDE_VS 1\n#define SMAA_INCLUDE_PS 0\n"
                        "uniform vec4 metrics;\nout vec2 at;\n"_s +
                            vertex,
                        {});
    m_program.addShader(GL_FRAGMENT_SHADER,
                        u"#version 150\n#define SMAA_INCLUDE_VS 0\n#define SMAA_INCLUDE_PS 1\n"
                        "uniform vec4 metrics;\nin vec2 at;\n"_s +
                            fragment,
                        {});
    if (!file.isEmpty()) {
        m_program.addShaderFromFile(GL_FRAGMENT_SHADER, file);
    }
    m_program.bind();
    m_program.setUniform(u"metrics"_s,
                         QVector4D(1.0F / static_cast<float>(width), 1.0F / static_cast<float>(height),
                                   static_cast<float>(width), static_cast<float>(height)));
    for (size_t unit = 0; unit < samplers.size(); ++unit) {
        m_program.setUniform(QLatin1StringView(samplers[unit]), static_cast<int>(unit));
    }
    m_program.release();

    glGenVertexArrays(1, &m_vertexArray);
    m_target = makeTexture({width, height}, GL_RGBA8, GL_RGBA, GL_UNSIGNED_BYTE, GL_LINEAR);
    m_framebuffer = makeFramebuffer({m_target});
}

/// Sets the position and texture coordinate of a corner.
const QString corner = u"at = vec2(gl_VertexID == 1 ? 2.0 : 0.0, gl_VertexID == 2 ? 2.0 : 0.0);\n"
                       "gl_Position = vec4(at * 2.0 - 1.0, 0.0, 1.0);\n"_s;

void compareFxaa(benchmark::State& state, Wait wait, int width, int height)
{
    OpenGLDeviceContext::current()->applyBaseState();
    const std::unique_ptr<Texture> frame = makeFrame(width, height);
    FastApproximateAntiAliasingRenderPass pass;
    pass.setInput(FastApproximateAntiAliasingRenderPass::Viewport, QRect(0, 0, width, height));
    pass.setInput(FastApproximateAntiAliasingRenderPass::Frame, QVariant::fromValue<QObject*>(frame.get()));
    const PlainDraw plain(
        width, height, u"void main() {\n%1}\n"_s.arg(corner),
        u"#include \"FXAA.glslh\"\nuniform sampler2D frame;\nout vec4 colour;\nvoid main() {\n"
        "vec4 z = vec4(0.0);\ncolour = FxaaPixelShader(at, z, frame, frame, frame, metrics.xy, z, z, "
        "z, 0.75, 0.166, 0.0, 8.0, 0.125, 0.05, z);\n}\n"_s,
        u"FXAA.glslc"_s, {"frame"});
    compareSides(
        state, wait, [&] { pass.start(nullptr); }, [&] { plain.draw({frame->textureID()}); });
}

/// The pass and its three draws in plain GL, on one frame.
class Smaa
{
public:
    Smaa(int width, int height);
    ~Smaa() { m_pass.teardown(nullptr); }
    Smaa(const Smaa&) = delete;
    Smaa& operator=(const Smaa&) = delete;

    /// The state that both sides start from.
    static void prepare()
    {
        OpenGLDeviceContext::current()->applyBaseState();
        glDisable(GL_DEPTH_TEST);
    }
    void runPass() { m_pass.start(nullptr); }
    void drawPlain() const
    {
        m_edges.draw({m_frame->textureID()});
        m_weights.draw({m_edges.target(), m_areas->textureID(), m_searches->textureID()});
        m_result.draw({m_frame->textureID(), m_weights.target()});
    }

private:
    std::unique_ptr<Texture> m_frame;
    std::unique_ptr<Texture> m_areas = makeLinearTexture({160, 560}, smaaAreaTable.data(), GL_RG8, GL_RG);
    std::unique_ptr<Texture> m_searches = makeLinearTexture({64, 16}, smaaSearchTable.data(), GL_R8, GL_RED);
    PlainDraw m_edges;
    PlainDraw m_weights;
    PlainDraw m_result;
    SMAARenderPass m_pass;
};

const QString smaaInclude = u"#include \"SMAA.glslh\"\n"_s;

Smaa::Smaa(int width, int height)
    : m_frame(makeFrame(width, height))
    , m_edges(width, height,
              smaaInclude +
                  u"out vec4 o[3];\nvoid main() {\n%1SMAAEdgeDetectionVS(at, o);\n}\n"_s.arg(corner),
              smaaInclude + u"in vec4 o[3];\nuniform sampler2D frame;\nout vec2 edges;\n"
                            "void main() { edges = SMAAColorEdgeDetectionPS(at, o, frame); }\n"_s,
              {}, {"frame"})
    , m_weights(width, height,
                smaaInclude + u"out vec4 o[3];\nout vec2 pixel;\nvoid main() {\n"
                              "%1SMAABlendingWeightCalculationVS(at, pixel, o);\n}\n"_s.arg(corner),
                smaaInclude + u"in vec4 o[3];\nin vec2 pixel;\n"
                              "uniform sampler2D edges, areas, searches;\nout vec4 weights;\n"
                              "void main() { weights = SMAABlendingWeightCalculationPS(at, "
                              "pixel, o, edges, areas, searches, vec4(0.0)); }\n"_s,
                {}, {"edges", "areas", "searches"})
    , m_result(width, height,
               smaaInclude +
                   u"out vec4 o;\nvoid main() {\n%1SMAANeighborhoodBlendingVS(at, o);\n}\n"_s.arg(corner),
               smaaInclude + u"in vec4 o;\nuniform sampler2D frame, weights;\nout vec4 colour;\n"
                             "void main() { colour = SMAANeighborhoodBlendingPS(at, o, frame, weights); "
                             "}\n"_s,
               {}, {"frame", "weights"})
{
    m_pass.setup(nullptr);
    m_pass.setInput(SMAARenderPass::Viewport, QRect(0, 0, width, height));
    m_pass.setInput(SMAARenderPass::Frame, QVariant::fromValue<QObject*>(m_frame.get()));
}

void compareSmaa(benchmark::State& state, Wait wait, int width, int height)
{
    Smaa smaa(width, height);
    compareSides(
        state, wait, [&] { smaa.runPass(); }, [&] { smaa.drawPlain(); }, &Smaa::prepare);
}

/// Times every glDrawArrays until its pixels are drawn, for its lifetime. Only one may exist, and
/// glDrawArrays must have been called before, because the first call resolves the function.
class DrawTimer
{
public:
    explicit DrawTimer(std::vector<double>* microseconds)
    {
        s_microseconds = microseconds;
        s_drawArrays = epoxy_glDrawArrays;
        epoxy_glDrawArrays = &drawArrays;
    }
    ~DrawTimer() { epoxy_glDrawArrays = s_drawArrays; }
    DrawTimer(const DrawTimer&) = delete;
    DrawTimer& operator=(const DrawTimer&) = delete;

private:
    static void drawArrays(GLenum mode, GLint first, GLsizei count)
    {
        glFinish();
        const auto start = std::chrono::steady_clock::now();
        s_drawArrays(mode, first, count);
        glFinish();
        const std::chrono::duration<double, std::micro> elapsed = std::chrono::steady_clock::now() - start;
        s_microseconds->push_back(elapsed.count());
    }

    static inline PFNGLDRAWARRAYSPROC s_drawArrays = nullptr;
    static inline std::vector<double>* s_microseconds = nullptr;
};

void fxaaFullHD(benchmark::State& state)
{
    compareFxaa(state, Wait::Pixels, 1920, 1080);
}
void smaaFullHD(benchmark::State& state)
{
    compareSmaa(state, Wait::Pixels, 1920, 1080);
}
/// Reports the median of each of the three draws in microseconds, and its ratio to plain GL.
void smaaStagesFullHD(benchmark::State& state)
{
    constexpr std::array<const char*, 3> stages{"edges", "weights", "blend"};
    Smaa smaa(1920, 1080);
    const auto runPass = [&] { smaa.runPass(); };
    const auto drawPlain = [&] { smaa.drawPlain(); };
    std::array<std::vector<double>, stages.size()> libraryTimes;
    std::array<std::vector<double>, stages.size()> plainTimes;
    const auto timeDraws = [&](const std::function<void()>& side,
                               std::array<std::vector<double>, stages.size()>& times) {
        Smaa::prepare();
        std::vector<double> microseconds;
        {
            const DrawTimer timer(&microseconds);
            side();
        }
        for (size_t stage = 0; stage < stages.size(); ++stage) {
            times[stage].push_back(microseconds.at(stage));
        }
    };
    Smaa::prepare();
    runPass();
    Smaa::prepare();
    drawPlain();
    bool libraryFirst = true;
    for ([[maybe_unused]] auto iteration : state) {
        if (libraryFirst) {
            timeDraws(runPass, libraryTimes);
            timeDraws(drawPlain, plainTimes);
        } else {
            timeDraws(drawPlain, plainTimes);
            timeDraws(runPass, libraryTimes);
        }
        libraryFirst = !libraryFirst;
    }
    for (size_t stage = 0; stage < stages.size(); ++stage) {
        const std::string name = stages[stage];
        const double library = median(libraryTimes[stage]);
        const double plain = median(plainTimes[stage]);
        state.counters[name + "_library_us"] = library;
        state.counters[name + "_plain_gl_us"] = plain;
        state.counters[name + "_ratio"] = library / plain;
    }
}
// Small images, so that pixels do not hide the cost of the calls.
void submitFxaa(benchmark::State& state)
{
    compareFxaa(state, Wait::Submission, 16, 16);
}
void submitSmaa(benchmark::State& state)
{
    compareSmaa(state, Wait::Submission, 16, 16);
}
BENCHMARK(fxaaFullHD)->Name("FXAA/1920x1080")->Unit(benchmark::kMillisecond);
BENCHMARK(smaaFullHD)->Name("SMAA/1920x1080")->Unit(benchmark::kMillisecond);
BENCHMARK(smaaStagesFullHD)->Name("SMAAStages/1920x1080")->Unit(benchmark::kMillisecond);
BENCHMARK(submitFxaa)->Name("SubmitFXAA");
BENCHMARK(submitSmaa)->Name("SubmitSMAA");

} // namespace
} // namespace Morvane::Qel::Bench
