// The scheduler's engine: plans entries within the current hour and starts them when they are due.
//
// Every function takes the time from its caller and reads no clock, so time can be driven. The
// state owns its entries: those of the entry map, and the strays, later lines with an id that the
// map already holds. A stray is known to the timer map alone: it runs at most once.
// Times are seconds since the epoch; schedules are judged in local time.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>
#include <vector>

#include "core/fwd.h"
#include "sched/sched_entry.h"

// Starts an entry's command; returns the child's process id or -1.
using sched_start_fn = pid_t (*)(const schedule_entry* entry, const shttpd_ctx* ctx);

struct scheduler_state {
    qz_map* entries = nullptr;            // id -> entry, owned
    qz_map* timers = nullptr;             // sort key -> entry, planned runs, earliest first
    std::vector<schedule_entry*> strays;  // owned
    std::time_t floor = 0;                // the next hour: everything is planned afresh
    bool kickoff_pending = true;          // until the first check
    std::time_t previous_check = 0;       // tells that the clock went back
    sched_start_fn start = nullptr;
};

[[nodiscard]] scheduler_state* new_scheduler_state(sched_start_fn start);
void delete_scheduler_state(scheduler_state* state);  // null is ignored

// Loads `path` and plans each entry from `now` on; with `only_id` (null: all) just the lines of
// that id. A path that is null, can't be opened or is no regular file loads nothing.
// Kept: a line with an id that is loaded already does not replace it, yet its first run is planned.
void read_schedules(scheduler_state* state, const char* only_id, const char* path, std::time_t now);

// Loads the file again for one known id, or, with an empty or unknown id, everything anew.
// Kept: an entry that ran in this minute is planned for it once more.
void rescan_schedules(scheduler_state* state, const std::string& id, const char* path,
                      std::time_t now);

// Plans one entry's next run at or after `t`, within the hour of `t` unless it is an interval
// entry. Returns 1 when it was put into the timer map; 0 when it is paused, planned already, not
// due in this hour (next is 0), or its sort key is taken.
int timer_add(scheduler_state* state, schedule_entry* entry, std::time_t t);

// Plans every entry in id order. A minute in which an entry has been started already is passed
// over, so a clock that is set back a little starts nothing twice.
void timer_add_all(scheduler_state* state, std::time_t t);

// The start of t's minute in local time.
std::time_t min_floor(std::time_t t);

// The time at which there is work next, at most the next full hour. Plans the hour of `now` when it
// has not been planned yet.
std::time_t calc_next_wakeup(scheduler_state* state, std::time_t now);

// The periodic check: starts the kickoff entries once, and every entry due in the minute of `now`.
// Runs whose minute has passed are dropped. When the clock went back everything is planned again.
void sched_check(scheduler_state* state, const shttpd_ctx* ctx, std::time_t now);

// Ends the handling of a due or missed entry and plans it again: from the next minute on, or from
// `now` on when `next_minute` is false or the entry has an interval. Unknown ids and entries that
// are not paused are left alone.
void scheduler_resume(scheduler_state* state, const char* id, bool next_minute, std::time_t now);

// The text of the dump endpoint without its HTTP head.
// Kept: the line "floor" shows the start of the current minute.
std::string dump_schedules(const scheduler_state* state, std::time_t now);
