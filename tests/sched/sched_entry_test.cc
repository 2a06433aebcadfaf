// Schedule lines: which ones are loaded, and what their time fields match.

#include "sched/sched_entry.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

struct entry_deleter {
    void operator()(schedule_entry* entry) const { sched_free(entry); }
};
using entry_ptr = std::unique_ptr<schedule_entry, entry_deleter>;

entry_ptr parse(std::string_view line) {
    return entry_ptr(parse_schedule_line(line));
}

// The positions of '1', in a text of the right length.
std::set<int> ones(const std::string& mask, std::size_t length) {
    EXPECT_EQ(mask.size(), length);
    std::set<int> found;
    for (std::size_t i = 0; i < mask.size(); ++i) {
        EXPECT_TRUE(mask[i] == '0' || mask[i] == '1');
        if (mask[i] == '1') {
            found.insert(static_cast<int>(i));
        }
    }
    return found;
}

std::set<int> range(int from, int to, int step = 1) {
    std::set<int> values;
    for (int i = from; i <= to; i += step) {
        values.insert(i);
    }
    return values;
}

TEST(ScheduleLine, FullEntry) {
    const entry_ptr entry =
        parse("  job3   kickoff-x  */15 8-17  * * mon-fri \t /bin/cmd  'a  b' \t\r");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->id, "job3");
    EXPECT_EQ(entry->command, "/bin/cmd  'a  b' \t\r");
    EXPECT_EQ(entry->kickoff, 1);
    EXPECT_EQ(entry->interval, 0U);
    EXPECT_EQ(ones(entry->minute_mask, 60), range(0, 45, 15));
    EXPECT_EQ(ones(entry->hour_mask, 24), range(8, 17));
    EXPECT_EQ(entry->day_mask, every_day_of_month);
    EXPECT_EQ(ones(entry->month_mask, 12), range(0, 11));
    EXPECT_EQ(ones(entry->weekday_mask, 7), range(1, 5));
}

TEST(ScheduleLine, IntervalForm) {
    struct row {
        const char* times;
        bool loaded;
        std::uint32_t interval;
    };
    const std::vector<row> rows = {
        {"5 - x x x", true, 5},           {"- - x x x", true, 0},
        {"0 - x x x", true, 0},           {"4294967295 - ? ? ?", true, 4294967295},
        {"4294967296 - x x x", false, 0}, {"*/5 - x x x", false, 0},
        {"+5 - x x x", false, 0},         {"5m - x x x", false, 0},
        {"- 5 * * *", false, 0},          {"5 -- * * *", false, 0},
    };
    for (const row& r : rows) {
        const entry_ptr entry = parse(std::string("job - ") + r.times + " /usr/bin/true");
        ASSERT_EQ(entry != nullptr, r.loaded) << r.times;
        if (entry != nullptr) {
            EXPECT_EQ(entry->interval, r.interval) << r.times;
            EXPECT_TRUE(ones(entry->minute_mask, 60).empty());
            EXPECT_TRUE(ones(entry->day_mask, 32).empty());
        }
    }
}

TEST(ScheduleLine, Dropped) {
    const std::vector<const char*> lines = {
        "",
        "     ",
        "#job6 - 0 0 * * * cmd",
        "# a comment of more than eight words, of course, yes",
        "job4 pause 0 * * * * cmd",
        "job4 kickoff,paused 0 * * * * cmd",
        "job - 0 0 * * *",
        "job - 0 0 * * * \t ",
        "job - 0 0 * * *\tcmd",
        "job -\t0 0 * * * cmd",
        "job - 60 * * * * cmd",
        "job - * 24 * * * cmd",
        "job - * * 0 * * cmd",
        "job - * * 32 * * cmd",
        "job - * * * 0 * cmd",
        "job - * * * 13 * cmd",
        "job - * * * * 8 cmd",
        "job - * * * january * cmd",
        "job - * * * * sat-sun cmd",
        "job - jan * * * * cmd",
    };
    for (const char* line : lines) {
        EXPECT_EQ(parse(line), nullptr) << line;
    }
    EXPECT_NE(parse("job#1 #- 0 0 * * * #cmd"), nullptr);  // only a line that begins with it
}

TEST(TimeField, Values) {
    struct row {
        const char* text;
        std::set<int> values;  // empty: an error
    };
    const std::vector<row> rows = {
        {"*", range(0, 59)},
        {"*abc", range(0, 59)},
        {"*,5", range(0, 59)},
        {"*/1", range(0, 59)},
        {"*/7", range(0, 59, 7)},
        {"*/100", {0}},
        {"*/4294967295", {0}},
        {"7", {7}},
        {"007", {7}},
        {"0,59", {0, 59}},
        {"3-6", range(3, 6)},
        {"3-3", {3}},
        {"1-59/10", range(1, 59, 10)},
        {"1-59/4294967295", {1}},
        {"1,5-9/2,4,8", {1, 4, 5, 7, 8, 9}},
        {"*/", {}},
        {"*/0", {}},
        {"*/7x", {}},
        {"*/4294967296", {}},
        {"10-5", {}},
        {"1-9/0", {}},
        {"5/2", {}},
        {"1,2,", {}},
        {"1,,2", {}},
        {",1", {}},
        {"1-", {}},
        {"-1", {}},
        {"1-2-3", {}},
        {"1-9/2/2", {}},
        {"+5", {}},
        {"5x", {}},
        {"0x5", {}},
        {"4294967301", {}},
        {"18446744073709551617", {}},
        {"", {}},
    };
    for (const row& r : rows) {
        std::string mask(60, '0');
        const bool good = parse_sched_item("minute", {}, r.text, 0, 59, mask.data()) == 0;
        EXPECT_EQ(good, !r.values.empty()) << r.text;
        if (good) {
            EXPECT_EQ(ones(mask, 60), r.values) << r.text;
        }
    }
}

TEST(TimeField, NamesAndSunday) {
    struct row {
        const char* times;
        std::set<int> months;
        std::set<int> weekdays;
    };
    const std::vector<row> rows = {
        {"JAN,mar-May sun", {0, 2, 3, 4}, {0}},   {"12 7", {11}, {0}},
        {"1-dec/5 fri-7", {0, 5, 10}, {0, 5, 6}}, {"* 0-7", range(0, 11), range(0, 6)},
        {"* 2-wed", range(0, 11), {2, 3}},        {"* 1-7", range(0, 11), range(0, 6)},
    };
    for (const row& r : rows) {
        const entry_ptr entry = parse(std::string("job - 0 0 1 ") + r.times + " cmd");
        ASSERT_NE(entry, nullptr) << r.times;
        EXPECT_EQ(ones(entry->month_mask, 12), r.months) << r.times;
        EXPECT_EQ(ones(entry->weekday_mask, 7), r.weekdays) << r.times;
        EXPECT_EQ(ones(entry->day_mask, 32), std::set<int>{1});
    }
}

}  // namespace
