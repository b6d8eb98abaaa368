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

struct JitterHost
{
    JitterHost()
    {
        pass.setInput(Pass::Viewport, QRect(0, 0, width, height));
        pass.setInput(Pass::ProjectionMatrix, makeProjection());
        pass.setInput(Pass::CameraMatrix, QMatrix4x4());
        pass.setInput(Pass::Dirty, false);
    }

    QMatrix4x4 runFrame()
    {
        pass.start(nullptr);
        return pass.output(Pass::JitteredProjectionMatrix).value<QMatrix4x4>();
    }

    Pass pass;
};

TEST(TemporalAAJitterPass, JittersThirtyFramesAfterEveryRestart)
{
    srand48(11);
    QMatrix4x4 otherCamera;
    otherCamera(3, 3) = std::nextafter(1.0F, 2.0F);
    for (const auto& [input, value] :
         {std::pair<int, QVariant>{Pass::Viewport, QRect(0, 0, width + 1, height)},
          std::pair<int, QVariant>{Pass::Viewport, QRect(0, 0, width, height - 1)},
          std::pair<int, QVariant>{Pass::CameraMatrix, otherCamera},
          std::pair<int, QVariant>{Pass::ProjectionMatrix, 2.0F * makeProjection()},
          std::pair<int, QVariant>{Pass::Dirty, true}}) {
        JitterHost host;
        QMatrix4x4 projection = makeProjection();
        for (int frame = 1; frame <= 46; ++frame) {
            // The change comes while frames are jittered, so that the restart has to stop it.
            if (frame == 11) {
                host.pass.setInput(input, value);
                projection = input == Pass::ProjectionMatrix ? value.value<QMatrix4x4>() : projection;
            }
            const bool isJittered = frame != 1 && frame != 11 && frame <= 41;
            EXPECT_EQ(host.runFrame() != projection, isJittered) << "frame " << frame << ", input " << input;
            if (frame == 11) {
                host.pass.setInput(Pass::Dirty, false);
            }
        }
    }
}

TEST(TemporalAAJitterPass, NeverJittersWhileDirtyOrUndefined)
{
    QMatrix4x4 undefined;
    undefined(1, 2) = std::numeric_limits<float>::quiet_NaN();
    // A list does not convert to bool and counts as false.
    for (const auto& [input, value, isJittered] : {std::tuple<int, QVariant, bool>{Pass::Dirty, true, false},
                                                   {Pass::Dirty, {}, false},
                                                   {Pass::CameraMatrix, undefined, false},
                                                   {Pass::Dirty, QVariantList{1}, true}}) {
        JitterHost host;
        host.pass.setInput(input, value);
        host.runFrame();
        EXPECT_EQ(host.runFrame() != makeProjection(), isJittered) << "input " << input;
    }
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
        const QVector3D point(0.1F * depth, -0.2F * depth, depth);
        const QVector3D offset = host.runFrame().map(point) - makeProjection().map(point);
        // In pixels, of coordinates that are floats.
        EXPECT_NEAR(static_cast<double>(offset.x()) * width / 2.0, x, 1e-3) << "at depth " << depth;
        EXPECT_NEAR(static_cast<double>(offset.y()) * height / 2.0, y, 1e-3) << "at depth " << depth;
    }
}

} // namespace
} // namespace Morvane::Qel::Test
