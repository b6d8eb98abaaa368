#include <QMatrix4x4>
#include <QRect>

#include <epoxy/gl.h>

#include "support/GLTest.h"
#include "support/Pixels.h"
#include <Qel/RenderPasses/postprocessing/TemporalAARenderPass.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel::Test {
namespace {

using Pass = TemporalAARenderPass;

/// 8-bit blending rounds the two products, the sum or all of them, as the driver likes: half a step each.
constexpr float blendingTolerance = 1.01F / 255.0F;

class TemporalAARenderPassTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        pass = std::make_unique<Pass>();
        pass->setInput(Pass::Dirty, false);
        pass->setNumOutputUsers(Pass::AccumulatedFrame, 1);
        setSize(16, 12);
    }
    void TearDown() override
    {
        pass.reset();
        GLTest::TearDown();
    }

    void setSize(int newWidth, int newHeight)
    {
        width = newWidth;
        height = newHeight;
        pass->setInput(Pass::Viewport, QRect(0, 0, width, height));
    }

    /// A picture of its own for every seed.
    Pixels frame(int seed) const
    {
        return Pixels::generate(width, height, [&](int x, int y) {
            const auto level = [&](int a, int b, int c) {
                return static_cast<float>((a * x + b * y + c * seed * seed) % 256) / 255.0F;
            };
            return QVector4D(level(17, 5, 101), level(3, 29, 67), level(11, 13, 31), level(7, 19, 53));
        });
    }

    /// Runs a frame as its one producer and its one consumer.
    Pixels run(const Pixels* picture)
    {
        TextureManager* pool = TextureManager::Instance();
        Texture* input = nullptr;
        if (picture) {
            input = pool->tempTexture(TextureFormat::RGBA8, picture->width, picture->height);
            input->setImage2D(0, GL_RGBA8, picture->width, picture->height, GL_RGBA, GL_FLOAT,
                              picture->values.data());
        }
        pass->setInput(Pass::Frame, QVariant::fromValue<QObject*>(input));
        pass->start(nullptr);
        auto* output = qobject_cast<Texture*>(pass->output(Pass::AccumulatedFrame).value<QObject*>());
        Pixels result = readTexture(output).roundedToBytes();
        pool->releaseTempTextureRef(output, 1);
        EXPECT_EQ(pool->numReferences(), 1) << "the accumulation texture alone stays referenced";
        return result;
    }
    Pixels run(const Pixels& picture) { return run(&picture); }

    static Pixels mean(const std::vector<Pixels>& pictures)
    {
        return Pixels::generate(pictures[0].width, pictures[0].height, [&](int x, int y) {
            QVector4D sum;
            for (const Pixels& picture : pictures) {
                sum += picture.at(x, y);
            }
            return sum / static_cast<float>(pictures.size());
        });
    }

    std::unique_ptr<Pass> pass;
    int width = 0;
    int height = 0;
};

TEST_F(TemporalAARenderPassTest, IsTheMeanOfTheFramesBehindTheRestart)
{
    EXPECT_TRUE(equal(run(frame(1)), frame(1))) << "the restart's frame is shown as it is";
    EXPECT_TRUE(equal(run(frame(2)), frame(2))) << "and replaced by the next";
    std::vector<Pixels> frames{frame(2)};
    for (int i = 3; i <= 12; ++i) {
        frames.push_back(frame(i));
        // Every frame rounds once more; the errors behind a frame count less and less.
        const float tolerance = blendingTolerance * static_cast<float>(1.0 + 0.5 * (i - 3));
        EXPECT_TRUE(equal(run(frames.back()), mean(frames), tolerance)) << "frame " << i;
    }
}

TEST_F(TemporalAARenderPassTest, RestartsOnEveryKindOfChange)
{
    QMatrix4x4 matrix;
    matrix.translate(0.0F, 0.0F, 1e-6F);
    const auto expectRestart = [&](const char* by) {
        const Pixels shown = frame(40);
        EXPECT_TRUE(equal(run(shown), shown)) << by;
        EXPECT_TRUE(equal(run(frame(41)), frame(41))) << by;
        EXPECT_TRUE(equal(run(frame(42)), mean({frame(41), frame(42)}), blendingTolerance)) << by;
    };
    expectRestart("first frame");
    pass->setInput(Pass::ProjectionMatrix, matrix);
    expectRestart("projection");
    pass->setInput(Pass::CameraMatrix, matrix);
    expectRestart("camera");
    setSize(9, 21);
    expectRestart("size");
    pass->setInput(Pass::Dirty, true);
    EXPECT_TRUE(equal(run(frame(5)), frame(5)));
    EXPECT_TRUE(equal(run(frame(6)), frame(6)));
    pass->setInput(Pass::Dirty, QVariant());
    EXPECT_TRUE(equal(run(frame(7)), frame(7))) << "an unset flag is dirty";
}

TEST_F(TemporalAARenderPassTest, ShowsOpaqueBlackWithoutAFrame)
{
    const Pixels black = Pixels::generate(width, height, [](int, int) { return QVector4D(0, 0, 0, 1); });
    EXPECT_TRUE(equal(run(nullptr), black));
    run(frame(1));
    run(frame(2));
    EXPECT_TRUE(equal(run(nullptr), black));
    // The count of frames goes on: black stands in for the two so far.
    EXPECT_TRUE(equal(run(frame(3)), mean({black, black, frame(3)}), blendingTolerance));
}

} // namespace
} // namespace Morvane::Qel::Test
