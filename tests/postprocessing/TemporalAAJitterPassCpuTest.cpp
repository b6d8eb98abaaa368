#include <QMatrix4x4>
#include <QRect>

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

    /// Runs a frame and returns by how many pixels it moves a point of eye space on the screen.
    QPointF runOffset(const QVector3D& point)
    {
        const QVector3D moved = runFrame().map(point);
        const QVector3D still = makeProjection().map(point);
        return {static_cast<double>(moved.x() - still.x()) * width / 2.0,
                static_cast<double>(moved.y() - still.y()) * height / 2.0};
    }

    Pass pass;
};

TEST(TemporalAAJitterPass, JittersThirtyFramesAfterEveryRestart)
{
    srand48(11);
    QMatrix4x4 otherCamera = makeCamera();
    otherCamera(3, 3) = std::nextafter(otherCamera(3, 3), 2.0F);
    const QMatrix4x4 otherProjection = 2.0F * makeProjection();
    for (const auto& [input, value] :
         {std::pair<int, QVariant>{Pass::Viewport, QRect(0, 0, width + 1, height)},
          std::pair<int, QVariant>{Pass::Viewport, QRect(0, 0, width, height - 1)},
          std::pair<int, QVariant>{Pass::CameraMatrix, otherCamera},
          std::pair<int, QVariant>{Pass::ProjectionMatrix, otherProjection},
          std::pair<int, QVariant>{Pass::Dirty, true}}) {
        JitterHost host;
        EXPECT_FALSE(host.runsJittered()) << "frame 1";
        for (int frame = 2; frame <= 10; ++frame) {
            EXPECT_TRUE(host.runsJittered()) << "frame " << frame;
        }
        // While frames are jittered, so that the restart has to stop it.
        host.pass.setInput(input, value);
        const QMatrix4x4 projection = input == Pass::ProjectionMatrix ? otherProjection : makeProjection();
        for (int frame = 1; frame <= 36; ++frame) {
            EXPECT_EQ(host.runFrame() != projection, frame >= 2 && frame <= 31)
                << "frame " << frame << " after a change of input " << input;
            host.pass.setInput(Pass::Dirty, false);
        }
    }
}

TEST(TemporalAAJitterPass, NeverJittersWhileDirtyOrUndefined)
{
    QMatrix4x4 undefined = makeCamera();
    undefined(1, 2) = std::numeric_limits<float>::quiet_NaN();
    for (const auto& [input, value] :
         {std::pair<int, QVariant>{Pass::Dirty, true}, std::pair<int, QVariant>{Pass::Dirty, {}},
          std::pair<int, QVariant>{Pass::CameraMatrix, undefined}}) {
        JitterHost host;
        host.pass.setInput(input, value);
        for (int frame = 1; frame <= 3; ++frame) {
            EXPECT_FALSE(host.runsJittered()) << "input " << input << ", frame " << frame;
        }
    }
    // A list does not convert to bool and counts as false.
    JitterHost host;
    host.pass.setInput(Pass::Dirty, QVariantList{1});
    host.runFrame();
    EXPECT_TRUE(host.runsJittered());
}

TEST(TemporalAAJitterPass, OffsetsAreThoseOfDrand48AtEveryDepth)
{
    JitterHost host;
    host.runFrame();
    for (const float depth : {-0.6F, -7.0F, -39.0F}) {
        srand48(13);
        const double x = drand48() - 0.5;
        const double y = drand48() - 0.5;
        srand48(13);
        const QPointF offset = host.runOffset({0.1F * depth, -0.2F * depth, depth});
        // In pixels, of coordinates that are floats.
        EXPECT_NEAR(offset.x(), x, 1e-3) << "at depth " << depth;
        EXPECT_NEAR(offset.y(), y, 1e-3) << "at depth " << depth;
    }
}

} // namespace
} // namespace Morvane::Qel::Test
