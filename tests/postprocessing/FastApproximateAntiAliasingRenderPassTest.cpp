#include <QRect>

#include <algorithm>
#include <cmath>
#include <random>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Pixels.h"
#include <Qel/RenderPasses/postprocessing/FastApproximateAntiAliasingRenderPass.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/FramebufferObject.h>
#include <Qel/gl/GLSLMacroProcessor.h>
#include <Qel/gl/Guards.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {
namespace {

using Pass = FastApproximateAntiAliasingRenderPass;

struct Parameters
{
    double subpix = 0.75;
    double stepX = 1.0;
    double threshold = 0.166;
    double thresholdMin = 0.0;
    std::vector<double> steps = {1.0, 1.5, 2.0, 4.0, 12.0};
};

/// The method on the CPU in doubles, in texels. It keeps in mind how near the nearest of its decisions was:
/// where that is less than what 8-bit filtering rounds, a GL may decide otherwise.
class Model
{
public:
    Model(const Pixels& picture, const Parameters& parameters)
        : m_picture(picture)
        , m_parameters(parameters)
    {
    }

    QVector4D filter(int x, int y)
    {
        m_margin = 1.0;
        m_isFiltered = false;
        const auto luma = [&](int dx, int dy) { return green(x + dx, y + dy); };
        const double m = luma(0, 0);
        const std::array<double, 4> cross{luma(-1, 0), luma(1, 0), luma(0, -1), luma(0, 1)};
        const double highest = std::max(m, *std::max_element(cross.begin(), cross.end()));
        const double lowest = std::min(m, *std::min_element(cross.begin(), cross.end()));
        const double range = highest - lowest;
        if (decide(range, std::max(m_parameters.thresholdMin, highest * m_parameters.threshold))) {
            return m_picture.at(x, y);
        }
        m_isFiltered = true;

        double acrossRows = 0.0;
        double acrossColumns = 0.0;
        double weighted = 0.0;
        for (int i = -1; i <= 1; ++i) {
            const double weight = i == 0 ? 2.0 : 1.0;
            acrossRows += weight * std::abs(luma(i, -1) - 2.0 * luma(i, 0) + luma(i, 1));
            acrossColumns += weight * std::abs(luma(-1, i) - 2.0 * luma(0, i) + luma(1, i));
            weighted += weight * (luma(i, -1) + luma(i, 1)) + (i == 0 ? 0.0 : 2.0 * luma(i, 0));
        }
        const bool isHorizontal = !decide(acrossRows, acrossColumns);
        const double before = isHorizontal ? luma(0, -1) : luma(-1, 0);
        const double behind = isHorizontal ? luma(0, 1) : luma(1, 0);
        const bool takesBefore = !decide(std::abs(before - m), std::abs(behind - m));
        const double partner = takesBefore ? before : behind;
        const double edgeLuma = (m + partner) / 2.0;
        const double across = (takesBefore ? -1.0 : 1.0) * (isHorizontal ? 1.0 : m_parameters.stepX);
        const double along = isHorizontal ? m_parameters.stepX : 1.0;
        const auto excess = [&](double reach) {
            const double a = reach * along;
            const double b = across / 2.0;
            return (isHorizontal ? read(x + a, y + b) : read(x + b, y + a)).y() - edgeLuma;
        };

        std::array<double, 2> reach{};
        std::array<double, 2> found{};
        for (size_t side = 0; side < 2; ++side) {
            for (size_t k = 0; k < m_parameters.steps.size(); ++k) {
                reach[side] += m_parameters.steps[k];
                if (k + 1 == m_parameters.steps.size()) {
                    break;
                }
                found[side] = excess(side == 0 ? -reach[side] : reach[side]);
                if (!decide(std::abs(found[side]), std::abs(partner - m) / 4.0)) {
                    break;
                }
            }
        }
        const double nearer = reach[0] < reach[1] ? found[0] : found[1];
        const bool turns = decide(nearer, 0.0) != (m < edgeLuma);
        const double edgeShift = turns ? 0.5 - std::min(reach[0], reach[1]) / (reach[0] + reach[1]) : 0.0;

        const double contrast = std::min(std::abs(weighted / 12.0 - m) / range, 1.0);
        const double eased = contrast * contrast * (3.0 - 2.0 * contrast);
        const double shift = across * std::max(edgeShift, eased * eased * m_parameters.subpix);
        QVector4D colour = isHorizontal ? read(x, y + shift) : read(x + shift, y);
        colour.setW(static_cast<float>(m));
        return colour;
    }

