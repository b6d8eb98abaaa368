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
        return Pixels::generate(images[0].width, images[0].height, [&](int x, int y) {
            QVector4D sum;
            for (const Pixels& image : images) {
                sum += image.at(x, y);
            }
            return sum / static_cast<float>(images.size());
        });
    }

    QSize size{16, 12};
};

TEST_F(TemporalAARenderPassTest, IsTheMeanOfTheFramesAfterTheRestart)
{
    Runner<Pass> pass;
    pass.set(Pass::Dirty, false);
    EXPECT_TRUE(equal(run(pass, frame(1)), frame(1).roundedToBytes())) << "the restart's frame is shown";
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
        EXPECT_TRUE(equal(run(pass, frame(40)), frame(40), 1e-6F)) << change;
        EXPECT_TRUE(equal(run(pass, frame(41)), frame(41), 1e-6F)) << change;
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
    for (const QVariant& dirty : {QVariant(true), QVariant()}) {
        pass.set(Pass::Dirty, dirty);
        for (unsigned int i = 5; i < 8; ++i) {
            EXPECT_TRUE(equal(run(pass, frame(i)), frame(i), 1e-6F)) << "dirty or unset";
        }
    }
}

TEST_F(TemporalAARenderPassTest, IsOpaqueBlackWithoutAFrame)
{
    const Pixels black = Pixels::filled(size.width(), size.height(), {0, 0, 0, 1});
    Runner<Pass> pass;
    pass.set(Pass::Dirty, false);
    EXPECT_TRUE(equal(pass.render({QRect(QPoint(0, 0), size)}), black));
    run(pass, frame(1));
    run(pass, frame(2));
    pass.set(Pass::Frame, nullptr);
    EXPECT_TRUE(equal(pass.render(), black));
    // The count goes on: black counts as the two frames so far.
    EXPECT_TRUE(equal(run(pass, frame(3)), mean({black, black, frame(3)}), blendingTolerance));
}

} // namespace
} // namespace Morvane::Qel::Test
