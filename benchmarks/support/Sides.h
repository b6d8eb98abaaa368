#pragma once

#include <functional>
#include <vector>

#include <benchmark/benchmark.h>

namespace Morvane::Qel::Bench {

/// What the timing of one side includes.
enum class Wait
{
    /// The CPU time to submit the calls.
    Submission,
    /// The time until the pixels are drawn: glFinish is part of it.
    Pixels,
};

/// Runs two implementations of the same work alternately and reports their median times in microseconds, and
/// the ratio, the only meaningful figure on a shared machine. Call it once per benchmark. `prepare` runs
/// before each side and is not timed.
void compareSides(
    benchmark::State& state, Wait wait, const std::function<void()>& library,
    const std::function<void()>& plainGL, const std::function<void()>& prepare = [] {});

/// Returns the median of one or more values, and reorders them.
double median(std::vector<double>& values);

} // namespace Morvane::Qel::Bench
