// The scheduler's engine under a driven clock: planning against another implementation's table, two
// days of checks that must start every planned minute exactly once, and clocks that jump.

#include "sched/sched_engine.h"

#include "lib/rbtree.h"
#include "sched/sched.h"
#include "sched/sched_file.h"
#include "tests/support/engine_fixture.h"

namespace {

constexpr std::time_t half_past_ten = 1750069800;  // 2025-06-16 10:30:00 UTC, a Monday
constexpr const char* berlin = "CET-1CEST,M3.5.0,M10.5.0/3";

using texts = std::vector<std::string>;

texts started;  // the ids, since somebody has cleared it
texts logged;

child_start record_start(const schedule_entry* entry, const shttpd_ctx* /*ctx*/) {
    started.push_back(entry->id);
    if (entry->command.starts_with("/none")) {
        return {.pid = 1, .failed = child_step::execute, .error = ENOENT};
    }
    return {.pid = 1};
}

void record_line(const shttpd_ctx* /*ctx*/, const char* line) {
    logged.emplace_back(line);
}

// A clock that goes on by two milliseconds whenever it is looked at: seven looks and a share is
// used up.
std::int64_t hasty_clock() {
    static std::int64_t now = 0;
    return now += 2000;
}

void use_zone(const char* rule) {
    setenv("TZ", rule, 1);
    tzset();
}

using state_ptr = std::unique_ptr<scheduler_state, void (*)(scheduler_state*)>;

// A scheduler that is driven by hand.
class driven_scheduler {
  public:
    driven_scheduler(const std::string& lines, std::time_t at)
        : state_(new_scheduler_state(record_start), delete_scheduler_state) {
        edit(lines);
        logged.clear();
        state_->log = record_line;
        read_schedules(state_.get(), nullptr, path_.c_str(), at);
        state_->floor = at;
        (void)calc_next_wakeup(state_.get(), at);
    }

    [[nodiscard]] const std::string& path() const { return path_; }
    void edit(const std::string& lines) { path_ = folder_.write("jobs", lines); }
    void rescan(const std::string& id, std::time_t at) {
        schedule_rescan rescan(state_.get(), id, path_.c_str(), at);
        EXPECT_TRUE(rescan.go_on(at));
    }
    // One periodic check; the ids that it started.
    texts check(std::time_t at) {
        started.clear();
        EXPECT_TRUE(sched_check(state_.get(), at));
        EXPECT_LE(calc_next_wakeup(state_.get(), at), at + 3600);
        return started;
    }
    [[nodiscard]] std::time_t next(const char* id) const {
        const auto* entry = qz_as<schedule_entry>(qz_map_find(state_->entries, id));
        return entry != nullptr ? entry->next : -1;
    }
    [[nodiscard]] scheduler_state* state() const { return state_.get(); }
    // The lines logged since the last call, without the file's path.
    texts lines() {
        for (std::string& line : logged) {
            if (const std::size_t at = line.find(path_); at != std::string::npos) {
                line.replace(at, path_.size(), "F");
            }
        }
        return std::exchange(logged, {});
    }

