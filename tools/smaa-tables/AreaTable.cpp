#include "AreaTable.h"

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>

// The bytes of the table depend on every rounding: all values are doubles, sums and products are evaluated in
// the order that reproduces the published table, and the compiler must not fuse them.
static_assert(FLT_EVAL_METHOD == 0, "doubles must not be evaluated in a higher precision");

namespace AreaTable {

namespace {

struct Point
{
    double x;
    double y;
};

Point operator+(Point a, Point b)
{
    return {a.x + b.x, a.y + b.y};
}

/// The areas that an edge uncovers in the pixel below it and in the pixel above it, 0 to 1.
struct Areas
{
    double below = 0.0;
    double above = 0.0;
};

Areas operator+(Areas a, Areas b)
{
    return {a.below + b.below, a.above + b.above};
}

Areas half(Areas a)
{
    return {a.below / 2.0, a.above / 2.0};
}

/// Crossing edges at the ends of an edge, as the bits of a pattern.
enum Crossing
{
    LeftBelow = 1,
    RightBelow = 2,
    LeftAbove = 4,
    RightAbove = 8
};

constexpr int numPatterns = 16;

int bit(int pattern, Crossing crossing)
{
    return (pattern & crossing) != 0 ? 1 : 0;
}

constexpr int blockSize = 80;

void store(std::vector<unsigned char>& table, int column, int row, Areas areas)
{
    unsigned char* texel = table.data() + 2 * (row * width + column);
    texel[0] = static_cast<unsigned char>(255.0 * areas.below);
    texel[1] = static_cast<unsigned char>(255.0 * areas.above);
}

// -- orthogonal edges

constexpr std::array<double, 7> orthogonalOffsets = {0.0, -0.25, 0.25, -0.125, 0.125, -0.375, 0.375};
constexpr int orthogonalCellSize = 16;
/// From this length on, areas are not enlarged.
constexpr double maxSmoothedLength = 32.0;
/// A distance from the edge that counts as touching rather than crossing it.
constexpr double tolerance = 1e-4;

/// An orthogonal edge along y = 0 from x = 0 to x = left + right + 1. Its areas are those of the pixel `left`
/// pixels from its left end and `right` pixels from its right end.
class OrthogonalEdge
{
public:
    OrthogonalEdge(int left, int right, double offset)
        : m_left(left)
        , m_right(right)
        , m_isMoved(offset != 0.0)
        , m_middle{(left + right + 1) / 2.0, 0.0}
        , m_leftEnds{{{0.0, 0.5 + offset - 1.0}, {0.0, 0.5 + offset}}}
        , m_rightEnds{{{left + right + 1.0, 0.5 + offset - 1.0}, {left + right + 1.0, 0.5 + offset}}}
    {
    }

    Areas areas(int pattern) const
    {
        switch (pattern) {
        case LeftBelow:
            return leftHalf(Below);
        case LeftAbove:
            return leftHalf(Above);
        case RightBelow:
            return rightHalf(Below);
        case RightAbove:
            return rightHalf(Above);
        case LeftBelow | RightBelow:
            return arch(Below);
        case LeftAbove | RightAbove:
            return arch(Above);
        case LeftAbove | RightBelow:
            return step(Above, Below);
        case LeftBelow | RightAbove:
            return step(Below, Above);
        case LeftBelow | RightBelow | LeftAbove:
        case RightBelow | LeftAbove | RightAbove:
            return cut(m_leftEnds[Above], m_rightEnds[Below]);
        case LeftBelow | RightBelow | RightAbove:
        case LeftBelow | LeftAbove | RightAbove:
            return cut(m_leftEnds[Below], m_rightEnds[Above]);
        default:
            // Ends without a crossing edge, or with one on both sides, leave open which way the edge turns.
            return {};
        }
    }

private:
    enum Side
    {
        Below,
        Above
    };

    /// One crossing edge: the line runs from there to the middle.
    Areas leftHalf(Side side) const { return m_left <= m_right ? cut(m_leftEnds[side], m_middle) : Areas{}; }
    Areas rightHalf(Side side) const
    {
        return m_left >= m_right ? cut(m_middle, m_rightEnds[side]) : Areas{};
    }

