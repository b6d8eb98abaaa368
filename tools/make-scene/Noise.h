#pragma once

namespace Morvane::Qel {

/// A number in [0, 1) that depends on the arguments alone.
float hashedUnit(int x, int y, int seed);

/// Smooth noise in [0, 1] whose lattice has `period` cells and then repeats.
float tiledNoise(float x, float y, int period, int seed);

/// Four octaves of tiledNoise, each half as strong and twice as fine as the one before, in [0, 1].
float tiledClouds(float x, float y, int period, int seed);

} // namespace Morvane::Qel
