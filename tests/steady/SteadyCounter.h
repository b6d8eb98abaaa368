#pragma once

namespace Morvane::Qel::Test {

/// Counts what a steady frame must not do, while it lives: heap allocations made by the libraries of this
/// project, by Qt or by the C++ library (the driver's own do not count), and GL objects created by anyone.
/// One at a time.
class SteadyCounter
{
public:
    SteadyCounter();
    ~SteadyCounter();
    SteadyCounter(const SteadyCounter&) = delete;
    SteadyCounter& operator=(const SteadyCounter&) = delete;

    static int numAllocations();
    static int numObjects();
};

} // namespace Morvane::Qel::Test
