// The scheduler's engine: which entry runs when, and the maps that hold them.
//
// The functions take the current time as an argument, so that tests can drive them, and give way
// when their share of a pass is used up: what is left is done by the next call. Every entry in
// `timers` is either one of `entries`, or a stray: an entry whose id another entry already
// holds. A stray is known to the timer map alone: it runs at most once.
// Times are seconds since the epoch; schedules are judged in local time.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "core/child.h"
#include "core/fwd.h"
#include "sched/sched_entry.h"

// Starts an entry's command.
using sched_start_fn = child_start (*)(const schedule_entry* entry, const shttpd_ctx* ctx);

// Takes one line for the log.
using sched_log_fn = void (*)(const shttpd_ctx* ctx, const char* line);

struct scheduler_state {
    qz_map* entries = nullptr;            // id -> entry, owned
    qz_map* timers = nullptr;             // sort key -> entry, planned runs, earliest first
    std::vector<schedule_entry*> strays;  // owned
    std::time_t floor = 0;                // the next hour: everything is planned afresh
    int floor_local = 0;                  // what the floor is in local time: tells a new zone
    bool kickoff_pending = true;          // until the first check
    std::time_t previous_check = 0;       // tells that the clock went back

    const shttpd_ctx* ctx = nullptr;  // handed to the next two
    sched_start_fn start = nullptr;
    sched_log_fn log = nullptr;              // null: nothing is logged
    std::int64_t (*clock_us)() = nullptr;    // null: no share is ever used up
    std::int64_t share_us = 10'000;          // what one piece of work may take of a pass
    std::vector<schedule_entry*> unplanned;  // last first: the rest of an hour's planning
    std::vector<std::string> kickoffs;       // last first: the ids that are still to be started
    std::time_t check_time = 0;              // of the check that is not finished; 0: none is
    int lines_left = 0;                      // that this check may log
    int lines_left_out = 0;
};

// The part of a pass that one piece of work may take.
class pass_share {
  public:
    explicit pass_share(const scheduler_state* state);  // null: without an end
    [[nodiscard]] bool used_up() const;

  private:
    std::int64_t (*clock_us_)();
    std::int64_t end_;
};

[[nodiscard]] scheduler_state* new_scheduler_state(sched_start_fn start);
void delete_scheduler_state(scheduler_state* state);  // null is ignored

struct scheduler_deleter {
    void operator()(scheduler_state* state) const { delete_scheduler_state(state); }
};
using scheduler_ptr = std::unique_ptr<scheduler_state, scheduler_deleter>;

// One line for the log, unless the state's lines are used up: then it is counted.
[[gnu::format(printf, 2, 3)]] void log_line(scheduler_state* state, const char* format, ...);

// Takes over an entry and plans it from `now` on.
// Kept: an entry with an id that is loaded already does not replace it, yet its first run is
// planned. False for such a one.
bool add_entry(scheduler_state* state, schedule_entry* entry, std::time_t now);

// Frees the entries of an id, together with their timers.
void remove_entries(scheduler_state* state, const std::string& id);

// Moves the entries of `from` into the state, planned from `now` on.
void move_entries(scheduler_state* state, scheduler_state* from, std::time_t now);

// Gives the state the entries and timers of `fresh`, and those that it had to `fresh`. Runs that
// have passed since they were planned are planned again.
void exchange_entries(scheduler_state* state, scheduler_state* fresh, std::time_t now);

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

// The same without planning anything.
std::time_t next_wakeup(const scheduler_state* state);

// The periodic check: starts the kickoff entries once, and every entry due in the minute of `now`.
// Runs whose minute has passed are dropped, with a line in the log. When the clock went back, or
// local time is another than it was, everything is planned again. False when its share of the pass
// is used up: the next call goes on, in order, as of the same minute.
bool sched_check(scheduler_state* state, std::time_t now);

// Ends the handling of a due or missed entry and plans it again: from the next minute on, or from
// `now` on when `next_minute` is false or the entry has an interval. Unknown ids and entries that
// are not paused are left alone.
void scheduler_resume(scheduler_state* state, const char* id, bool next_minute, std::time_t now);

// The text of the dump endpoint behind `head`.
// Kept: the line "floor" shows the start of the current minute.
std::string dump_schedules(const scheduler_state* state, std::time_t now, std::string head = "");
