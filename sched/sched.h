// The scheduler: runs commands at the times of a cron-like schedule file.
//
// One state per process, driven from the main loop's thread. Times are seconds since the epoch;
// schedules are judged in local time.
#pragma once

#include "core/fwd.h"

// Loads the schedule file of the option scheduler_file, plans the current hour and registers
// "/admin/sched/rescan" and "/admin/sched/dump". A second call replaces the state.
void scheduler_init(shttpd_ctx* ctx);

// Starts what is due in the current minute, on the first call also the kickoff entries. Call it at
// least once a minute, and at once when sched_is_behind(). Returns the seconds until there is work
// again; 0 before scheduler_init.
int sched_check_run(shttpd_ctx* ctx);

// The last check had more to do than fits one pass.
bool sched_is_behind();

// Frees the state. The daemon keeps it until the process ends; tests call this.
void sched_fini();
