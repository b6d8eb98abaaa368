#pragma once

#include <vector>

/// The table of the areas that a smoothed edge covers on either side (J. Jimenez, J. I. Echevarria,
/// T. Sousa, D. Gutierrez: SMAA: Enhanced subpixel morphological antialiasing, 2012), two bytes per texel.
///
/// A pattern is the set of crossing edges at both ends of an edge. Each pattern has a cell of the table: its
/// columns are the distance to the left end, its rows the distance to the right end. The left half of the
/// table is for orthogonal edges, with the square roots of the distances and a block of cells for each of
/// seven subsample offsets; the right half is for diagonal edges, with five blocks.
namespace AreaTable {

constexpr int width = 160;
constexpr int height = 560;

std::vector<unsigned char> make();

} // namespace AreaTable
