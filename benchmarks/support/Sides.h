#pragma once

#include <functional>
#include <vector>

#include <benchmark/benchmark.h>

namespace Morvane::Qel::Bench {

/// What a measurement waits for.
enum class Wait
{
    /// The calls alone: the CPU time to submit.
    Submission,
    /// The pixels: glFinish after each side.
    Pixels,
};

/// Runs two ways of doing the same alternately and reports the median time of each, in microseconds, and
/// their ratio: the only figure that means something on a shared machine. Call it once in a benchmark.
/// What `prepare` does before each side is not timed.
void compareSides(
    benchmark::State& state, Wait wait, const std::function<void()>& library,
    const std::function<void()>& byHand, const std::function<void()>& prepare = [] {});

/// The middle one of at least one value; reorders them.
double median(std::vector<double>& values);

} // namespace Morvane::Qel::Bench
