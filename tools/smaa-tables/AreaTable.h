#pragma once

#include <vector>

/// The table of the areas that a smoothed edge covers on either side (J. Jimenez, J. I. Echevarria,
/// T. Sousa, D. Gutierrez: SMAA: Enhanced subpixel morphological antialiasing, 2012), two bytes per texel.
///
/// A pattern is the set of crossing edges at both ends of an edge, a cell of the table one pattern over the
/// distances to both ends: left to right to the left end, downwards to the right end. Orthogonal edges have
/// the left half, with distances compressed by a square root and a block for each of seven subsample offsets;
/// diagonal edges have the right half, with five blocks.
namespace AreaTable {

constexpr int width = 160;
constexpr int height = 560;

std::vector<unsigned char> make();

} // namespace AreaTable
