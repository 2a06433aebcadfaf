// Visits at a moment that no descriptor announces: the end of a time-out, mostly.
#pragma once

#include <cstdint>

#include "core/fwd.h"

// One wish of one connection; it ends with the object. Main thread only.
class visit_timer {
  public:
    visit_timer() = default;
    visit_timer(const visit_timer&) = delete;
    visit_timer& operator=(const visit_timer&) = delete;
    ~visit_timer() { clear(); }

    // Has the connection visited once, when monotonic_ms() has reached the moment or little later.
    // Takes the place of what was set before. The connection must outlive the wish.
    void set(conn* c, std::int64_t moment_ms);
    void clear();

  private:
    friend void visit_at_their_moments();

    conn* connection_ = nullptr;  // null: not set
    std::int64_t moment_ms_ = 0;
};

// How long a wait of `timeout_ms` may last at most, so that no moment is missed.
int wait_for_next_moment(int timeout_ms);

// Calls visit_soon() for the connections whose moments have come.
void visit_at_their_moments();
