// How often the main loop looks at the schedule, under a driven clock and with a scheduler that
// only counts: this program's own ones take the place of the daemon's.

#include "sched/sched.h"
#include "tests/support/engine_fixture.h"

std::time_t current_time = 0;
std::int64_t monotonic_seconds = 1000;

std::int64_t monotonic_ms() {
    return monotonic_seconds * 1000;
}

std::int64_t monotonic_us() {
    return monotonic_seconds * 1000000;
}

void refresh_clocks() {}

namespace {

int checks = 0;
bool behind = false;

}  // namespace

void scheduler_init(shttpd_ctx* /*ctx*/) {}

int sched_check_run(shttpd_ctx* /*ctx*/) {
    ++checks;
    return 0;
}

bool sched_is_behind() {
    return behind;
}

void sched_fini() {}

namespace {

TEST(Cadence, FirstPassThenEverySeventhOrAfter35Seconds) {
    test_engine engine;
    checks = 0;
    const auto passes_until_check = [&](int seconds_a_pass) {
        const int before = checks;
        int passes = 0;
        do {
            monotonic_seconds += seconds_a_pass;
            engine.poll();
            ++passes;
        } while (checks == before);
        EXPECT_EQ(checks, before + 1);
        return passes;
    };
    EXPECT_EQ(passes_until_check(0), 1);
    // However short a pass is; and an idle daemon's passes last five seconds each.
    for (const int seconds : {0, 1, 5}) {
        EXPECT_EQ(passes_until_check(seconds), 7) << seconds;
    }
    EXPECT_EQ(passes_until_check(6), 6);  // 36 seconds
    EXPECT_EQ(passes_until_check(17), 3);
    EXPECT_EQ(passes_until_check(35), 1);
    EXPECT_EQ(passes_until_check(5), 7) << "the passes are counted from the last check";
    behind = true;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(passes_until_check(0), 1);
    }
    // What is left over does not wait for anybody: the next pass comes at once.
    shttpd_poll(engine.ctx, 600000);
    behind = false;
    shttpd_poll(engine.ctx, 600000);
    EXPECT_EQ(passes_until_check(0), 6) << "one has passed";
}

}  // namespace
