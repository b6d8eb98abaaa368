#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/compositing/BlendRenderPass.h>
#include <Qel/RenderPasses/postprocessing/BlurAndCombineRenderPass.h>
#include <Qel/RenderPasses/postprocessing/DepthOfFieldRenderPass.h>
#include <Qel/RenderPasses/postprocessing/FastApproximateAntiAliasingRenderPass.h>
#include <Qel/RenderPasses/postprocessing/GaussianBlurRenderPass.h>
#include <Qel/RenderPasses/postprocessing/LuminanceAverageRenderPass.h>
#include <Qel/RenderPasses/postprocessing/SMAARenderPass.h>
#include <Qel/RenderPasses/postprocessing/TemporalAARenderPass.h>

namespace Morvane::Qel::Test {
namespace {

using AlphaTest = GLTest;

// What docs/conventions.md says about alpha: each effect draws bands with an alpha of 0, 0.4 and 1 over a
// transparent clear, premultiplied, and is read where no edge is near.
TEST_F(AlphaTest, EffectsKeepTheMeaningOfAlpha)
{
    const QRect viewport(0, 0, 96, 16);
    const auto frame = makeTexture(96, 16, GL_RGBA32F, [](int x, int) {
        return QVector4D(0.6F, 0.2F, 1.0F, 1.0F) * (x < 32 ? 0.0F : x < 64 ? 0.4F : 1.0F);
    });
    const auto alphas = [](const Pixels& image) {
        return QVector3D(image.clamped(16, 8).w(), image.clamped(48, 8).w(), image.clamped(80, 8).w());
    };
    const auto near = [&](const Pixels& image, const QVector3D& expected) {
        return (alphas(image) - expected).length() < 4.0e-3F; // rounding to 8 bits
    };
    const QVector3D kept(0.0F, 0.4F, 1.0F);
    EXPECT_TRUE(near(
        Runner<BlendRenderPass>(BlendRenderPass::BlendMode::SourceOver).render({viewport, frame}), kept));
    EXPECT_TRUE(near(Runner<GaussianBlurRenderPass>().render({viewport, frame, 3.0F}), kept));
    EXPECT_TRUE(near(Runner<SMAARenderPass>().render({viewport, frame}), kept));
    EXPECT_TRUE(near(Runner<TemporalAARenderPass>().render({viewport, frame}), kept));
    EXPECT_TRUE(near(Runner<FastApproximateAntiAliasingRenderPass>().render(
                         {viewport, frame, 0.75F, 1.0F, 0.166F, 0.0625F}),
                     kept));
    // The sum of frame and half the glow.
    EXPECT_TRUE(near(Runner<BlurAndCombineRenderPass>().render({viewport, frame, 3.0F, 0.0F, 0.5F, frame}),
                     kept * 1.5F));
    EXPECT_TRUE(near(Runner<DepthOfFieldRenderPass>().render({viewport, frame}), {1.0F, 1.0F, 1.0F}));
    const float mean = 1.4F / 3.0F;
    EXPECT_TRUE(near(Runner<LuminanceAverageRenderPass>().render({viewport, frame}), {mean, mean, mean}));
}

} // namespace
} // namespace Morvane::Qel::Test
