#include <ctime>

#include "core/globals.h"

std::time_t current_time = 0;
std::int64_t monotonic_seconds = 0;

std::int64_t monotonic_us() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

std::int64_t monotonic_ms() {
    return monotonic_us() / 1000;
}

void refresh_clocks() {
    current_time = std::time(nullptr);
    monotonic_seconds = monotonic_ms() / 1000;
}
