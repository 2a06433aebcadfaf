// The process-wide variables, one declaration each.
//
// Only the main thread writes them, exit_flag excepted: signal handlers do, and wake the wait for
// descriptors so that it is noticed at once.
#pragma once

#include <csignal>
#include <ctime>

inline constexpr const char* daemon_version = "2.1.213.0";

extern std::time_t current_time;              // refreshed once per pass of the main loop
extern volatile std::sig_atomic_t exit_flag;  // 0 while running, then the signal that ends it
extern const char* config_file;               // the configuration file to read
extern int tz_offset;                         // printed in access lines; always 0