    /// Crossing edges on the same side.
    Areas arch(Side side) const
    {
        return smoothed(cut(m_leftEnds[side], m_middle)) + smoothed(cut(m_middle, m_rightEnds[side]));
    }

    /// Crossing edges on opposite sides: one line from end to end; with an offset, averaged with two halves.
    Areas step(Side leftSide, Side rightSide) const
    {
        const Areas straight = cut(m_leftEnds[leftSide], m_rightEnds[rightSide]);
        if (!m_isMoved) {
            return straight;
        }
        return half(straight + (cut(m_leftEnds[leftSide], m_middle) + cut(m_middle, m_rightEnds[rightSide])));
    }

    /// Short arches get larger areas, so that the corners of small shapes stay round.
    Areas smoothed(Areas areas) const
    {
        const double weight = std::min((m_left + m_right + 1) / maxSmoothedLength, 1.0);
        const auto smooth = [&](double area) {
            const double large = std::sqrt(area * 2.0) * 0.5;
            return large + (area - large) * weight;
        };
        return {smooth(areas.below), smooth(areas.above)};
    }

    /// The areas between the edge and the line from p to q in the pixel's column.
    Areas cut(Point p, Point q) const
    {
        const double x1 = m_left;
        const double x2 = m_left + 1.0;
        const bool isInside = (x1 >= p.x && x1 < q.x) || (x2 > p.x && x2 <= q.x);
        if (!isInside) {
            return {};
        }
        const double dx = q.x - p.x;
        const double dy = q.y - p.y;
        const double y1 = p.y + dy * (x1 - p.x) / dx;
        const double y2 = p.y + dy * (x2 - p.x) / dx;
        if (std::signbit(y1) == std::signbit(y2) || std::abs(y1) < tolerance || std::abs(y2) < tolerance) {
            const double area = (y1 + y2) / 2.0;
            return area < 0.0 ? Areas{std::abs(area), 0.0} : Areas{0.0, std::abs(area)};
        }
        // The line crosses the edge inside the column.
        const double crossing = -p.y * dx / dy + p.x;
        const double fraction = crossing - std::floor(crossing);
        const double first = crossing > p.x ? y1 * fraction / 2.0 : 0.0;
        const double second = crossing < q.x ? y2 * (1.0 - fraction) / 2.0 : 0.0;
        const double larger = std::abs(first) > std::abs(second) ? first : -second;
        return larger < 0.0 ? Areas{std::abs(first), std::abs(second)}
                            : Areas{std::abs(second), std::abs(first)};
    }

