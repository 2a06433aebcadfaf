#include "core/pass_work.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <numeric>

#include "core/connection.h"
#include "core/globals.h"

namespace {

constexpr std::int64_t kind_limit_us = 10'000;
constexpr std::int64_t pass_limit_us = 15'000;
constexpr std::int64_t least_share_us = 3'000;
constexpr std::size_t kinds = 3;

struct {
    std::uint64_t pass = 0;
    std::array<std::int64_t, kinds> us{};
} used;

std::uint64_t next_ticket = 1;
std::array<int, kinds> waiting{};

std::size_t index_of(pass_work kind) {
    return static_cast<std::size_t>(kind);
}

// What the kinds have taken of the pass that is under way.
std::array<std::int64_t, kinds>& used_now() {
    if (used.pass != pass_number) {
        used = {.pass = pass_number};
    }
    return used.us;
}

std::int64_t sum_of(const std::array<std::int64_t, kinds>& us) {
    return std::accumulate(us.begin(), us.end(), std::int64_t{0});
}

}  // namespace

bool take_turn(conn* c, pass_work kind) {
    const bool is_new = c->turn_ticket == 0;
    const bool comes_later = is_new && (waiting[index_of(kind)] > 0 || others_are_due());
    if (!comes_later && pass_has_time_for(kind)) {
        leave_turn_queue(c);
        return true;
    }
    if (is_new) {
        c->turn_ticket = next_ticket++;
        c->turn_kind = kind;
        ++waiting[index_of(kind)];
        visit_last(c);
    } else {
        visit_soon(c);
    }
    return false;
}

bool waits_for_turn(const conn* c, pass_work kind) {
    return c->turn_ticket != 0 && c->turn_kind == kind;
}

void leave_turn_queue(conn* c) {
    if (c->turn_ticket != 0) {
        c->turn_ticket = 0;
        --waiting[index_of(c->turn_kind)];
    }
}

bool pass_has_time_for(pass_work kind) {
    const auto& us = used_now();
    const std::int64_t own = us[index_of(kind)];
    return own == 0 || (own < kind_limit_us && sum_of(us) < pass_limit_us);
}

std::int64_t pass_time_left_us() {
    return std::clamp(pass_limit_us - sum_of(used_now()), least_share_us, kind_limit_us);
}

pass_work_timer::pass_work_timer(pass_work kind) : kind_(kind), begin_(monotonic_us()) {}

pass_work_timer::~pass_work_timer() {
    used_now()[index_of(kind_)] += monotonic_us() - begin_;
}
