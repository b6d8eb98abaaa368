#pragma once

namespace Morvane::Qel {

/// Returns a hash of the arguments in [0, 1).
float hashedUnit(int x, int y, int seed);

/// Returns smooth noise in [0, 1] that repeats after `period` lattice cells.
float tiledNoise(float x, float y, int period, int seed);

/// Returns four octaves of tiledNoise in [0, 1], each with half the amplitude and twice the frequency.
float tiledClouds(float x, float y, int period, int seed);

} // namespace Morvane::Qel
