#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/postprocessing/BlurAndCombineRenderPass.h>
#include <Qel/RenderPasses/postprocessing/DepthOfFieldRenderPass.h>
#include <Qel/RenderPasses/postprocessing/FastApproximateAntiAliasingRenderPass.h>
#include <Qel/RenderPasses/postprocessing/GaussianBlurRenderPass.h>
#include <Qel/RenderPasses/postprocessing/SMAARenderPass.h>

namespace Morvane::Qel::Test {
namespace {

using FrameBordersTest = GLTest;

// Passes that sample neighbours must not blend opposite borders, whatever wrap mode a host left on the frame.
TEST_F(FrameBordersTest, AreClampedWhateverWrapsTheFrame)
{
    const QRect viewport(0, 0, 16, 12);
    const auto frame = makeTexture(Pixels::noise(16, 12, 9), GL_RGBA8);
    const auto depth = makeTexture(Pixels::filled(16, 12, {0.99F, 0, 0, 0}), GL_R32F);
    const auto expectSameBorders = [&](RenderPass&& pass, const std::vector<Input>& inputs) {
        PassRunner runner(pass);
        frame->setWrap(GL_CLAMP_TO_EDGE);
        const Pixels clamped = runner.render(inputs);
        frame->setWrap(GL_REPEAT);
        EXPECT_TRUE(equal(runner.render(), clamped)) << qPrintable(pass.outputName(0));
    };
    expectSameBorders(FastApproximateAntiAliasingRenderPass(), {viewport, frame});
    expectSameBorders(SMAARenderPass(), {viewport, frame});
    expectSameBorders(DepthOfFieldRenderPass(), {viewport, frame, depth, 2.0F, 50.0F, 1.0F});
    expectSameBorders(GaussianBlurRenderPass(), {viewport, frame, 3.0F});
    expectSameBorders(BlurAndCombineRenderPass(), {viewport, nullptr, 3.0F, 0.0F, 1.0F, frame});
}

// With no viewport nothing is drawn into the pool's smallest texture, which has one texel.
TEST_F(FrameBordersTest, EmptyViewportsOnlyClear)
{
    const auto frame = makeTexture(Pixels::filled(4, 4, {1, 1, 1, 1}), GL_RGBA8);
    const auto expectCleared = [&](RenderPass&& pass) {
        PassRunner runner(pass);
        EXPECT_TRUE(equal(runner.render({QRect(), frame}), Pixels::filled(1, 1, {})));
    };
    expectCleared(FastApproximateAntiAliasingRenderPass());
    expectCleared(SMAARenderPass());
}

} // namespace
} // namespace Morvane::Qel::Test