  private:
    temporary_folder folder_;
    std::string path_;
    state_ptr state_;
};

struct scheduler_engine : testing::Test {
    scheduler_engine() { use_zone("UTC0"); }
};

// The runs of one expression from a moment on, found by following the wake-up times.
std::vector<long> planned_minutes(const std::string& expression, std::time_t start,
                                  std::size_t count) {
    driven_scheduler scheduler("job - " + expression + " cmd\n", start);
    scheduler_state* state = scheduler.state();
    auto* entry = qz_as<schedule_entry>(qz_map_find(state->entries, "job"));
    std::vector<long> found;
    const std::time_t first = start - start % 60;
    const std::time_t end = start + std::time_t{299} * 86400;
    for (std::time_t now = start; entry != nullptr && found.size() < count && now < end;) {
        if (entry->next != 0) {
            now = entry->next;
            found.push_back((now - first) / 60);
            (void)qz_map_delete(state->timers, entry->sortkey);
            now += 60;
            (void)timer_add(state, entry, now);
            state->floor = now;  // the engine finds out itself whether the hour is another one
        } else {
            now = state->floor;
        }
        (void)calc_next_wakeup(state, now);
    }
    return found;
}

TEST(Planning, AgreesWithTheTable) {
    std::ifstream table(PLANNING_TABLE);
    ASSERT_TRUE(table);
    std::size_t rows = 0;
    for (std::string line; std::getline(table, line);) {
        if (line.starts_with('#')) {
            continue;
        }
        std::istringstream fields(line);
        std::string zone, start, expression;
        std::getline(fields, zone, '|');
        std::getline(fields, start, '|');
        std::getline(fields, expression, '|');
        std::vector<long> expected;
        for (long minute = 0; fields >> minute;) {
            if (minute < 299L * 1440) {
                expected.push_back(minute);
            }
        }
        use_zone(zone.c_str());
        EXPECT_EQ(planned_minutes(expression, std::stol(start), 6), expected) << line;
        ++rows;
    }
    EXPECT_GT(rows, 400U);
}

struct matcher_row {
    const char* id;
    const char* times;
    bool (*matches)(const std::tm&);
};

const std::vector<matcher_row> simulated = {
    {"every", "* * * * *", [](const std::tm&) { return true; }},
    {"hourly", "0 * * * *", [](const std::tm& t) { return t.tm_min == 0; }},
    {"edges", "58-59,0-1 * * * *", [](const std::tm& t) { return (t.tm_min + 2) % 60 < 4; }},
    {"night", "0-30/15 2 * * *",
     [](const std::tm& t) { return t.tm_hour == 2 && t.tm_min <= 30 && t.tm_min % 15 == 0; }},
    {"either", "5 3 30 * mon",
     [](const std::tm& t) {
         return (t.tm_mday == 30 || t.tm_wday == 1) && t.tm_hour == 3 && t.tm_min == 5;
     }},
};

// How often each id was started in each minute.
using start_counts = std::map<std::pair<std::string, std::time_t>, int>;

start_counts expected_starts(std::time_t from, std::time_t to) {
    start_counts counts;
    for (std::time_t minute = from; minute < to; minute += 60) {
        std::tm local{};
        localtime_r(&minute, &local);
        for (const matcher_row& row : simulated) {
            if (row.matches(local)) {
                counts[{row.id, minute}] = 1;
            }
        }
    }
    return counts;
}

// Checks come every `shortest` to `longest` seconds from a random second on.
start_counts simulate(std::time_t from, std::time_t to, int shortest, int longest,
                      std::mt19937* random) {
    std::uniform_int_distribution<int> pause(shortest, longest);
    std::uniform_int_distribution<int> phase(0, 34);
    std::time_t now = from + phase(*random);
    std::string lines;
    for (const matcher_row& row : simulated) {
        lines += std::string(row.id) + " - " + row.times + " cmd\n";
    }
    driven_scheduler scheduler(lines, now);
    start_counts counts;
    for (; now < to; now += pause(*random)) {
        for (const std::string& id : scheduler.check(now)) {
            ++counts[{id, min_floor(now)}];
        }
    }
    return counts;
}

TEST(Simulation, EveryPlannedMinuteStartsExactlyOnce) {
    // 48 hours over a plain week end, over the spring change and over the autumn change.
    for (const std::time_t from : {1750032000, 1711753200, 1729893600}) {
        use_zone(berlin);
        const std::time_t to = from + std::time_t{48} * 3600;
        const start_counts expected = expected_starts(from, to);
        std::mt19937 random(7);
        for (int run = 0; run < 15; ++run) {
            EXPECT_EQ(simulate(from, to, 35, 35, &random), expected) << from << " run " << run;
        }
        EXPECT_EQ(simulate(from, to, 1, 59, &random), expected) << from << " uneven";
    }
}

TEST_F(scheduler_engine, PlansWithinTheHour) {
    const std::time_t ten = half_past_ten - 1800;
    driven_scheduler past("job - 5 * * * * cmd\n", half_past_ten);
    EXPECT_EQ(past.next("job"), 0);
    EXPECT_EQ(past.state()->floor, ten + 3600);
    EXPECT_EQ(past.check(ten + 3600 + 12), texts{});
    EXPECT_EQ(past.next("job"), ten + 3600 + 300);

    // A start in the last second of an hour plans that hour, and the next one when it comes.
    driven_scheduler late("job - 0,59 * * * * cmd\n", ten + 3599);
    EXPECT_EQ(late.check(ten + 3599), texts{"job"});
    EXPECT_EQ(late.check(ten + 3601), texts{"job"});
}

TEST_F(scheduler_engine, StartsInOrderOfTimeThenId) {
    driven_scheduler scheduler(
        "b - 30 * * * * cmd\na - 30 * * * * cmd\nc - 29 * * * * cmd\nd - * * * * * cmd\n",
        half_past_ten);
    EXPECT_EQ(scheduler.check(half_past_ten + 3), (texts{"a", "b", "d"}));
}

TEST_F(scheduler_engine, IntervalsCountFromThePlanning) {
    const std::time_t at = half_past_ten + 30;
    driven_scheduler scheduler("five - 5 - x x x cmd\nnever - 0 - x x x cmd\n", at);
    EXPECT_EQ(scheduler.next("five"), at + 300);
    EXPECT_EQ(scheduler.next("never"), 0);
    EXPECT_EQ(scheduler.check(at + 260), texts{});
    EXPECT_EQ(scheduler.check(at + 272), texts{"five"});  // earlier in the same minute
    EXPECT_EQ(scheduler.next("five"), at + 272 + 300);
    EXPECT_EQ(scheduler.check(at + 2000), texts{});  // missed: not made up
    EXPECT_EQ(scheduler.next("five"), at + 2300);

    // Intervals of centuries would come before everything else in the order of the keys.
    driven_scheduler huge("huge - 200000000 - x x x cmd\njob - * * * * * cmd\n", half_past_ten);
    EXPECT_EQ(huge.next("huge"), 0);
    EXPECT_EQ(huge.check(half_past_ten), texts{"job"});
}

TEST_F(scheduler_engine, KickoffOnceAndOnlyKnownEntries) {
    const std::string lines =
        "z kickoff - - x x x cmd\na kickoff 30 * * * * cmd\nb - - - x x x cmd\n";
    driven_scheduler scheduler(lines, half_past_ten);
    EXPECT_EQ(scheduler.check(half_past_ten), (texts{"a", "z", "a"}));
    EXPECT_EQ(scheduler.check(half_past_ten + 5), texts{});
    scheduler.rescan("", half_past_ten + 10);
    EXPECT_EQ(scheduler.check(half_past_ten + 15), texts{"a"});  // loaded anew in its minute
}

TEST_F(scheduler_engine, ClockForward) {
    driven_scheduler scheduler("every - * * * * * cmd\nquarter - */15 * * * * cmd\n",
                               half_past_ten + 60);
    EXPECT_EQ(scheduler.check(half_past_ten + 65), texts{"every"});
    // 10:45 has passed without a check, the current minute has not.
    EXPECT_EQ(scheduler.check(half_past_ten + 970), texts{"every"});
    EXPECT_EQ(scheduler.next("quarter"), 0);
    EXPECT_EQ(scheduler.check(half_past_ten + 1801), (texts{"every", "quarter"}));
}

TEST_F(scheduler_engine, ClockBackward) {
    const std::string lines = "every - * * * * * cmd\nten - 10 * * * * cmd\n";
    driven_scheduler scheduler(lines, half_past_ten);
    EXPECT_EQ(scheduler.check(half_past_ten + 1), texts{"every"});
    EXPECT_EQ(scheduler.check(half_past_ten), texts{});  // a second back: once is enough
    EXPECT_EQ(scheduler.check(half_past_ten + 58), texts{});
    EXPECT_EQ(scheduler.check(half_past_ten + 61), texts{"every"});

    // From 12:10 back to 11:10: this hour is planned again and so are the ones after it.
    const std::time_t noon = half_past_ten + 5400;
    EXPECT_EQ(scheduler.check(noon + 600), (texts{"every", "ten"}));
    EXPECT_EQ(scheduler.check(noon - 3000), (texts{"every", "ten"}));
    EXPECT_EQ(scheduler.check(noon + 2), texts{"every"});
    EXPECT_EQ(scheduler.next("ten"), noon + 600);
}

TEST_F(scheduler_engine, RepeatedIdsRunOnceAndGoWithTheirId) {
    const std::string lines = "a - 31 * * * * one\na - 32 * * * * two\na - 31 * * * * three\n";
    driven_scheduler scheduler(lines, half_past_ten);
    EXPECT_EQ(qz_map_size(scheduler.state()->entries), 1);
    EXPECT_EQ(scheduler.state()->strays.size(), 2U);
    EXPECT_EQ(scheduler.check(half_past_ten + 61), texts{"a"});
    EXPECT_EQ(scheduler.check(half_past_ten + 121), texts{"a"});
    EXPECT_EQ(scheduler.check(half_past_ten + 3600 + 61), texts{"a"});
    EXPECT_EQ(scheduler.check(half_past_ten + 3600 + 121), texts{});

    for (const char* id : {"a", ""}) {
        driven_scheduler again(lines, half_past_ten);
        again.edit("a - 40 * * * * four\n");
        again.rescan(id, half_past_ten + 1);
        EXPECT_TRUE(again.state()->strays.empty());
        EXPECT_EQ(qz_map_size(again.state()->timers), 1);
        EXPECT_EQ(again.check(half_past_ten + 61), texts{});
    }
}

TEST_F(scheduler_engine, LongIdsMayCollide) {
    const std::string same(52, 'x');
    driven_scheduler scheduler(same + "1 - 31 * * * * cmd\n" + same + "2 - 31 * * * * cmd\n",
                               half_past_ten);
    EXPECT_EQ(scheduler.next((same + "2").c_str()), 0);
    scheduler.edit("");
    scheduler.rescan(same + "2", half_past_ten + 1);  // must leave the other one's timer alone
    EXPECT_EQ(scheduler.check(half_past_ten + 61), texts{same + "1"});
}

TEST_F(scheduler_engine, LongLinesComeInPieces) {
    const std::string tail = "piece - 31 * * * * cmd";
    const std::string head = "long - 31 * * * * " + std::string(1023 - 18, 'c');
    ASSERT_EQ(head.size(), 1023U);
    driven_scheduler scheduler(head + tail + "\n" + head + "\nlast - 31 * * * * no_newline",
                               half_past_ten);
    // The line that comes twice is refused the second time: its sort key is taken.
    EXPECT_EQ(scheduler.check(half_past_ten + 61), (texts{"last", "long", "piece"}));
}

TEST_F(scheduler_engine, BadLinesAreToldWithTheirNumberIdAndField) {
    using namespace std::string_literals;
    const std::string good = "good - 31 * * * * cmd\n";
    driven_scheduler scheduler("# a comment\n\n \t\r\n" + good + "min - 60 * * * * cmd\n" +
                                   "day - 0 0 32 * * cmd\np pause 60 * * * * cmd\n" +
                                   "every - x - * * * cmd\nshort - 1 2 3\ntab\t- * * * * * c\n" +
                                   std::string(3000, 'l') + "\nend - 0 0 * * fry cmd\n" + good +
                                   "cr - 5 * * * * cmd\r\n" + "zero - 5 * * * * cmd\0x\n"s,
                               half_past_ten);
    EXPECT_EQ(scheduler.lines(),
              (texts{"schedule F:5: job min: bad minute", "schedule F:6: job day: bad day of month",
                     "schedule F:8: job every: bad minute", "schedule F:9: job short: no month",
                     "schedule F:10: job tab\t-: no command",
                     "schedule F:11: job " + std::string(64, 'l') + ": no flags",
                     "schedule F:12: job end: bad day of week",
                     "schedule F:13: job good: the id is taken, so this line runs once at most",
                     "schedule F:15: job zero: a zero byte ends the command",
                     "schedule F, line 14: the carriage return at the end belongs to the command",
                     "schedule F: 4 entries, 7 lines not loaded"}));
    std::string many;
    for (int i = 0; i < 1000; ++i) {
        many += "bad\n";
    }
    scheduler.edit(good + many);
    scheduler.rescan("good", half_past_ten);
    EXPECT_EQ(scheduler.lines(), texts{"schedule F: 1 entries of job good, 0 lines not loaded"});
    scheduler.rescan("", half_past_ten);
    const texts told = scheduler.lines();
    EXPECT_EQ(told.size(), 11U);
    EXPECT_EQ(told.back(), "schedule F: 1 entries, 1000 lines not loaded");
}

TEST_F(scheduler_engine, MissedMinutesAndFailedStartsAreTold) {
    driven_scheduler scheduler(
        "a - 31 * * * * cmd\nb - 31-32 * * * * /none/such x\ni - 5 - x x x cmd\n", half_past_ten);
    (void)scheduler.lines();
    EXPECT_EQ(scheduler.check(half_past_ten + 61), (texts{"a", "b"}));
    EXPECT_EQ(scheduler.lines(), texts{"sched: job b could not be started: /none/such: No such "
                                       "file or directory"});
    EXPECT_EQ(scheduler.check(half_past_ten + 599), texts{});
    EXPECT_EQ(
        scheduler.lines(),
        (texts{"sched: nothing was run from 2025-06-16 10:32 to 2025-06-16 10:39",
               "sched: job b missed 2025-06-16 10:32", "sched: job i missed 2025-06-16 10:35"}));
    EXPECT_EQ(scheduler.check(half_past_ten + 4 * 3600 + 65), (texts{"a", "b"}));
    EXPECT_EQ(scheduler.lines(),
              (texts{"sched: nothing was run from 2025-06-16 10:40 to 2025-06-16 14:31",
                     "sched: job i missed 2025-06-16 10:44",
                     "sched: job b could not be started: /none/such: No such file or directory"}));
    std::string many;
    for (int i = 1000; i < 1100; ++i) {
        many += std::to_string(i) + " - 40 * * * * /none\n";
    }
    scheduler.edit(many);
    scheduler.rescan("", half_past_ten + 4 * 3600 + 70);
    (void)scheduler.lines();
    EXPECT_EQ(scheduler.check(half_past_ten + 4 * 3600 + 601).size(), 100U);
    EXPECT_EQ(scheduler.lines().back(), "sched: 91 more lines like these");
}

TEST_F(scheduler_engine, MoreThanOnePassCanStartGoesOnInOrder) {
    std::string lines = "early kickoff 30 * * * * cmd\n";
    texts all = {"early"};
    for (int i = 100; i < 150; ++i) {
        lines += std::to_string(i) + " - * * * * * cmd\n";
        all.push_back(std::to_string(i));
    }
    all.emplace_back("early");
    driven_scheduler scheduler(lines, half_past_ten);
    scheduler.state()->clock_us = hasty_clock;
    started.clear();
    int passes = 1;
    // The minute is over long before the last one is started.
    for (std::time_t now = half_past_ten; !sched_check(scheduler.state(), now); now += 20) {
        EXPECT_LE(started.size(), 7U * static_cast<std::size_t>(passes));
        ++passes;
    }
    EXPECT_GE(passes, 8);
    EXPECT_EQ(started, all);
    EXPECT_EQ(scheduler.next("100"), half_past_ten + 60);
}

TEST_F(scheduler_engine, LongFilesAreReadWhileTheOldEntriesGoOn) {
    std::string lines;
    for (int i = 10000; i < 12000; ++i) {
        lines += std::to_string(i) + " - 31 * * * * cmd\n";
    }
    driven_scheduler scheduler("old - * * * * * cmd\n", half_past_ten);
    scheduler.edit(lines);
    const std::string path = scheduler.path();
    scheduler.state()->clock_us = hasty_clock;
    for (const std::int32_t before : {0, 1, 2000}) {  // 0: abandoned
        schedule_rescan rescan(scheduler.state(), "", path.c_str(), half_past_ten);
        for (int i = 0; i < 3; ++i) {
            EXPECT_FALSE(rescan.go_on(half_past_ten + 1));
        }
        EXPECT_EQ(qz_map_size(scheduler.state()->entries), std::max(before, 1));
        while (before > 0 && !rescan.go_on(half_past_ten + 1)) {
        }
    }
    EXPECT_EQ(qz_map_size(scheduler.state()->entries), 2000);
    // The hour is planned in slices, too, and none is left out.
    scheduler.state()->clock_us = nullptr;
    EXPECT_EQ(scheduler.check(half_past_ten + 65).size(), 2000U);
    scheduler.state()->clock_us = hasty_clock;
    started.clear();
    int passes = 0;
    while (!sched_check(scheduler.state(), half_past_ten + 3665)) {
        EXPECT_TRUE(started.empty() || scheduler.state()->unplanned.empty());
        ++passes;
    }
    EXPECT_EQ(started.size(), 2000U);
    EXPECT_TRUE(std::is_sorted(started.begin(), started.end()));
    EXPECT_GT(passes, 4);
}

TEST_F(scheduler_engine, AnotherZoneCountsAtOnce) {
    driven_scheduler scheduler(
        "every - * * * * * cmd\nhalf - 30 12 * * * cmd\nlate - 45 10 * * * cmd\ni - 9 - x x x c\n",
        half_past_ten);
    EXPECT_EQ(scheduler.check(half_past_ten + 1), texts{"every"});
    use_zone("EET-2");  // half past twelve
    EXPECT_EQ(scheduler.check(half_past_ten + 2), texts{"half"}) << "and nothing twice";
    EXPECT_EQ(scheduler.next("late"), 0);
    EXPECT_EQ(scheduler.next("i"), half_past_ten + 540);
    use_zone("IST-5:30");  // full hours at half past
    EXPECT_EQ(scheduler.check(half_past_ten + 61), texts{"every"});
    EXPECT_EQ(calc_next_wakeup(scheduler.state(), half_past_ten + 62), half_past_ten + 120);
    EXPECT_EQ(scheduler.state()->floor, half_past_ten + 3600);
    // A daemon asks the C library for the zone itself.
    test_engine engine;
    setenv("TZ", "JST-9", 1);
    (void)sched_check_run(engine.ctx);
    EXPECT_STREQ(tzname[0], "JST");
}

TEST_F(scheduler_engine, NothingToRead) {
    for (const char* path : {static_cast<const char*>(nullptr), "/nonexistent", "/", "/dev/zero"}) {
        const state_ptr state(new_scheduler_state(record_start), delete_scheduler_state);
        state->log = record_line;
        logged.clear();
        read_schedules(state.get(), nullptr, path, half_past_ten);
        EXPECT_EQ(logged.size(), path == nullptr ? 0U : 1U);
        EXPECT_EQ(qz_map_size(state->entries), 0);
        EXPECT_EQ(calc_next_wakeup(state.get(), half_past_ten), half_past_ten + 1800);
        scheduler_resume(state.get(), "nobody", true, half_past_ten);
    }
}

TEST_F(scheduler_engine, Dump) {
    driven_scheduler scheduler(
        "b - 31 * * * * cmd\na kickoff 30 * * * * cmd\nlong-identifier - 7 - x x x cmd\n",
        half_past_ten);
    EXPECT_EQ(scheduler.check(half_past_ten + 9), (texts{"a", "a"}));
    auto* entry = qz_as<schedule_entry>(qz_map_find(scheduler.state()->entries, "b"));
    EXPECT_EQ(dump_schedules(scheduler.state(), half_past_ten + 10),
              "---- scheduler data structures ----\n"
              "now=  Mon Jun 16 10:30:10 2025\n"
              "floor=Mon Jun 16 10:30:00 2025\n\n"
              "id=a           interval=0 sortkey=1750069800-a p=0 k=1\n"
              "\tprev=Mon Jun 16 10:30:09 2025\n\tnext=Thu Jan  1 00:00:00 1970\n"
              "\tnot scheduled in this hour\n"
              "id=b           interval=0 sortkey=1750069860-b p=0 k=0\n"
              "\tprev=Thu Jan  1 00:00:00 1970\n\tnext=Mon Jun 16 10:31:00 2025\n\twaiting...\n"
              "id=long-identifier  interval=7 sortkey=1750070220-long-identifier p=0 k=0\n"
              "\tprev=Thu Jan  1 00:00:00 1970\n\tnext=Mon Jun 16 10:37:00 2025\n\twaiting...\n\n");
    const auto status_of_b = [&](std::time_t now, const std::string& line) {
        return dump_schedules(scheduler.state(), now)
                   .find("\n\tnext=Mon Jun 16 10:31:00 2025\n\t" + line + "\nid=long") !=
               std::string::npos;
    };
    EXPECT_TRUE(status_of_b(half_past_ten + 60, "runs in this minute."));
    EXPECT_TRUE(status_of_b(half_past_ten + 120, "clock is advanced beyond the scheduled time"));
    entry->paused = 1;
    EXPECT_TRUE(status_of_b(half_past_ten + 119, "not runnable because paused"));
}

}  // namespace
