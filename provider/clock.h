// The clock behind every limit of the library. Tests link another definition of this one function.
#pragma once

#include <cstdint>

namespace provider {

// Milliseconds that never go backwards, from an arbitrary start. Setting the host's clock does not
// touch them, so it neither opens nor prolongs a lock-out.
std::int64_t monotonic_ms();

}  // namespace provider
