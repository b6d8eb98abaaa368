#include <QMatrix4x4>
#include <QRect>

#include <array>
#include <cmath>
#include <limits>

#include <stdlib.h>

#include <gtest/gtest.h>

#include <Qel/RenderPasses/postprocessing/TemporalAAJitterPass.h>

namespace Morvane::Qel::Test {
namespace {

using Pass = TemporalAAJitterPass;

constexpr int width = 640;
constexpr int height = 360;

QMatrix4x4 makeProjection()
{
    QMatrix4x4 projection;
    projection.perspective(50.0F, 16.0F / 9.0F, 0.5F, 40.0F);
    return projection;
}

QMatrix4x4 makeCamera()
{
    QMatrix4x4 camera;
    camera.lookAt({3.0F, 2.0F, 4.0F}, {0.0F, 0.5F, 0.0F}, {0.0F, 1.0F, 0.0F});
    return camera;
}

class JitterHost
{
public:
    JitterHost()
    {
        pass.setInput(Pass::Viewport, QRect(0, 0, width, height));
        pass.setInput(Pass::ProjectionMatrix, makeProjection());
        pass.setInput(Pass::CameraMatrix, makeCamera());
        pass.setInput(Pass::Dirty, false);
    }

    QMatrix4x4 runFrame()
    {
        pass.start(nullptr);
        return pass.output(Pass::JitteredProjectionMatrix).value<QMatrix4x4>();
    }
    bool runsJittered() { return runFrame() != makeProjection(); }

    /// By how many pixels a frame moves a point of eye space on the screen.
    QPointF runOffset(const QVector3D& point)
    {
        const QVector3D moved = runFrame().map(point);
        const QVector3D still = makeProjection().map(point);
        return {static_cast<double>(moved.x() - still.x()) * width / 2.0,
                static_cast<double>(moved.y() - still.y()) * height / 2.0};
    }

    Pass pass;
};

TEST(TemporalAAJitterPass, JittersThirtyFramesBehindEveryKindOfRestart)
{
    srand48(11);
    QMatrix4x4 otherCamera = makeCamera();
    otherCamera(3, 3) = std::nextafter(otherCamera(3, 3), 2.0F);
    const QMatrix4x4 otherProjection = 2.0F * makeProjection();
    struct Restart
    {
        const char* by;
        int input;
        QVariant changed;
        QMatrix4x4 projection;
    };
    for (const Restart& restart :
         {Restart{"a width", Pass::Viewport, QRect(0, 0, width + 1, height), makeProjection()},
          Restart{"a height", Pass::Viewport, QRect(0, 0, width, height - 1), makeProjection()},
          Restart{"a camera", Pass::CameraMatrix, otherCamera, makeProjection()},
          Restart{"a projection", Pass::ProjectionMatrix, otherProjection, otherProjection},
          Restart{"a dirty flag", Pass::Dirty, true, makeProjection()}}) {
        JitterHost host;
        EXPECT_FALSE(host.runsJittered()) << "frame 1";
        for (int frame = 2; frame <= 10; ++frame) {
            EXPECT_TRUE(host.runsJittered()) << "frame " << frame;
        }
        // In the midst of the jitter, so that the restart itself has to stop it.
        host.pass.setInput(restart.input, restart.changed);
        EXPECT_EQ(host.runFrame(), restart.projection) << restart.by << " does not stop the jitter";
        host.pass.setInput(Pass::Dirty, false);
        for (int frame = 2; frame <= 31; ++frame) {
            EXPECT_NE(host.runFrame(), restart.projection) << "frame " << frame << " behind " << restart.by;
        }
        for (int frame = 32; frame <= 40; ++frame) {
            EXPECT_EQ(host.runFrame(), restart.projection) << "frame " << frame << " behind " << restart.by;
        }
    }
}

TEST(TemporalAAJitterPass, NeverJittersWhileDirtyOrUndefined)
{
    srand48(12);
    QMatrix4x4 undefined = makeCamera();
    undefined(1, 2) = std::numeric_limits<float>::quiet_NaN();
    const std::array<std::pair<int, QVariant>, 3> causes{
        {{Pass::Dirty, true}, {Pass::Dirty, QVariant()}, {Pass::CameraMatrix, undefined}}};
    for (const auto& [input, value] : causes) {
        JitterHost host;
        host.pass.setInput(input, value);
        for (int frame = 1; frame <= 5; ++frame) {
            EXPECT_FALSE(host.runsJittered()) << "input " << input << ", frame " << frame;
        }
    }
    // A text that is not a bool converts to true, a list to none.
    JitterHost host;
    host.pass.setInput(Pass::Dirty, QVariantList{1});
    host.runFrame();
    EXPECT_TRUE(host.runsJittered());
}

TEST(TemporalAAJitterPass, DrawsXBeforeYAndMovesEveryDepthAlike)
{
    JitterHost host;
    host.runFrame();
    for (const float depth : {-0.6F, -7.0F, -39.0F}) {
        srand48(13);
        const double x = drand48() - 0.5;
        const double y = drand48() - 0.5;
        srand48(13);
        const QPointF offset = host.runOffset({0.1F * depth, -0.2F * depth, depth});
        // The coordinates, up to 1, are floats of 24 bits; here they are counted in pixels.
        EXPECT_NEAR(offset.x(), x, 1e-3) << "at depth " << depth;
        EXPECT_NEAR(offset.y(), y, 1e-3) << "at depth " << depth;
    }
}

TEST(TemporalAAJitterPass, OffsetsAreUniformOverThePixel)
{
    srand48(14);
    constexpr int numSequences = 200;
    constexpr int numBins = 8;
    std::array<std::array<int, numBins>, numBins> counts{};
    JitterHost host;
    for (int sequence = 0; sequence < numSequences; ++sequence) {
        host.pass.setInput(Pass::Dirty, true);
        host.runFrame();
        host.pass.setInput(Pass::Dirty, false);
        for (int frame = 0; frame < 30; ++frame) {
            const QPointF offset = host.runOffset({0.0F, 0.0F, -5.0F});
            ASSERT_LE(std::abs(offset.x()), 0.5);
            ASSERT_LE(std::abs(offset.y()), 0.5);
            const auto bin = [](double o) {
                return static_cast<size_t>(std::min(static_cast<int>((o + 0.5) * numBins), numBins - 1));
            };
            ++counts[bin(offset.x())][bin(offset.y())];
        }
    }
    // Chi-squared over the cells of the pixel: 63 degrees of freedom, exceeded once in 10^4 by chance; the
    // seed is fixed.
    const double expected = numSequences * 30.0 / (numBins * numBins);
    double chiSquared = 0.0;
    for (const auto& row : counts) {
        for (const int count : row) {
            chiSquared += (count - expected) * (count - expected) / expected;
        }
    }
    EXPECT_LT(chiSquared, 112.0);
    EXPECT_GT(chiSquared, 30.0) << "too even for independent offsets";
}

} // namespace
} // namespace Morvane::Qel::Test
