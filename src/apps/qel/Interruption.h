#pragma once

namespace Morvane::Qel::App {

/// Holds back the signals SIGHUP, SIGINT and SIGTERM for its lifetime, so that the program can finish what it
/// writes. A second signal ends the program at once. Only one object may exist at a time.
class Interruption
{
public:
    Interruption();
    ~Interruption();
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

    /// Whether there was a signal.
    static bool isRequested();
    /// Ends the program as the signal does that was held back.
    [[noreturn]] static void endProgram();
};

} // namespace Morvane::Qel::App
