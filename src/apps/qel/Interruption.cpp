#include "Interruption.h"

#include <array>
#include <csignal>
#include <cstdlib>

namespace Morvane::Qel::App {

namespace {

constexpr std::array signals = {SIGHUP, SIGINT, SIGTERM};

volatile std::sig_atomic_t received = 0;

/// What the signals did before.
std::array<void (*)(int), signals.size()> earlierHandlers{};

void noteSignal(int number)
{
    received = number;
    for (size_t i = 0; i < signals.size(); ++i) {
        std::signal(signals[i], earlierHandlers[i]);
    }
}

} // namespace

Interruption::Interruption()
{
    received = 0;
    for (size_t i = 0; i < signals.size(); ++i) {
        earlierHandlers[i] = std::signal(signals[i], noteSignal);
    }
    for (size_t i = 0; i < signals.size(); ++i) {
        // What the caller ignores stays ignored, such as SIGINT in the background.
        if (earlierHandlers[i] == SIG_IGN) {
            std::signal(signals[i], SIG_IGN);
        }
    }
}

Interruption::~Interruption()
{
    for (size_t i = 0; i < signals.size(); ++i) {
        std::signal(signals[i], earlierHandlers[i]);
    }
}

bool Interruption::isRequested()
{
    return received != 0;
}

void Interruption::endProgram()
{
    // The signal restored the handlers.
    std::raise(received);
    std::abort();
}

} // namespace Morvane::Qel::App
