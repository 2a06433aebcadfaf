// Bounds the time that logins take of one pass: once the authentication library has had 10 ms of
// it, whoever would ask next does so in the following passes, in the order of arrival.
#pragma once

#include <cstdint>

#include "core/fwd.h"

// Whether the connection may ask the library in this visit. If not, it has a place in the queue,
// and is visited in the next pass, which does not wait.
[[nodiscard]] bool login_turn(conn* c);

// Gives the place in the queue up; the end of a connection does.
void leave_login_queue(conn* c);

// Measures one call of the library, for as long as the object lives.
class login_timer {
  public:
    login_timer();
    login_timer(const login_timer&) = delete;
    login_timer& operator=(const login_timer&) = delete;
    login_timer(login_timer&&) = delete;
    login_timer& operator=(login_timer&&) = delete;
    ~login_timer();

  private:
    std::int64_t begin_;
};

// A pass begins.
void renew_login_time();
