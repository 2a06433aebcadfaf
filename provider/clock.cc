#include "provider/clock.h"

#include <ctime>

namespace provider {

std::int64_t monotonic_ms() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail with this clock
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace provider
