#include <Qel/model/ProjectorFitter.h>

#include <QVector2D>
#include <QtMath>

#include <algorithm>
#include <cmath>

#include <Qel/model/UsableNumbers.h>

namespace Morvane::Qel {

namespace {

using Light = ShadowMapManager::Light;
using LightType = ShadowMapManager::LightType;
using Corners = std::array<QVector3D, 8>;

constexpr float infinity = std::numeric_limits<float>::infinity();
/// Scales a fitted extent so that the margin remains along the edges of the map.
constexpr float marginFactor =
    static_cast<float>(ShadowMapManager::mapSize) /
    static_cast<float>(ShadowMapManager::mapSize - 2 * ShadowMapManager::projectorMargin);

struct Interval
{
    float low = infinity;
    float high = -infinity;

    void include(float value)
    {
        low = std::min(low, value);
        high = std::max(high, value);
    }
    float length() const { return high - low; }
    float center() const { return 0.5F * (low + high); }
};

Interval extentAlong(const Corners& corners, const QVector3D& direction)
{
    Interval extent;
    for (const QVector3D& corner : corners) {
        extent.include(QVector3D::dotProduct(corner, direction));
    }
    return extent;
}

/// Returns nothing for bounds that are null or unusable.
std::optional<Corners> cornersOf(const QPair<QVector3D, QVector3D>* bounds)
{
    if (!bounds || !isUsable(bounds->first) || !isUsable(bounds->second)) {
        return {};
    }
    Corners corners;
    for (size_t i = 0; i < corners.size(); ++i) {
        for (int axis = 0; axis < 3; ++axis) {
            corners[i][axis] = (i >> axis & 1U) != 0 ? bounds->second[axis] : bounds->first[axis];
        }
    }
    return corners;
}

/// The axes of a projector that looks along `forward`.
struct Axes
{
    explicit Axes(const QVector3D& direction)
        : forward(direction)
    {
        const QVector3D up = std::abs(forward.y()) < 0.99F ? QVector3D(0, 1, 0) : QVector3D(0, 0, 1);
        right = QVector3D::crossProduct(forward, up).normalized();
        top = QVector3D::crossProduct(right, forward);
    }

