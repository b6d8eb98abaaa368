#pragma once

#include <vector>

/// The table of how many pixels to add to or subtract from a search along an edge (J. Jimenez, J.
/// I. Echevarria, T. Sousa, D. Gutierrez: SMAA: Enhanced subpixel morphological antialiasing, 2012), one byte
/// a texel.
///
/// The search reads four texels of the edge texture with one bilinear sample. The column of the table is the
/// filtered value of the crossing edges, the row that of the edge being followed, upside down. The left part
/// is for searches to the left, the right part for searches to the right.
namespace SearchTable {

constexpr int width = 64;
constexpr int height = 16;

std::vector<unsigned char> make();

} // namespace SearchTable
