// The shim's debug stream: nothing at level 0, more with every level. No password or credential is
// ever written to it.
#pragma once

// A message's level and the line that writes it.
struct debug_level {
    // Implicit on purpose: call sites read debug(2, "...").
    debug_level(int wanted, int at_line = __builtin_LINE()) : level(wanted), line(at_line) {}
    int level;
    int line;
};

// Writes "api(LINE) " and the formatted text when the configured level is at least the message's.
[[gnu::format(printf, 2, 3)]] void debug(debug_level level, const char* format, ...);

// "Calling NAME" at level 4.
void debug_call(const char* name);

// Reads MOLBat_API_DEBUG_LEVEL and MOLBat_API_DEBUG_FILE.
void debug_configure();