    QVector3D right;
    QVector3D top;
    QVector3D forward;
};

/// `center` and `half` are the centre and half the extent along x and y. They are separate so that moving the
/// centre leaves the scale unchanged to the bit.
QMatrix4x4 orthographic(const Axes& axes, const QVector2D& center, const QVector2D& half,
                        const Interval& depth)
{
    QMatrix4x4 matrix;
    matrix.setRow(0, QVector4D(axes.right, -center.x()) / half.x());
    matrix.setRow(1, QVector4D(axes.top, -center.y()) / half.y());
    matrix.setRow(2, QVector4D(axes.forward, -depth.low) / depth.length());
    return matrix;
}

/// `tangent` is the tangent of half the opening angle, `depth` the extent along the axis.
QMatrix4x4 perspective(const Axes& axes, const QVector3D& position, float tangent, const Interval& depth)
{
    const float focal = 1.0F / (tangent * marginFactor);
    const float scale = depth.high / depth.length();
    const QVector4D w(axes.forward, -QVector3D::dotProduct(axes.forward, position));
    QMatrix4x4 matrix;
    matrix.setRow(0, QVector4D(axes.right, -QVector3D::dotProduct(axes.right, position)) * focal);
    matrix.setRow(1, QVector4D(axes.top, -QVector3D::dotProduct(axes.top, position)) * focal);
    matrix.setRow(2, w * scale - QVector4D(0.0F, 0.0F, 0.0F, depth.low * scale));
    matrix.setRow(3, w);
    return matrix;
}

/// Returns the depths that a spot or point light's projector covers, given the depths of the scene.
Interval projectorDepth(const Interval& scene, float range)
{
    constexpr float nearest = 1.0F / 32.0F;
    constexpr float slack = 0.01F;
    const float end = scene.high > 0.0F ? std::min(range, scene.high * (1.0F + slack)) : range;
    return {std::clamp(scene.low * (1.0F - slack), end * nearest, end * 0.9F), end};
}

/// Returns the depths of the scene as seen from the light.
Interval depthAlong(const std::optional<Corners>& scene, const QVector3D& forward, const Light& light)
{
    if (!scene) {
        return {0.0F, light.range};
    }
    const float origin = QVector3D::dotProduct(forward, light.position);
    const Interval extent = extentAlong(*scene, forward);
    return {extent.low - origin, extent.high - origin};
}

/// Returns the extent of the scene in the largest of the three distances along the axes, which is the depth
/// that a cube face sees.
Interval distanceOnCube(const std::optional<Corners>& scene, const Light& light)
{
    if (!scene) {
        return {0.0F, light.range};
    }
    Interval distance{0.0F, 0.0F};
    for (int axis = 0; axis < 3; ++axis) {
        QVector3D direction;
        direction[axis] = 1.0F;
        const Interval extent = depthAlong(scene, direction, light);
        distance.low = std::max({distance.low, extent.low, -extent.high});
        distance.high = std::max({distance.high, extent.high, -extent.low});
    }
    return distance;
}

} // namespace

ProjectorFitter::ProjectorFitter(const QMatrix4x4* projection, const QMatrix4x4* camera,
                                 const QPair<QVector3D, QVector3D>* sceneBounds)
    : m_view(makeCameraView(projection, camera))
    , m_scene(cornersOf(sceneBounds))
{
}

int ProjectorFitter::numProjectors(const Light& light) const
{
    switch (light.type) {
    case LightType::Directional:
        return m_view ? std::clamp(light.cascades, 1, ShadowMapManager::maxCascades) : 1;
    case LightType::Spot:
        return 1;
    case LightType::Point:
        return 6;
    }
    return 0;
}

Light ProjectorFitter::resolved(Light light) const
{
    // Scaled first, because the square of the length may overflow or underflow.
    const QVector3D& d = light.direction;
    const float largest = std::max({std::abs(d.x()), std::abs(d.y()), std::abs(d.z())});
    light.direction = largest > 0.0F ? (d / largest).normalized() : QVector3D(0.0F, -1.0F, 0.0F);
    light.angle = std::clamp(light.angle, 1.0F, 170.0F);
    if (light.range <= 0.0F) {
        light.range = 0.0F;
        for (size_t i = 0; m_scene && i < m_scene->size(); ++i) {
            light.range = std::max(light.range, (*m_scene)[i].distanceToPoint(light.position));
        }
        if (light.range <= 0.0F) {
            constexpr float rangeWithoutScene = 100.0F;
            light.range = rangeWithoutScene;
        }
    }
    return light;
}

Projector ProjectorFitter::projector(const Light& light, int index) const
{
    switch (light.type) {
    case LightType::Directional:
        return cascade(light, index);
    case LightType::Spot: {
        const Axes axes(light.direction);
        const float tangent = std::tan(qDegreesToRadians(light.angle) / 2.0F);
        return {perspective(axes, light.position, tangent,
                            projectorDepth(depthAlong(m_scene, axes.forward, light), light.range))};
    }
    case LightType::Point: {
        QVector3D forward;
        forward[index / 2] = index % 2 == 0 ? 1.0F : -1.0F;
        return {perspective(Axes(forward), light.position, 1.0F,
                            projectorDepth(distanceOnCube(m_scene, light), light.range))};
    }
    }
    return {};
}

Projector ProjectorFitter::cascade(const Light& light, int index) const
{
    const Axes axes(light.direction);
    constexpr Corners unitBox{QVector3D(-1, -1, -1), QVector3D(1, -1, -1), QVector3D(-1, 1, -1),
                              QVector3D(1, 1, -1),   QVector3D(-1, -1, 1), QVector3D(1, -1, 1),
                              QVector3D(-1, 1, 1),   QVector3D(1, 1, 1)};
    const Corners& scene = m_scene ? *m_scene : unitBox;
    const Interval sceneX = extentAlong(scene, axes.right);
    const Interval sceneY = extentAlong(scene, axes.top);
    const Interval sceneDepth = extentAlong(scene, axes.forward);
    // Flat and empty boxes get a minimum extent, large enough that its ends differ as floats.
    const float size = std::max({sceneX.length(), sceneY.length(), sceneDepth.length()});
    const float distance =
        std::max({std::abs(sceneX.center()), std::abs(sceneY.center()), std::abs(sceneDepth.center())});
    const float least = std::max({1e-3F * size, 1e-5F * distance, 1e-5F});
    const QVector2D sceneCenter(sceneX.center(), sceneY.center());
    const QVector2D sceneHalf =
        QVector2D(std::max(0.5F * sceneX.length(), least), std::max(0.5F * sceneY.length(), least)) *
        marginFactor;
    constexpr float slack = 1.01F;
    const float halfDepth = std::max(0.5F * sceneDepth.length(), least) * slack;
    const Interval depth{sceneDepth.center() - halfDepth, sceneDepth.center() + halfDepth};
    if (!m_view) {
        return {orthographic(axes, sceneCenter, sceneHalf, depth)};
    }

    const int numCascades = numProjectors(light);
    const bool isLast = index + 1 == numCascades;
    // The previous cascade may start to fade into this one here.
    const float begin = std::max(m_view->nearDepth, index == 0 ? m_view->nearDepth
                                                               : ShadowMapManager::cascadeFadeBegin *
                                                                     splitDepth(index, numCascades, size));
    const float end = isLast ? m_view->farDepth : splitDepth(index + 1, numCascades, size);
    const float cascadeEnd = isLast ? infinity : end;
    const Sphere slice = sphereAround(*m_view, begin, end);
    const float half = slice.radius * marginFactor;
    const bool isSliceSmaller = half * half < sceneHalf.x() * sceneHalf.y();
    if (m_scene && !isSliceSmaller) {
        return {orthographic(axes, sceneCenter, sceneHalf, depth), cascadeEnd};
    }
    const float texel = 2.0F * half / static_cast<float>(ShadowMapManager::mapSize);
    const auto snapped = [&](const QVector3D& axis) {
        return std::floor(QVector3D::dotProduct(slice.center, axis) / texel + 0.5F) * texel;
    };
    const QVector2D center(snapped(axes.right), snapped(axes.top));
    if (m_scene) {
        return {orthographic(axes, center, {half, half}, depth), cascadeEnd};
    }
    // Casters may be up to three radii in front of the slice. Far from the origin, where these depths would
    // round to one float, the range is as wide as floats can tell apart.
    const float middle = snapped(axes.forward);
    const float reach = std::max(half, 1e-6F * std::abs(middle));
    return {orthographic(axes, center, {half, half}, {middle - 4.0F * reach, middle + reach}), cascadeEnd};
}

float ProjectorFitter::splitDepth(int index, int count, float sceneSize) const
{
    const float begin = m_view->nearDepth;
    const float end = m_scene ? std::min(m_view->farDepth, begin + sceneSize) : m_view->farDepth;
    const float t = static_cast<float>(index) / static_cast<float>(count);
    const float even = begin + (end - begin) * t;
    return begin > 0.0F ? 0.5F * (even + begin * std::pow(end / begin, t)) : even;
}

} // namespace Morvane::Qel