    double margin() const { return m_margin; }
    bool isFiltered() const { return m_isFiltered; }

private:
    /// Whether a is less than b.
    bool decide(double a, double b)
    {
        m_margin = std::min(m_margin, std::abs(a - b));
        return a < b;
    }
    const QVector4D& texel(int x, int y) const
    {
        return m_picture.at(std::clamp(x, 0, m_picture.width - 1), std::clamp(y, 0, m_picture.height - 1));
    }
    double green(int x, int y) const { return static_cast<double>(texel(x, y).y()); }
    QVector4D read(double x, double y) const
    {
        const int x0 = static_cast<int>(std::floor(x));
        const int y0 = static_cast<int>(std::floor(y));
        const auto fx = static_cast<float>(x - x0);
        const auto fy = static_cast<float>(y - y0);
        return (1 - fy) * ((1 - fx) * texel(x0, y0) + fx * texel(x0 + 1, y0)) +
               fy * ((1 - fx) * texel(x0, y0 + 1) + fx * texel(x0 + 1, y0 + 1));
    }

    const Pixels& m_picture;
    const Parameters& m_parameters;
    double m_margin = 1.0;
    bool m_isFiltered = false;
};

constexpr int size = 64;

/// Edges at several angles, some of them long, with noise that keeps decisions from being ties.
Pixels makePicture()
{
    std::mt19937 random(7);
    return Pixels::generate(size, size, [&](int x, int y) {
        const bool inside = (x - 20) * (x - 20) + (y - 40) * (y - 40) < 230 || 9 * y < x + 60 ||
                            x > 52 + y / 22 || (y > 57 - x / 23 && y < 61);
        const auto level = [&](float bright, float dark) {
            const auto noise = static_cast<float>(random() % 1000) / 1000.0F - 0.5F;
            return std::round(255.0F * ((inside ? bright : dark) + 0.03F * noise)) / 255.0F;
        };
        return QVector4D(level(0.2F, 0.7F), level(0.85F, 0.25F), level(0.5F, 0.4F), level(0.9F, 0.6F));
    });
}

class FastApproximateAntiAliasingRenderPassTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        picture = makePicture();
    }

    Texture* makeInput(const Pixels& pixels) const
    {
        Texture* input =
            TextureManager::Instance()->tempTexture(TextureFormat::RGBA8, pixels.width, pixels.height);
        input->setImage2D(0, GL_RGBA8, pixels.width, pixels.height, GL_RGBA, GL_FLOAT, pixels.values.data());
        return input;
    }

    /// Runs the pass; unnamed qualities stay unset.
    Pixels run(const Pixels& pixels, const std::vector<std::pair<int, QVariant>>& qualities)
    {
        Pass pass;
        pass.setNumOutputUsers(Pass::AntiAliasedFrame, 1);
        pass.setInput(Pass::Viewport, QRect(0, 0, pixels.width, pixels.height));
        pass.setInput(Pass::Frame, QVariant::fromValue<QObject*>(makeInput(pixels)));
        for (const auto& [port, value] : qualities) {
            pass.setInput(port, value);
        }
        pass.start(nullptr);
        auto* output = qobject_cast<Texture*>(pass.output(Pass::AntiAliasedFrame).value<QObject*>());
        Pixels result = readTexture(output).roundedToBytes();
        TextureManager::Instance()->releaseTempTextureRef(output, 1);
        return result;
    }

    /// Runs the shader with a preset.
    Pixels runPreset(const QString& preset)
    {
        GLSLMacroProcessor processor;
        processor.addDefine(u"FXAA_QUALITY_PRESET"_s, preset);
        ShaderProgram program;
        program.setMacroProcessor(&processor);
        program.addShader(GL_VERTEX_SHADER,
                          u"#version 150\nin vec3 va_Vertex;\nin vec2 va_TexCoord;\nout vec2 at;\n"
                          "void main() { gl_Position = vec4(va_Vertex, 1.0); at = va_TexCoord; }\n"_s,
                          {});
        program.addShader(GL_FRAGMENT_SHADER,
                          u"#version 150\n#include \"FXAA.glslh\"\nin vec2 at;\nout vec4 o;\n"
                          "uniform sampler2D u_Frame;\n"
                          "void main() { vec4 z = vec4(0.0); o = FxaaPixelShader(at, z, u_Frame,\n"
                          "u_Frame, u_Frame, 1.0 / vec2(textureSize(u_Frame, 0)), z, z, z, 0.75,\n"
                          "0.166, 0.0, 8.0, 0.125, 0.05, z); }\n"_s,
                          {});
        program.addShaderFromFile(GL_FRAGMENT_SHADER, u"FXAA.glslc"_s);
        const std::unique_ptr<Texture> target(makeTexture(picture, GL_RGBA8));
        FramebufferObject framebuffer;
        framebuffer.attach(target.get(), GL_COLOR_ATTACHMENT0, 0);
        const AutoBinder framebufferBinder(&framebuffer);
        framebuffer.setDrawBuffers();
        Texture* input = makeInput(picture);
        {
            const AutoBinder programBinder(&program);
            const AutoBinder inputBinder(input);
            program.setUniform(u"u_Frame"_s, input->unit());
            const auto batch = context().fullScreenTriangle();
            const AutoBinder batchBinder(batch);
            EXPECT_TRUE(batch->draw());
        }
        TextureManager::Instance()->releaseTempTextureRef(input, 1);
        return readTexture(target.get()).roundedToBytes();
    }

    void expectModel(const char* what, const Pixels& actual, const Parameters& parameters) const
    {
        // Filtering rounds to 8 bits, with weights of 8 bits; a decision as near as that is left out, and the
        // last read may be off by as much.
        constexpr double nearestDecision = 1.5 / 255.0;
        constexpr float tolerance = 2.0F / 255.0F;
        Model model(picture, parameters);
        int numFiltered = 0;
        int numLeftOut = 0;
        Pixels expected = actual;
        for (int y = 0; y < size; ++y) {
            for (int x = 0; x < size; ++x) {
                const QVector4D colour = model.filter(x, y);
                if (model.margin() < nearestDecision) {
                    ++numLeftOut;
                } else if (model.isFiltered()) {
                    ++numFiltered;
                    expected.at(x, y) = colour;
                } else {
                    // To the bit.
                    EXPECT_EQ(actual.at(x, y), picture.at(x, y)) << what << ": pixel " << x << ", " << y;
                }
            }
        }
        EXPECT_TRUE(equal(actual, expected, tolerance)) << what;
        EXPECT_GT(numFiltered, 150) << what;
        EXPECT_LT(numLeftOut, size * size / 6) << what;
    }

    Pixels picture;
};

