// The library's clock under the control of a test.
#include <atomic>

#include "provider/clock.h"

namespace {
std::atomic<std::int64_t> now_ms = 1'000'000;
std::atomic<std::int64_t> step_ms = 0;
}  // namespace

extern "C" {
// Lets time pass; and lets it pass by itself with every look at the clock.
[[gnu::visibility("default")]] void settable_clock_advance(std::int64_t ms);
[[gnu::visibility("default")]] void settable_clock_step(std::int64_t ms);

void settable_clock_advance(std::int64_t ms) {
    now_ms += ms;
}
void settable_clock_step(std::int64_t ms) {
    step_ms = ms;
}
}

namespace provider {

std::int64_t monotonic_ms() {
    return now_ms += step_ms;
}

}  // namespace provider
