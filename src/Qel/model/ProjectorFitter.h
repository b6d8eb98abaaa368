#pragma once

#include <QMatrix4x4>
#include <QPair>

#include <array>
#include <limits>
#include <optional>

#include <Qel/model/CameraView.h>
#include <Qel/model/ShadowMapManager.h>

namespace Morvane::Qel {

/// The projection of one shadow map.
struct Projector
{
    /// World space to clip space, with z from 0 to 1.
    QMatrix4x4 matrix;
    /// See ShadowMapRenderData::cascadeEnd.
    float cascadeEnd = std::numeric_limits<float>::infinity();
};

/// Fits the projectors of lights to a view and a scene, as ShadowMapManager documents. Parameters are those
/// of ShadowMapManager::processLights.
class ProjectorFitter
{
public:
    using Light = ShadowMapManager::Light;

    ProjectorFitter(const QMatrix4x4* projection, const QMatrix4x4* camera,
                    const QPair<QVector3D, QVector3D>* sceneBounds);

    /// Returns how many shadow maps a light has.
    int numProjectors(const Light& light) const;
    /// Returns the light with a unit direction, the angle clamped and the range resolved.
    Light resolved(Light light) const;
    /// Returns a projector of a resolved light.
    Projector projector(const Light& light, int index) const;

private:
    Projector cascade(const Light& light, int index) const;
    /// Returns where cascade `index` of `count` begins: half way between an even and a logarithmic division.
    /// Both end where a scene of this size does; the last cascade covers the rest of the view.
    float splitDepth(int index, int count, float sceneSize) const;

    std::optional<CameraView> m_view;
    std::optional<std::array<QVector3D, 8>> m_scene;
};

} // namespace Morvane::Qel
