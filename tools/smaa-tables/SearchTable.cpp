#include "SearchTable.h"

#include <array>
#include <optional>

namespace SearchTable {

namespace {

/// Four neighbouring texels of one channel of the edge texture, of which a sample a quarter of a texel to the
/// left of `own` and an eighth of a texel up is the mixture.
struct Edges
{
    bool upLeft;
    bool up;
    bool left;
    bool own;
};

/// A mixture in units of 1/32, 0 to this.
constexpr int numMixtures = 33;
using EdgesByMixture = std::array<std::optional<Edges>, numMixtures>;

/// The sixteen sets have sixteen different mixtures.
EdgesByMixture edgesByMixture()
{
    EdgesByMixture result;
    for (const bool upLeft : {false, true}) {
        for (const bool up : {false, true}) {
            for (const bool left : {false, true}) {
                for (const bool own : {false, true}) {
                    const int mixture = (upLeft ? 1 : 0) + (up ? 3 : 0) + (left ? 7 : 0) + (own ? 21 : 0);
                    result[static_cast<size_t>(mixture)] = Edges{upLeft, up, left, own};
                }
            }
        }
    }
    return result;
}

/// How many of the two texels the edge still spans, going to the left: it ends where a crossing edge is.
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
    const EdgesByMixture edges = edgesByMixture();
    std::vector<unsigned char> table;
    table.reserve(width * height);
    for (int row = 0; row < height; ++row) {
        const std::optional<Edges>& edge = edges[static_cast<size_t>(numMixtures - 1 - row)];
        for (int column = 0; column < width; ++column) {
            const std::optional<Edges>& crossing = edges[static_cast<size_t>(column % numMixtures)];
            int distance = 0;
            if (crossing && edge) {
                distance = column < numMixtures ? distanceToTheLeft(*crossing, *edge)
                                                : distanceToTheRight(*crossing, *edge);
            }
            table.push_back(static_cast<unsigned char>(127 * distance));
        }
    }
    return table;
}

} // namespace SearchTable
