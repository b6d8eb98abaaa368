#include <QMatrix4x4>
#include <QRect>

#include "support/GLTest.h"
#include "support/Passes.h"
#include <Qel/RenderPasses/postprocessing/TemporalAARenderPass.h>

namespace Morvane::Qel::Test {
namespace {

using Pass = TemporalAARenderPass;

/// Drivers round the two products of 8-bit blending, their sum or all of them: half a step each.
constexpr float blendingTolerance = 1.01F / 255.0F;

class TemporalAARenderPassTest : public GLTest
{
protected:
    Pixels frame(unsigned int seed) const { return Pixels::noise(size.width(), size.height(), seed); }

    Pixels run(Runner<Pass>& pass, const Pixels& image) const
    {
        pass.set(Pass::Viewport, QRect(QPoint(2, 3), size));
        pass.set(Pass::Frame, makePooledTexture(image, TextureFormat::RGBA8));
        return pass.render().roundedToBytes();
    }

    static Pixels mean(const std::vector<Pixels>& images)
    {
        Pixels sum = Pixels::filled(images[0].width, images[0].height, {});
        for (const Pixels& image : images) {
            for (size_t i = 0; i < sum.values.size(); ++i) {
                sum.values[i] += image.values[i] / static_cast<float>(images.size());
            }
        }
        return sum;
    }

    QSize size{16, 12};
};

TEST_F(TemporalAARenderPassTest, IsTheMeanOfTheFramesAfterTheRestart)
{
    Runner<Pass> pass;
    pass.set(Pass::Dirty, false);
    run(pass, frame(1));
    std::vector<Pixels> frames;
    for (unsigned int i = 2; i <= 12; ++i) {
        frames.push_back(frame(i));
        // Every frame rounds once more, and the errors of earlier frames count less and less.
        const float tolerance =
            i == 2 ? 1e-6F : blendingTolerance * (1.0F + 0.5F * static_cast<float>(i - 3));
        EXPECT_TRUE(equal(run(pass, frames.back()), mean(frames), tolerance)) << "frame " << i;
    }
}

TEST_F(TemporalAARenderPassTest, RestartsOnEveryChange)
{
    Runner<Pass> pass;
    pass.set(Pass::Dirty, false);
    const auto expectRestart = [&](const char* change) {
        for (const unsigned int seed : {40U, 41U}) {
            EXPECT_TRUE(equal(run(pass, frame(seed)), frame(seed), 1e-6F)) << change;
        }
        EXPECT_TRUE(equal(run(pass, frame(42)), mean({frame(41), frame(42)}), blendingTolerance)) << change;
    };
    expectRestart("first frame");
    QMatrix4x4 matrix;
    matrix.translate(0.0F, 0.0F, 1e-6F);
    pass.set(Pass::ProjectionMatrix, matrix);
    expectRestart("projection");
    pass.set(Pass::CameraMatrix, matrix);
    expectRestart("camera");
    size = {9, 21};
    expectRestart("size");
    for (const unsigned int i : {5U, 6U, 7U, 8U}) {
        pass.set(Pass::Dirty, i < 7 ? QVariant(true) : QVariant());
        EXPECT_TRUE(equal(run(pass, frame(i)), frame(i), 1e-6F)) << "dirty or unset";
    }
}

TEST_F(TemporalAARenderPassTest, IsOpaqueBlackWithoutAFrame)
{
    const Pixels black = Pixels::filled(size.width(), size.height(), {0, 0, 0, 1});
    Runner<Pass> pass;
    pass.set(Pass::Dirty, false);
    for (const unsigned int i : {1U, 2U, 3U}) {
        run(pass, frame(i));
    }
    pass.set(Pass::Frame, nullptr);
    EXPECT_TRUE(equal(pass.render(), black));
    // The count goes on: black counts as the two frames so far.
    EXPECT_TRUE(equal(run(pass, frame(3)), mean({black, black, frame(3)}), blendingTolerance));
}

} // namespace
} // namespace Morvane::Qel::Test
