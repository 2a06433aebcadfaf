// Reading the schedule file, at the start and again, and telling the log what was in it.
#pragma once

#include <ctime>
#include <memory>
#include <string>

#include "sched/sched_engine.h"

class schedule_reader;

// Loads `path` and plans each entry from `now` on; with `only_id` (null: all) just the lines of
// that id. A path that is null, can't be opened or is no regular file loads nothing. The log is
// told the bad lines, at most ten of them, and how many entries there are.
void read_schedules(scheduler_state* state, const char* only_id, const char* path, std::time_t now);

// Loads the file again for one known id, or, with an empty or unknown id, everything anew: what was
// there goes on running until the file has been read to its end.
// Kept: an entry that ran in this minute is planned for it once more.
class schedule_rescan {
  public:
    // `path` may be null. Requires: the state outlives the object.
    schedule_rescan(scheduler_state* state, std::string id, const char* path, std::time_t now);
    ~schedule_rescan();
    schedule_rescan(const schedule_rescan&) = delete;
    schedule_rescan& operator=(const schedule_rescan&) = delete;
    schedule_rescan(schedule_rescan&&) = delete;
    schedule_rescan& operator=(schedule_rescan&&) = delete;

    // Does one pass's share of the work, `now` being the time. True when all is done.
    bool go_on(std::time_t now);

  private:
    scheduler_state* state_;
    scheduler_ptr fresh_;                      // what has been read, then what was there before
    std::unique_ptr<schedule_reader> reader_;  // null: the file has been read
    std::string id_;                           // empty: everything
};