TEST_F(FastApproximateAntiAliasingRenderPassTest, FiltersAsTheMethodSays)
{
    expectModel("nothing set", run(picture, {}), {});
    expectModel("long steps", run(picture, {{Pass::RcpFrameQuality, 2.0F}}), {.stepX = 2.0});
    expectModel("soft", run(picture, {{Pass::SubPixelQuality, 1.0F}}), {.subpix = 1.0});
    expectModel("few edges", run(picture, {{Pass::EdgeThresholdQuality, 0.6F}}), {.threshold = 0.6});
    expectModel("bright edges", run(picture, {{Pass::EdgeThresholdMinQuality, 0.5F}}), {.thresholdMin = 0.5});
    expectModel("a text counts as 0", run(picture, {{Pass::SubPixelQuality, u"much"_s}}), {.subpix = 0.0});
}

TEST_F(FastApproximateAntiAliasingRenderPassTest, SearchesAsFarAsThePresetSays)
{
    const std::vector<std::pair<QString, std::vector<double>>> presets{
        {u"10"_s, {1.5, 3, 12}},
        {u"15"_s, {1, 1.5, 2, 2, 2, 2, 4, 12}},
        {u"20"_s, {1.5, 2, 8}},
        {u"29"_s, {1, 1.5, 2, 2, 2, 2, 2, 2, 2, 2, 4, 8}},
        {u"39"_s, {1, 1, 1, 1, 1, 1.5, 2, 2, 2, 2, 4, 8}}};
    for (const auto& [preset, steps] : presets) {
        expectModel(qPrintable(preset), runPreset(preset), {.steps = steps});
    }
}

TEST_F(FastApproximateAntiAliasingRenderPassTest, TreatsEdgesWithoutGreenAsNone)
{
    const Pixels red = Pixels::generate(16, 16, [](int x, int y) {
        return QVector4D(x > y ? 1.0F : 0.0F, 0.0F, x > 7 ? 153 / 255.0F : 51 / 255.0F, 204 / 255.0F);
    });
    // With the least contrast at 0 the filter runs, moves nothing and leaves green, 0, as alpha.
    Pixels transparent = red;
    for (QVector4D& value : transparent.values) {
        value.setW(0.0F);
    }
    EXPECT_TRUE(equal(run(red, {}), transparent));
    EXPECT_TRUE(equal(run(red, {{Pass::EdgeThresholdMinQuality, 0.01F}}), red));
}

TEST_F(FastApproximateAntiAliasingRenderPassTest, LeavesTheInputAsItWasAndFollowsIt)
{
    Pass pass;
    pass.setNumOutputUsers(Pass::AntiAliasedFrame, 1);
    pass.setInput(Pass::Viewport, QRect(0, 0, size, size));
    Texture* input = makeInput(picture);
    input->setFilter(GL_NEAREST, GL_LINEAR);
    pass.setInput(Pass::Frame, QVariant::fromValue(input));
    pass.start(nullptr);
    EXPECT_EQ(input->parameter(GL_TEXTURE_MIN_FILTER), GL_NEAREST);
    EXPECT_EQ(input->parameter(GL_TEXTURE_MAG_FILTER), GL_LINEAR);
    EXPECT_EQ(context().viewport(), QRect(0, 0, size, size));
    auto* output = qobject_cast<Texture*>(pass.output(Pass::AntiAliasedFrame).value<QObject*>());
    ASSERT_EQ(TextureManager::Instance()->loans().size(), 1U) << "the output alone, and the input is dropped";
    EXPECT_EQ(TextureManager::Instance()->loans()[0].texture, output);
    TextureManager::Instance()->releaseTempTextureRef(output, 1);

    pass.setInput(Pass::Frame, QVariant());
    pass.start(nullptr);
    EXPECT_FALSE(pass.output(Pass::AntiAliasedFrame).isValid());
}

} // namespace
} // namespace Morvane::Qel::Test
