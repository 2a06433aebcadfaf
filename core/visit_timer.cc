#include "core/visit_timer.h"

#include <algorithm>
#include <set>
#include <utility>

#include "core/connection.h"
#include "core/globals.h"

namespace {

// By their moments. Not a member of anything: timers are parts of records all over the daemon.
std::set<std::pair<std::int64_t, visit_timer*>> pending;

}  // namespace

void visit_timer::set(conn* c, std::int64_t moment_ms) {
    clear();
    connection_ = c;
    moment_ms_ = moment_ms;
    pending.emplace(moment_ms, this);
}

void visit_timer::clear() {
    if (connection_ != nullptr) {
        pending.erase({moment_ms_, this});
        connection_ = nullptr;
    }
}

int wait_for_next_moment(int timeout_ms) {
    if (pending.empty()) {
        return timeout_ms;
    }
    const std::int64_t left = std::max<std::int64_t>(0, pending.begin()->first - monotonic_ms());
    return timeout_ms < 0 ? static_cast<int>(left)
                          : static_cast<int>(std::min<std::int64_t>(left, timeout_ms));
}

void visit_at_their_moments() {
    if (pending.empty()) {
        return;
    }
    const std::int64_t now = monotonic_ms();
    while (!pending.empty() && pending.begin()->first <= now) {
        visit_timer* timer = pending.begin()->second;
        visit_soon(timer->connection_);
        timer->clear();
    }
}