    int m_left;
    int m_right;
    bool m_isMoved;
    Point m_middle;
    std::array<Point, 2> m_leftEnds;
    std::array<Point, 2> m_rightEnds;
};

void fillOrthogonalBlock(std::vector<unsigned char>& table, int firstRow, double offset)
{
    for (int pattern = 0; pattern < numPatterns; ++pattern) {
        // The shader finds a cell by four times the bilinear mixture of the crossing edges, hence the 3.
        const int column = orthogonalCellSize * (3 * bit(pattern, LeftBelow) + bit(pattern, LeftAbove));
        const int row =
            firstRow + orthogonalCellSize * (3 * bit(pattern, RightBelow) + bit(pattern, RightAbove));
        for (int j = 0; j < orthogonalCellSize; ++j) {
            for (int i = 0; i < orthogonalCellSize; ++i) {
                const OrthogonalEdge edge(i * i, j * j, offset);
                store(table, column + i, row + j, edge.areas(pattern));
            }
        }
    }
}

// -- diagonal edges

constexpr std::array<Point, 5> diagonalOffsets = {
    {{0.0, 0.0}, {0.25, -0.25}, {-0.25, 0.25}, {0.125, -0.125}, {-0.125, 0.125}}};
constexpr int diagonalCellSize = 20;

/// Two lines, each from a corner of the first pixel of the diagonal to a corner of the last one. Their areas
/// are averaged, because a crossing edge may allow two continuations of the diagonal.
struct DiagonalLines
{
    std::array<Point, 2> first;
    std::array<Point, 2> second;
};

constexpr Point p00{0.0, 0.0};
constexpr Point p10{1.0, 0.0};
constexpr Point p11{1.0, 1.0};

constexpr std::array<DiagonalLines, numPatterns> diagonalPatterns = {{
    {{p11, p11}, {p10, p10}},
    {{p10, p00}, {p10, p10}},
    {{p00, p10}, {p10, p10}},
    {{p10, p10}, {p10, p10}},
    {{p11, p00}, {p11, p10}},
    {{p11, p00}, {p10, p10}},
    {{p11, p10}, {p11, p10}},
    {{p11, p10}, {p10, p10}},
    {{p00, p11}, {p10, p11}},
    {{p10, p11}, {p10, p11}},
    {{p00, p11}, {p10, p10}},
    {{p10, p11}, {p10, p10}},
    {{p11, p11}, {p11, p11}},
    {{p11, p11}, {p10, p11}},
    {{p11, p11}, {p11, p10}},
    {{p11, p11}, {p10, p10}},
}};

/// The fraction of the unit pixel with this lower left corner that lies to the right of the line from p to q,
/// by counting samples.
double coverage(Point p, Point q, Point corner)
{
    if (p.x == q.x && p.y == q.y) {
        return 1.0;
    }
    constexpr int numSamples = 30;
    const Point middle{(p.x + q.x) / 2.0, (p.y + q.y) / 2.0};
    const double a = q.y - p.y;
    const double b = p.x - q.x;
    int count = 0;
    for (int i = 0; i < numSamples; ++i) {
        for (int j = 0; j < numSamples; ++j) {
            const Point sample = corner + Point{i / (numSamples - 1.0), j / (numSamples - 1.0)};
            if (a * (sample.x - middle.x) + b * (sample.y - middle.y) > 0.0) {
                ++count;
            }
        }
    }
    return count / static_cast<double>(numSamples * numSamples);
}

Areas diagonalAreas(Point p, Point q, int left)
{
    const double x = left;
    return {1.0 - coverage(p, q, {1.0 + x, x}), coverage(p, q, {1.0 + x, 1.0 + x})};
}

void fillDiagonalBlock(std::vector<unsigned char>& table, int firstRow, Point offset)
{
    for (int pattern = 0; pattern < numPatterns; ++pattern) {
        const int columnSlot = bit(pattern, LeftBelow) + 2 * bit(pattern, LeftAbove);
        const int rowSlot = 2 * bit(pattern, RightBelow) + bit(pattern, RightAbove);
        // Only ends with a crossing edge move with the sample.
        const Point leftOffset = columnSlot > 0 ? offset : Point{0.0, 0.0};
        const Point rightOffset = rowSlot > 0 ? offset : Point{0.0, 0.0};
        const auto areas = [&](const std::array<Point, 2>& line, int left, int right) {
            const double length = left + right + 1.0;
            const Point end = line[1] + Point{length, length};
            return diagonalAreas(line[0] + leftOffset, end + rightOffset, left);
        };
        const DiagonalLines& lines = diagonalPatterns[static_cast<size_t>(pattern)];
        for (int j = 0; j < diagonalCellSize; ++j) {
            for (int i = 0; i < diagonalCellSize; ++i) {
                store(table, blockSize + columnSlot * diagonalCellSize + i,
                      firstRow + rowSlot * diagonalCellSize + j,
                      half(areas(lines.first, i, j) + areas(lines.second, i, j)));
            }
        }
    }
}

} // namespace

std::vector<unsigned char> make()
{
    std::vector<unsigned char> table(2 * width * height);
    int firstRow = 0;
    for (const double offset : orthogonalOffsets) {
        fillOrthogonalBlock(table, firstRow, offset);
        firstRow += blockSize;
    }
    firstRow = 0;
    for (const Point offset : diagonalOffsets) {
        fillDiagonalBlock(table, firstRow, offset);
        firstRow += blockSize;
    }
    return table;
}

} // namespace AreaTable
