#include <Qel/model/ShapeTransform.h>

#include <algorithm>
#include <cmath>

namespace Morvane::Qel {

namespace {

using Vector = ShapeTransform::Vector;

Vector column(const QMatrix4x4& matrix, int index)
{
    return {double(matrix(0, index)), double(matrix(1, index)), double(matrix(2, index))};
}

/// Returns a unit vector along v, or one at right angles to `axis` if v is shorter than `shortest`.
Vector direction(const Vector& v, double shortest, const Vector& axis)
{
    const double length = v.Length();
    if (length > shortest) {
        return v / length;
    }
    const Vector other = std::abs(axis.x) < 0.5 ? Vector(1, 0, 0) : Vector(0, 1, 0);
    const Vector normal = axis ^ other;
    return normal / normal.Length();
}

double largestEntry(const std::array<Vector, 3>& columns)
{
    double largest = 0.0;
    for (const Vector& c : columns) {
        largest = std::max({largest, std::abs(c.x), std::abs(c.y), std::abs(c.z)});
    }
    return largest;
}

} // namespace

ShapeTransform::ShapeTransform(const std::array<Vector, 3>& columns)
    : m_columns(columns)
    , m_cofactors{columns[1] ^ columns[2], columns[2] ^ columns[0], columns[0] ^ columns[1]}
    , m_sign(m_columns[0] * m_cofactors[0] < 0.0 ? -1.0 : 1.0)
{
}

ShapeTransform::ShapeTransform(const QMatrix4x4& matrix)
    : ShapeTransform({column(matrix, 0), column(matrix, 1), column(matrix, 2)})
{
}

Vector ShapeTransform::position(const aiVector3D& p) const
{
    return m_columns[0] * double(p.x) + m_columns[1] * double(p.y) + m_columns[2] * double(p.z);
}

Vector ShapeTransform::normal(const aiVector3D& n) const
{
    // The inverse transpose is the matrix of cofactors divided by the determinant, of which only the sign
    // counts. Unlike the inverse, the cofactors exist for a flat scale too.
    return (m_cofactors[0] * double(n.x) + m_cofactors[1] * double(n.y) + m_cofactors[2] * double(n.z)) *
           m_sign;
}

bool ShapeTransform::isClose(const ShapeTransform& other) const
{
    std::array<Vector, 3> difference;
    for (size_t i = 0; i < 3; ++i) {
        difference[i] = m_columns[i] - other.m_columns[i];
    }
    return largestEntry(difference) <= 1.0e-5 * largestEntry(m_columns);
}

SplitTransform split(const QMatrix4x4& transform)
{
    // The rotation's axes follow from the columns by orthogonalisation, as in a QR decomposition. The change
    // of shape is then the same for all instances that differ by rotations only.
    const std::array<Vector, 3> columns{column(transform, 0), column(transform, 1), column(transform, 2)};
    std::array<Vector, 3> axes;
    axes[0] = direction(columns[0], 0.0, Vector(0, 0, 1));
    axes[1] = columns[1] - axes[0] * (axes[0] * columns[1]);
    // What is left of a parallel column is rounding error.
    axes[1] = direction(axes[1], 1.0e-6 * columns[1].Length(), axes[0]);
    axes[2] = axes[0] ^ axes[1];

    std::array<Vector, 3> shape;
    SplitTransform result;
    for (int i = 0; i < 3; ++i) {
        const Vector& c = columns[static_cast<size_t>(i)];
        shape[static_cast<size_t>(i)] = {axes[0] * c, axes[1] * c, axes[2] * c};
        const Vector& axis = axes[static_cast<size_t>(i)];
        result.motion.setColumn(
            i, {static_cast<float>(axis.x), static_cast<float>(axis.y), static_cast<float>(axis.z), 0.0F});
    }
    result.motion.setColumn(3, transform.column(3));
    result.shape = ShapeTransform(shape);
    if (result.shape.isClose({})) {
        return {{}, transform};
    }
    return result;
}

} // namespace Morvane::Qel
