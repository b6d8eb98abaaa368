#include <Qel/model/ShadowMapManager.h>

#include <QVector2D>
#include <QtMath>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>

#include <Qel/core/MetaTypes.h>

namespace Morvane::Qel {

namespace {

using Light = ShadowMapManager::Light;
using LightType = ShadowMapManager::LightType;

constexpr float infinity = std::numeric_limits<float>::infinity();
/// Fitted extents times this leave the margin along the edges of a map.
constexpr float marginFactor =
    static_cast<float>(ShadowMapManager::mapSize) /
    static_cast<float>(ShadowMapManager::mapSize - 2 * ShadowMapManager::projectorMargin);

/// Whether a number can be reckoned with: beyond this, squares of lengths overflow.
bool isUsable(float value)
{
    constexpr float limit = 1e18F;
    return std::abs(value) <= limit;
}

bool isUsable(const QVector3D& v)
{
    return isUsable(v.x()) && isUsable(v.y()) && isUsable(v.z());
}

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

using Corners = std::array<QVector3D, 8>;

Interval extentAlong(const Corners& corners, const QVector3D& direction)
{
    Interval extent;
    for (const QVector3D& corner : corners) {
        extent.include(QVector3D::dotProduct(corner, direction));
    }
    return extent;
}

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

/// The volume that a camera sees, in camera space.
struct View
{
    QMatrix4x4 toWorld;
    /// The largest length that a unit of camera space has in world space.
    float scale;
    /// Distances along the line of sight.
    float nearDepth;
    float farDepth;
    /// Corresponding corners lie on one line.
    std::array<QVector3D, 4> nearCorners;
    std::array<QVector3D, 4> farCorners;
};

/// Nothing for matrices that no camera has.
std::optional<View> viewOf(const QMatrix4x4* projection, const QMatrix4x4* camera)
{
    if (!projection || !camera) {
        return {};
    }
    bool projects = false;
    bool moves = false;
    const QMatrix4x4 unproject = projection->inverted(&projects);
    View view{camera->inverted(&moves), 0.0F, 0.0F, 0.0F, {}, {}};
    if (!projects || !moves) {
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

struct Sphere
{
    QVector3D center;
    float radius;
};

/// The sphere, in world space, around what the camera sees between two depths. Its radius depends on neither
/// the place nor the direction of the camera.
Sphere sphereAround(const View& view, float nearDepth, float farDepth)
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
    // On the axis, where the nearest and the farthest corners are equally far.
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
    // Rounded up to one of 64 steps an octave, so that the last bits, which do depend on the direction, do
    // not reach the matrix. What the tolerance leaves out is far less than the margin of a map.
    const float step = std::exp2(std::floor(std::log2(radius)) - 6.0F);
    return {view.toWorld.map(center), std::ceil(radius / step - 1e-2F) * step};
}

/// The axes of a projector that looks along `forward`, in the order x, y, z.
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

struct Projector
{
    QMatrix4x4 matrix;
    float cascadeEnd = infinity;
};

/// Centre and half of the extent in x and y, which stay apart so that a centre that moves leaves the scale as
/// it is to the bit.
QMatrix4x4 orthographic(const Axes& axes, const QVector2D& center, const QVector2D& half,
                        const Interval& depth)
{
    QMatrix4x4 matrix;
    matrix.setRow(0, QVector4D(axes.right, -center.x()) / half.x());
    matrix.setRow(1, QVector4D(axes.top, -center.y()) / half.y());
    matrix.setRow(2, QVector4D(axes.forward, -depth.low) / depth.length());
    return matrix;
}

/// `tangent` is that of half the angle that the lamp shines in, `depth` its extent along the axis.
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

/// The depths that a lamp's projector covers when the scene has these.
Interval lampDepth(const Interval& scene, float range)
{
    constexpr float nearest = 1.0F / 32.0F;
    constexpr float slack = 0.01F;
    const float end = scene.high > 0.0F ? std::min(range, scene.high * (1.0F + slack)) : range;
    return {std::clamp(scene.low * (1.0F - slack), end * nearest, end * 0.9F), end};
}

/// Fits the projectors of one light after the other.
class Fitter
{
public:
    Fitter(const QMatrix4x4* projection, const QMatrix4x4* camera,
           const QPair<QVector3D, QVector3D>* sceneBounds)
        : m_view(viewOf(projection, camera))
        , m_scene(cornersOf(sceneBounds))
    {
    }

    int numProjectors(const Light& light) const
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

    /// The light with what may be left open filled in.
    Light resolved(Light light) const
    {
        // Scaled first, for lengths whose squares a float does not hold.
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

    /// A projector of a resolved light.
    Projector projector(const Light& light, int index) const
    {
        switch (light.type) {
        case LightType::Directional:
            return cascade(light, index);
        case LightType::Spot: {
            const Axes axes(light.direction);
            const float tangent = std::tan(qDegreesToRadians(light.angle) / 2.0F);
            return {perspective(axes, light.position, tangent,
                                lampDepth(depthAlong(axes.forward, light), light.range))};
        }
        case LightType::Point: {
            QVector3D forward;
            forward[index / 2] = index % 2 == 0 ? 1.0F : -1.0F;
            return {perspective(Axes(forward), light.position, 1.0F,
                                lampDepth(distanceOnCube(light), light.range))};
        }
        }
        return {};
    }

private:
    Projector cascade(const Light& light, int index) const
    {
        const Axes axes(light.direction);
        constexpr Corners unitBox{QVector3D(-1, -1, -1), QVector3D(1, -1, -1), QVector3D(-1, 1, -1),
                                  QVector3D(1, 1, -1),   QVector3D(-1, -1, 1), QVector3D(1, -1, 1),
                                  QVector3D(-1, 1, 1),   QVector3D(1, 1, 1)};
        const Corners& scene = m_scene ? *m_scene : unitBox;
        const Interval sceneX = extentAlong(scene, axes.right);
        const Interval sceneY = extentAlong(scene, axes.top);
        const Interval sceneDepth = extentAlong(scene, axes.forward);
        // Flat and empty boxes get some extent, and so much of it that floats can tell its ends apart.
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
        // From where the cascade before may begin to fade into this one.
        const float begin =
            std::max(m_view->nearDepth,
                     index == 0 ? m_view->nearDepth
                                : ShadowMapManager::cascadeFadeBegin * splitDepth(index, numCascades, size));
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
        // Casters may stand up to three radii in front of the slice.
        const float middle = snapped(axes.forward);
        return {orthographic(axes, center, {half, half}, {middle - 4.0F * half, middle + half}), cascadeEnd};
    }

    /// Where cascade `index` of `count` begins: half way between an even division and one in equal ratios.
    /// Both end where a scene of this size does; the last cascade takes the rest of the view.
    float splitDepth(int index, int count, float sceneSize) const
    {
        const float begin = m_view->nearDepth;
        const float end = m_scene ? std::min(m_view->farDepth, begin + sceneSize) : m_view->farDepth;
        const float t = static_cast<float>(index) / static_cast<float>(count);
        const float even = begin + (end - begin) * t;
        return begin > 0.0F ? 0.5F * (even + begin * std::pow(end / begin, t)) : even;
    }

    Interval depthAlong(const QVector3D& forward, const Light& light) const
    {
        if (!m_scene) {
            return {0.0F, light.range};
        }
        const float origin = QVector3D::dotProduct(forward, light.position);
        const Interval extent = extentAlong(*m_scene, forward);
        return {extent.low - origin, extent.high - origin};
    }

    /// The extent of the scene in the largest of the three distances along the axes, which is the depth that
    /// a face of the cube sees.
    Interval distanceOnCube(const Light& light) const
    {
        if (!m_scene) {
            return {0.0F, light.range};
        }
        Interval distance{0.0F, 0.0F};
        for (int axis = 0; axis < 3; ++axis) {
            QVector3D direction;
            direction[axis] = 1.0F;
            const Interval extent = depthAlong(direction, light);
            distance.low = std::max({distance.low, extent.low, -extent.high});
            distance.high = std::max({distance.high, extent.high, -extent.low});
        }
        return distance;
    }

    std::optional<View> m_view;
    std::optional<Corners> m_scene;
};

/// The light that a variant points to; null for one that cannot be used.
const Light* lightOf(const QVariant& variant)
{
    if (variant.userType() != pointerMetaTypeId<Light>()) {
        return nullptr;
    }
    const Light* light = *static_cast<Light* const*>(variant.constData());
    return light && isUsable(light->position) && isUsable(light->direction) && isUsable(light->color) &&
                   isUsable(light->angle) && isUsable(light->range)
               ? light
               : nullptr;
}

/// Puts an element at its place, at most one behind the end; returns whether the vector is not what it was.
template<class Element>
bool store(std::vector<Element>& elements, size_t index, const Element& element)
{
    if (index == elements.size()) {
        elements.push_back(element);
        return true;
    }
    if (elements[index] == element) {
        return false;
    }
    elements[index] = element;
    return true;
}

template<class Element>
bool cutTo(std::vector<Element>& elements, size_t size)
{
    const bool isLonger = elements.size() > size;
    elements.erase(elements.begin() + static_cast<ptrdiff_t>(size), elements.end());
    return isLonger;
}

} // namespace

bool ShadowMapManager::processLights(const QVariant& lights, RenderData& data, const QMatrix4x4* projection,
                                     const QMatrix4x4* camera, const QPair<QVector3D, QVector3D>* sceneBounds)
{
    const Fitter fitter(projection, camera, sceneBounds);
    const QVariantList list = lights.toList();
    bool isChanged = false;
    size_t numLights = 0;
    int numLayers = 0;
    for (const QVariant& variant : list) {
        const Light* given = lightOf(variant);
        if (!given) {
            continue;
        }
        RenderData::Light light{fitter.resolved(*given), fitter.numProjectors(*given), numLayers};
        if (numLayers + light.numProjectors > maxLayers) {
            light.numProjectors = 0;
        }
        isChanged |= store(data.m_lights, numLights, light);
        ++numLights;
        for (int i = 0; i < light.numProjectors; ++i) {
            const Projector projector = fitter.projector(light.source, i);
            isChanged |= store(data.m_layers, static_cast<size_t>(numLayers),
                               {projector.matrix, projector.cascadeEnd});
            ++numLayers;
        }
    }
    isChanged |= cutTo(data.m_lights, numLights);
    isChanged |= cutTo(data.m_layers, static_cast<size_t>(numLayers));
    return isChanged;
}

ShadowMapRenderData::ShadowMapRenderData() = default;

ShadowMapRenderData::~ShadowMapRenderData() = default;

} // namespace Morvane::Qel
