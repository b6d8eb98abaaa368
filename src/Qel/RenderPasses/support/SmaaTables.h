#pragma once

#include <array>

namespace Morvane::Qel {

/// The area table of SMAA: 160 x 560 texels of two bytes.
extern const std::array<unsigned char, 160 * 560 * 2> smaaAreaTable;

/// The search table of SMAA: 64 x 16 texels of one byte.
extern const std::array<unsigned char, 64 * 16> smaaSearchTable;

} // namespace Morvane::Qel
