#pragma once

#include <Qel/RenderPasses/Export.h>
#include <Qel/core/RenderPassHelper.h>

#include <QMatrix4x4>

#include <array>
#include <memory>

namespace Morvane::Qel {

class ViewWatch;

/// Shifts the projection of a still view by random sub-pixel offsets, so that the scene passes sample each
/// pixel at a different position every frame (R. L. Cook: Stochastic sampling in computer graphics, 1986) and
/// TemporalAARenderPass can average them.
///
/// A change of size, projection or camera restarts the sequence, and so does a dirty flag that is true or
/// unset. The frame of the restart has no jitter; the 30 frames after it are jittered; later frames are not.
/// Offsets are uniform within half a pixel in x and y, the same at every depth, and come from drand48, which
/// the pass never seeds. All passes of the process share its sequence; passes on several threads take turns,
/// but an application must not call drand48 or srand48 at the same time.
///
/// Makes no GL calls.
class QEL_RENDERPASSES_EXPORT TemporalAAJitterPass : public RenderPassHelper
{
public:
    enum InputPort
    {
        /// QRect, pixels.
        Viewport,
        /// QMatrix4x4, eye space to clip space.
        ProjectionMatrix,
        /// QMatrix4x4, world space to eye space.
        CameraMatrix,
        /// bool.
        Dirty
    };
    enum OutputPort
    {
        /// QMatrix4x4, eye space to clip space.
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
