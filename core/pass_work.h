// What a pass of the main loop spends on work that takes long and can wait: logins, starts of
// programs, the schedule. Each kind may take 10 ms of a pass, all of them together 15; what is left
// is done in the passes that follow at once. The first piece of a kind is done in every pass,
// however much the others have taken, so that none keeps another out.
//
// Connections do such work in turn, and behind all those in a pass that want nothing of the kind:
// one login costs as much as a thousand small requests.
#pragma once

#include <cstdint>

#include "core/fwd.h"

enum class pass_work : std::uint8_t { logins, starts, schedule };

// Whether the connection may do a piece of such work in this visit; it then gives up its place in
// the queue. If not, it has a place, and is visited again: at the end of this pass, or in the next
// one, which does not wait.
[[nodiscard]] bool take_turn(conn* c, pass_work kind);

// Whether it has a place in that queue.
[[nodiscard]] bool waits_for_turn(const conn* c, pass_work kind);

// Gives the place up, if there is one; the end of a connection does.
void leave_turn_queue(conn* c);

// Whether this pass may do another piece of such work.
[[nodiscard]] bool pass_has_time_for(pass_work kind);

// How long a piece of work that looks at the clock itself may take now, in microseconds.
[[nodiscard]] std::int64_t pass_time_left_us();

// Measures one piece of work, for as long as the object lives.
class pass_work_timer {
  public:
    explicit pass_work_timer(pass_work kind);
    pass_work_timer(const pass_work_timer&) = delete;
    pass_work_timer& operator=(const pass_work_timer&) = delete;
    pass_work_timer(pass_work_timer&&) = delete;
    pass_work_timer& operator=(pass_work_timer&&) = delete;
    ~pass_work_timer();

  private:
    pass_work kind_;
    std::int64_t begin_;
};
