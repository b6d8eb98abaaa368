#include <Qel/RenderPasses/postprocessing/TemporalAAJitterPass.h>

#include <cstdlib>
#include <mutex>
#include <utility>

#include <Qel/RenderPasses/framework/CommonPorts.h>
#include <Qel/RenderPasses/support/ViewWatch.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr int numJitteredFrames = 30;

/// drand48 has one state for the whole process, which the C library does not lock.
std::mutex randomMutex;

/// Returns a uniformly distributed offset of up to half a pixel, in normalised device coordinates, which span
/// 2 units over the viewport. Deliberate: a size of 0 is not guarded and gives infinity or NaN.
float randomOffset(int size)
{
    return static_cast<float>(drand48() - 0.5) * 2.0F / static_cast<float>(size);
}

} // namespace

const PassDescription& TemporalAAJitterPass::description()
{
    static const PassDescription description{
        .type = u"TemporalAAJitterPass"_s,
        .summary = u"Shifts the projection of a still view by random sub-pixel offsets."_s,
        .inputs = {viewportInput(u"size of the frames; the origin is ignored"_s,
                                 u"the offsets are infinite or undefined"_s),
                   {.name = u"Qel_QMatrix4x4_ProjectionMatrix"_s,
                    .meaning = u"the projection without jitter"_s,
                    .whenMissing = u"identity"_s},
                   {.name = u"Qel_QMatrix4x4_CameraMatrix"_s,
                    .meaning = u"world space to eye space; only watched for changes"_s,
                    .whenMissing = u"identity"_s},
                   {.name = u"Qel_bool_Dirty"_s,
                    .meaning = u"whether the sequence restarts"_s,
                    .whenMissing = u"it restarts every frame: there is no jitter"_s}},
        .outputs = {{.name = u"Qel_QMatrix4x4_ProjectionMatrix"_s,
                     .meaning = u"the projection, shifted in frames 2 to 31 of a still view; the frame "
                                "of the restart is frame 1"_s,
                     .isJittered = true}},
        .historyFrames = PassDescription::unlimitedHistory,
        .restartInput = u"Qel_bool_Dirty"_s};
    return description;
}

TemporalAAJitterPass::TemporalAAJitterPass()
    : m_view(std::make_unique<ViewWatch>())
{
    declarePorts(description());
}

TemporalAAJitterPass::~TemporalAAJitterPass() = default;

void TemporalAAJitterPass::start(RenderCallbacks* /*callbacks*/)
{
    const QSize size = m_inputs[Viewport].value.toRect().size();
    const auto projection = m_inputs[ProjectionMatrix].value.value<QMatrix4x4>();
    const auto camera = m_inputs[CameraMatrix].value.value<QMatrix4x4>();

    QMatrix4x4 jitter;
    if (m_view->update(size, projection, camera, m_inputs[Dirty].value).any) {
        m_framesLeft = numJitteredFrames;
    } else if (m_framesLeft > 0) {
        const std::lock_guard lock(randomMutex);
        const float dx = randomOffset(size.width());
        const float dy = randomOffset(size.height());
        jitter.translate(dx, dy, 0.0F);
        --m_framesLeft;
    }
    // A QVariant stores a matrix on the heap. Two variants alternate, so that the one no consumer holds any
    // more can be written in place, without an allocation.
    std::swap(m_values[0], m_values[1]);
    *static_cast<QMatrix4x4*>(m_values[0].data()) = jitter * projection;
    m_outputs[JitteredProjectionMatrix].value = m_values[0];
}

} // namespace Morvane::Qel
