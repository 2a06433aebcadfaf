// The process-wide variables, one declaration each.
//
// Only the main thread writes them, exit_flag excepted: signal handlers do, and wake the wait for
// descriptors so that it is noticed at once.
#pragma once

#include <csignal>
#include <cstdint>
#include <ctime>

inline constexpr const char* daemon_version = "2.1.213.0";

// The two clocks, both taken at the start of a pass and again when its wait returns. What is shown
// to people or planned by the calendar reads the first; how long something has lasted is measured
// with the second, which no step of the system's time moves.
extern std::time_t current_time;        // seconds since the epoch
extern std::int64_t monotonic_seconds;  // seconds since some moment before the start
void refresh_clocks();

extern std::uint64_t pass_number;  // grows with every pass of the main loop

// Milliseconds and microseconds of the second clock, read now.
std::int64_t monotonic_ms();
std::int64_t monotonic_us();

extern volatile std::sig_atomic_t exit_flag;  // 0 while running, then the signal that ends it
extern const char* config_file;               // the configuration file to read
extern int tz_offset;                         // printed in access lines; always 0
