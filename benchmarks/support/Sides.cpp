#include "support/Sides.h"

#include <algorithm>
#include <chrono>
#include <vector>

#include <epoxy/gl.h>

#include <Qel/gl/OpenGLDeviceContext.h>

namespace Morvane::Qel::Bench {

namespace {

double microseconds(Wait wait, const std::function<void()>& prepare, const std::function<void()>& side)
{
    prepare();
    const auto start = std::chrono::steady_clock::now();
    side();
    if (wait == Wait::Pixels) {
        glFinish();
    }
    const std::chrono::duration<double, std::micro> elapsed = std::chrono::steady_clock::now() - start;
    // Work still queued must not count towards the other side.
    glFinish();
    return elapsed.count();
}

} // namespace

double median(std::vector<double>& values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void compareSides(benchmark::State& state, Wait wait, const std::function<void()>& library,
                  const std::function<void()>& plainGL, const std::function<void()>& prepare)
{
    constexpr int warmUps = 3;
    for (int i = 0; i < warmUps; ++i) {
        microseconds(wait, prepare, library);
        microseconds(wait, prepare, plainGL);
    }
    std::vector<double> libraryTimes;
    std::vector<double> plainTimes;
    for ([[maybe_unused]] auto iteration : state) {
        // The sides also alternate in which one runs first.
        if (libraryTimes.size() % 2 == 0) {
            libraryTimes.push_back(microseconds(wait, prepare, library));
            plainTimes.push_back(microseconds(wait, prepare, plainGL));
        } else {
            plainTimes.push_back(microseconds(wait, prepare, plainGL));
            libraryTimes.push_back(microseconds(wait, prepare, library));
        }
    }
    // The plain GL objects still bound here may be deleted next.
    glUseProgram(0);
    glBindVertexArray(0);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    OpenGLDeviceContext::current()->makeCurrent();
    const double libraryMedian = median(libraryTimes);
    const double plainMedian = median(plainTimes);
    state.counters["library_us"] = libraryMedian;
    state.counters["plain_gl_us"] = plainMedian;
    state.counters["ratio"] = libraryMedian / plainMedian;
}

} // namespace Morvane::Qel::Bench
