#pragma once

#include <QMatrix4x4>

#include <array>

#include <assimp/types.h>

namespace Morvane::Qel {

/// The part of a transform that changes a mesh's shape: scale, shear and mirroring. By default, none.
class ShapeTransform
{
public:
    using Vector = aiVector3t<double>;

    ShapeTransform() = default;
    /// A matrix by its columns.
    explicit ShapeTransform(const std::array<Vector, 3>& columns);
    /// The linear part of an affine matrix.
    explicit ShapeTransform(const QMatrix4x4& matrix);

    Vector position(const aiVector3D& position) const;
    /// Not of unit length; zero for a normal that the transform flattens.
    Vector normal(const aiVector3D& normal) const;
    /// Whether the winding of triangles is reversed.
    bool isMirrored() const { return m_sign < 0.0; }
    /// Whether the two differ only by what rounding in a deep hierarchy of nodes causes.
    bool isClose(const ShapeTransform& other) const;

private:
    std::array<Vector, 3> m_columns{Vector(1, 0, 0), Vector(0, 1, 0), Vector(0, 0, 1)};
    /// The columns of the matrix of cofactors.
    std::array<Vector, 3> m_cofactors = m_columns;
    double m_sign = 1.0;
};

/// An affine transform as a change of shape that a rigid motion follows.
struct SplitTransform
{
    ShapeTransform shape;
    QMatrix4x4 motion;
};

/// Splits a transform whose bottom row is (0, 0, 0, 1). One that is rigid but for rounding errors is returned
/// as the motion, unchanged.
SplitTransform split(const QMatrix4x4& transform);

} // namespace Morvane::Qel
