#include <Qel/RenderPasses/postprocessing/TemporalAAJitterPass.h>

#include <QRect>

#include <cstdlib>
#include <utility>

#include <Qel/RenderPasses/support/ViewWatch.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

namespace {

constexpr int numJitteredFrames = 30;

/// A uniformly distributed offset within a pixel, in normalised device coordinates, which span 2 units over
/// the viewport. A size of 0 gives an infinite or undefined one; deliberately not guarded.
float randomOffset(int size)
{
    return static_cast<float>(drand48() - 0.5) * 2.0F / static_cast<float>(size);
}

} // namespace

const PassDescription& TemporalAAJitterPass::description()
{
    static const PassDescription description{
        u"TemporalAAJitterPass"_s,
        u"Shifts the projection of a still view by random offsets within a pixel."_s,
        {{u"Qel_QRect_Viewport"_s,
          u"size of the frames; the origin is ignored"_s,
          u"the offsets are infinite or undefined"_s,
          {},
          u"pixels"_s},
         {u"Qel_QMatrix4x4_ProjectionMatrix"_s, u"the projection without jitter"_s, u"identity"_s},
         {u"Qel_QMatrix4x4_CameraMatrix"_s, u"world space to eye space, watched for changes alone"_s,
          u"identity"_s},
         {u"Qel_bool_Dirty"_s, u"whether the sequence begins again"_s,
          u"as if it were true in every frame: there is no jitter at all"_s}},
        {{u"Qel_QMatrix4x4_ProjectionMatrix"_s,
          u"the projection, shifted in frames 2 to 31 after a change"_s}}};
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
        const float dx = randomOffset(size.width());
        const float dy = randomOffset(size.height());
        jitter.translate(dx, dy, 0.0F);
        --m_framesLeft;
    }
    // A matrix lives on the heap in a variant. Of two that take turns, the one that nobody holds any more is
    // written in place.
    std::swap(m_values[0], m_values[1]);
    *static_cast<QMatrix4x4*>(m_values[0].data()) = jitter * projection;
    m_outputs[JitteredProjectionMatrix].value = m_values[0];
}

} // namespace Morvane::Qel
