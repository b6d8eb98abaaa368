#include <Qel/model/CameraView.h>

#include <algorithm>
#include <cmath>

#include <Qel/model/UsableNumbers.h>

namespace Morvane::Qel {

std::optional<CameraView> makeCameraView(const QMatrix4x4* projection, const QMatrix4x4* camera)
{
    if (!projection || !camera) {
        return {};
    }
    bool isProjectionInvertible = false;
    bool isCameraInvertible = false;
    const QMatrix4x4 unproject = projection->inverted(&isProjectionInvertible);
    CameraView view{camera->inverted(&isCameraInvertible), 0.0F, 0.0F, 0.0F, {}, {}};
    if (!isProjectionInvertible || !isCameraInvertible) {
        return {};
    }
    for (size_t i = 0; i < 4; ++i) {
        const float x = (i & 1U) != 0 ? 1.0F : -1.0F;
        const float y = (i & 2U) != 0 ? 1.0F : -1.0F;
        view.nearCorners[i] = unproject.map(QVector3D(x, y, -1.0F));
        view.farCorners[i] = unproject.map(QVector3D(x, y, 1.0F));
        if (!isUsable(view.nearCorners[i]) || !isUsable(view.farCorners[i]) ||
            !isUsable(view.toWorld.map(view.nearCorners[i])) ||
            !isUsable(view.toWorld.map(view.farCorners[i]))) {
            return {};
        }
    }
    for (int column = 0; column < 3; ++column) {
        view.scale = std::max(view.scale, view.toWorld.column(column).toVector3D().length());
    }
    view.nearDepth = -view.nearCorners[0].z();
    view.farDepth = -view.farCorners[0].z();
    return view.farDepth > view.nearDepth ? std::optional(view) : std::nullopt;
}

Sphere sphereAround(const CameraView& view, float nearDepth, float farDepth)
{
    std::array<QVector3D, 4> nearCorners;
    std::array<QVector3D, 4> farCorners;
    QVector3D nearCenter;
    QVector3D farCenter;
    for (size_t i = 0; i < 4; ++i) {
        const auto cornerAt = [&](float depth) {
            const float t = (depth - view.nearDepth) / (view.farDepth - view.nearDepth);
            return view.nearCorners[i] * (1.0F - t) + view.farCorners[i] * t;
        };
        nearCorners[i] = cornerAt(nearDepth);
        farCorners[i] = cornerAt(farDepth);
        nearCenter += nearCorners[i] / 4.0F;
        farCenter += farCorners[i] / 4.0F;
    }
    // The centre lies on the axis, where near and far corners are equally distant.
    const float length = (farCenter - nearCenter).length();
    const float nearRadius = (nearCorners[0] - nearCenter).lengthSquared();
    const float farRadius = (farCorners[0] - farCenter).lengthSquared();
    const float along =
        length > 0.0F ? std::clamp(0.5F + 0.5F * (farRadius - nearRadius) / (length * length), 0.0F, 1.0F)
                      : 0.0F;
    const QVector3D center = nearCenter * (1.0F - along) + farCenter * along;
    float radius = 0.0F;
    for (size_t i = 0; i < 4; ++i) {
        radius = std::max({radius, (nearCorners[i] - center).length(), (farCorners[i] - center).length()});
    }
    radius *= view.scale;
    // Rounded up to one of 64 steps per octave: the last bits depend on the camera's direction and must not
    // reach the matrix. The tolerance cuts off far less than the margin of a map.
    const float step = std::exp2(std::floor(std::log2(radius)) - 6.0F);
    return {view.toWorld.map(center), std::ceil(radius / step - 1e-2F) * step};
}

} // namespace Morvane::Qel
