#include "SearchTable.h"

#include <array>
#include <optional>

namespace SearchTable {

namespace {

/// Four neighbouring texels of one channel of the edge texture. The search samples them a quarter of a texel
/// to the left of `own` and an eighth of a texel up, which gives a different value for each combination.
struct Edges
{
    bool upLeft;
    bool up;
    bool left;
    bool own;
};

/// Filtered values are multiples of 1/32, from 0 to 1.
constexpr int numValues = 33;
using EdgesByValue = std::array<std::optional<Edges>, numValues>;

/// The texels that give each filtered value.
EdgesByValue edgesByValue()
{
    EdgesByValue result;
    for (const bool upLeft : {false, true}) {
        for (const bool up : {false, true}) {
            for (const bool left : {false, true}) {
                for (const bool own : {false, true}) {
                    const int value = (upLeft ? 1 : 0) + (up ? 3 : 0) + (left ? 7 : 0) + (own ? 21 : 0);
                    result[static_cast<size_t>(value)] = Edges{upLeft, up, left, own};
                }
            }
        }
    }
    return result;
}

/// The number of texels, 0 to 2, that the edge still spans to the left. It ends at a crossing edge.
int distanceToTheLeft(const Edges& crossing, const Edges& edge)
{
    if (!edge.own) {
        return 0;
    }
    return edge.left && !crossing.up && !crossing.own ? 2 : 1;
}

int distanceToTheRight(const Edges& crossing, const Edges& edge)
{
    if (!edge.own || crossing.up || crossing.own) {
        return 0;
    }
    return edge.left && !crossing.upLeft && !crossing.left ? 2 : 1;
}

} // namespace

std::vector<unsigned char> make()
{
    const EdgesByValue edges = edgesByValue();
    std::vector<unsigned char> table;
    table.reserve(width * height);
    for (int row = 0; row < height; ++row) {
        const std::optional<Edges>& edge = edges[static_cast<size_t>(numValues - 1 - row)];
        for (int column = 0; column < width; ++column) {
            const std::optional<Edges>& crossing = edges[static_cast<size_t>(column % numValues)];
            int distance = 0;
            if (crossing && edge) {
                distance = column < numValues ? distanceToTheLeft(*crossing, *edge)
                                              : distanceToTheRight(*crossing, *edge);
            }
            table.push_back(static_cast<unsigned char>(127 * distance));
        }
    }
    return table;
}

} // namespace SearchTable
