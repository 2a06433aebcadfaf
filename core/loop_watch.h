// Watches how long the passes of the main loop last, and what makes the long ones long. A step is
// what the loop does between two reads of the clock: a visit of a connection, a run of the
// scheduler.
//
// Above 100 ms a pass leaves a line in the error log, at most one a second.
#pragma once

#include "core/fwd.h"

// The wait of a pass has returned. Names are texts that last at least to the end of the pass.
void watch_pass(const char* first_step);

// The step before has ended, and this one begins.
void watch_step(const char* name);

// Whoever knows more of the step that is under way gives it a better name.
void rename_step(const char* name);

// The visit in which a request arrives, until it is known who answers it. Then this tells so,
// unless the step has a better name already.
inline constexpr const char* request_step = "a new request";
void name_request_step(const char* handler);

void watch_pass_end(const shttpd_ctx* ctx);

// One line for the longest pass since the start, when it took more than 20 ms. The record begins
// anew.
void log_longest_pass(const shttpd_ctx* ctx);
