#include "core/login_turn.h"

#include "core/connection.h"
#include "core/globals.h"

namespace {

constexpr std::int64_t limit_us = 10000;

std::int64_t used_us = 0;  // in this pass
std::uint64_t next_ticket = 1;
int waiting = 0;

}  // namespace

bool login_turn(conn* c) {
    // Those who wait are visited first, so whoever finds some waiting is behind them.
    if (used_us < limit_us && (c->login_ticket != 0 || waiting == 0)) {
        leave_login_queue(c);
        return true;
    }
    if (c->login_ticket == 0) {
        c->login_ticket = next_ticket++;
        ++waiting;
    }
    visit_soon(c);
    return false;
}

void leave_login_queue(conn* c) {
    if (c->login_ticket != 0) {
        c->login_ticket = 0;
        --waiting;
    }
}

login_timer::login_timer() : begin_(monotonic_us()) {}

login_timer::~login_timer() {
    used_us += monotonic_us() - begin_;
}

void renew_login_time() {
    used_us = 0;
}
