#include <Qel/graph/support/ModelPlacing.h>

#include <QMatrix4x4>

#include <algorithm>

#include <Qel/model/ModelAssembly.h>

namespace Morvane::Qel {

namespace {

/// Turns an axis to +y by a quarter turn about z or x.
QMatrix4x4 upright(const QString& upAxis)
{
    if (upAxis == QLatin1StringView("x")) {
        return {0, -1, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
    }
    if (upAxis == QLatin1StringView("z")) {
        return {1, 0, 0, 0, 0, 0, 1, 0, 0, -1, 0, 0, 0, 0, 0, 1};
    }
    return {};
}

/// Scales a box so that its largest side has a length, and moves it so that it stands on the origin.
QMatrix4x4 fitted(const QPair<QVector3D, QVector3D>& bounds, float length)
{
    const QVector3D sides = bounds.second - bounds.first;
    const float largest = std::max({sides.x(), sides.y(), sides.z()});
    const QVector3D center = (bounds.first + bounds.second) / 2.0F;
    QMatrix4x4 result;
    result.scale(largest > 0.0F ? length / largest : 1.0F);
    result.translate(-center.x(), -bounds.first.y(), -center.z());
    return result;
}

} // namespace

ModelData placed(ModelData model, const ModelPlacement& placement)
{
    QMatrix4x4 shape;
    shape.scale(placement.scale);
    shape *= upright(placement.upAxis);
    if (placement.fit > 0.0F) {
        shape = fitted(boundsOf(model, shape), placement.fit) * shape;
    }
    QMatrix4x4 motion;
    motion.translate(placement.translate);
    motion.rotate(placement.rotate.z(), 0.0F, 0.0F, 1.0F);
    motion.rotate(placement.rotate.y(), 0.0F, 1.0F, 0.0F);
    motion.rotate(placement.rotate.x(), 1.0F, 0.0F, 0.0F);
    const QMatrix4x4 transform = motion * shape;
    if (transform.isIdentity()) {
        return model;
    }
    return transformed(model, transform);
}

} // namespace Morvane::Qel
