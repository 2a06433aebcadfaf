// What the library has to say: files and lines that it refuses, handshakes that fail.
//
// Nothing that is reported ever holds a password, a hash or a key. All functions are thread-safe.
#pragma once

#include "security/at_types.h"

namespace provider {

// Hands one line to the daemon's log, and to the debug file (MOLBat_API_DEBUG_FILE, else standard
// error) when MOLBat_API_DEBUG_LEVEL is at least `level`. Bytes that could break or disguise a line
// are written as \xNN.
[[gnu::format(printf, 2, 3)]] void report(at_log_level level, const char* format, ...);

// Prints "dovmad: " and one line on standard error, for whoever starts the daemon while no log is
// open yet. Not when standard error is a client's connection, as under inetd.
[[gnu::format(printf, 1, 2)]] void print_at_start(const char* format, ...);

// Where lines go from now on; null: nowhere. The first function given also gets the lines of the
// time before, up to a few dozen: a start has something to say before its log is open.
void set_log(molb_log_function function);

}  // namespace provider
