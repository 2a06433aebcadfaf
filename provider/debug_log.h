// Messages for whoever looks for a fault: off unless MOLBat_API_DEBUG_LEVEL asks for them.
#pragma once

namespace provider {

// Writes one line when the debug level is at least `level`, to the file that MOLBat_API_DEBUG_FILE
// names, else to standard error. Never called with a password, a hash or a key. Thread-safe.
[[gnu::format(printf, 2, 3)]] void debug_log(int level, const char* format, ...);

}  // namespace provider
