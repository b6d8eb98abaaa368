#pragma once

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>

#include <QMatrix4x4>

#include <array>
#include <memory>

namespace Morvane::Qel {

class ViewWatch;

/// Shifts the projection of a view that stands still by random offsets within a pixel, for passes behind it
/// to sample each pixel at other places in every frame (stochastic sampling: R. L. Cook: Stochastic sampling
/// in computer graphics, 1986) and for TemporalAARenderPass to average them.
///
/// After every change of size, projection or camera, and on a dirty flag that is set or unconnected, one
/// frame passes without jitter; the 30 after it are jittered, those that follow are not. The offsets are
/// uniform in minus to plus half a pixel in x and y, the same at every depth, and come from drand48, which
/// the pass never seeds: the host may.
///
/// Makes no GL calls.
class QEL_RENDERPASSES_EXPORT TemporalAAJitterPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        Viewport,
        ProjectionMatrix,
        CameraMatrix,
        Dirty
    };
    enum OutputPort
    {
        JitteredProjectionMatrix
    };

    static const PassDescription& description();

    TemporalAAJitterPass();
    ~TemporalAAJitterPass() override;

    void start(RenderCallbacks* callbacks) override;

private:
    std::unique_ptr<ViewWatch> m_view;
    int m_framesLeft = 0;
    std::array<QVariant, 2> m_values{QMatrix4x4(), QMatrix4x4()};
};

} // namespace Morvane::Qel
