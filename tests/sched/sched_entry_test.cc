// Schedule lines: which ones are loaded, and what their time fields match.

#include "sched/sched_entry.h"

#include "tests/support/testing.h"

namespace {

using entry_ptr = std::unique_ptr<schedule_entry, void (*)(schedule_entry*)>;

entry_ptr parse(std::string_view line) {
    return {parse_schedule_line(line), sched_free};
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
    const std::vector<std::pair<const char*, std::uint32_t>> good = {
        {"5 - x x x", 5}, {"- - x x x", 0}, {"0 - x x x", 0}, {"4294967295 - ? ? ?", 4294967295}};
    for (const auto& [times, interval] : good) {
        const entry_ptr entry = parse(std::string("job - ") + times + " /usr/bin/true");
        ASSERT_NE(entry, nullptr) << times;
        EXPECT_EQ(entry->interval, interval) << times;
        EXPECT_TRUE(ones(entry->minute_mask, 60).empty());
        EXPECT_TRUE(ones(entry->day_mask, 32).empty());
    }
}

TEST(ScheduleLine, Dropped) {
    for (const char* line :
         {"", "     ", "#job6 - 0 0 * * * cmd", "job4 pause 0 * * * * cmd",
          "job4 kickoff,paused 0 * * * * cmd", "job - 0 0 * * *", "job - 0 0 * * * \t ",
          "job - 0 0 * * *\tcmd", "job -\t0 0 * * * cmd"}) {
        EXPECT_EQ(parse(line), nullptr) << line;
    }
    std::istringstream times(
        "60 * * * *|* 24 * * *|* * 0 * *|* * 32 * *|* * * 0 *|* * * 13 *|* * * * 8|jan * * * *|"
        "* * * january *|* * * * sat-sun|4294967296 - x x x|*/5 - x x x|"
        "+5 - x x x|5m - x x x|- 5 * * *|5 -- * * *");
    for (std::string text; std::getline(times, text, '|');) {
        EXPECT_EQ(parse("job - " + text + " cmd"), nullptr) << text;
    }
    EXPECT_NE(parse("job#1 #- 0 0 * * * #cmd"), nullptr);  // only a line that begins with it
}

TEST(TimeField, Values) {
    const std::vector<std::pair<const char*, std::set<int>>> good = {
        {"*", range(0, 59)},
        {"*abc", range(0, 59)},
        {"*,5", range(0, 59)},
        {"*/7", range(0, 59, 7)},
        {"*/4294967295", {0}},
        {"007", {7}},
        {"0,59", {0, 59}},
        {"3-3", {3}},
        {"1-59/10", range(1, 59, 10)},
        {"1-59/4294967295", {1}},
        {"1,5-9/2,4,8", {1, 4, 5, 7, 8, 9}},
    };
    for (const auto& [text, values] : good) {
        std::string mask(60, '0');
        EXPECT_EQ(parse_sched_item("minute", {}, text, 0, 59, mask.data()), 0) << text;
        EXPECT_EQ(ones(mask, 60), values) << text;
    }
    std::istringstream bad(
        "*/|*/0|*/7x|*/4294967296|10-5|1-9/0|5/2|1,2,|1,,2|,1|1-|-1|1-2-3|1-9/2/2|"
        "+5|5x|0x5|4294967301|18446744073709551617||");
    for (std::string text; std::getline(bad, text, '|');) {
        std::string mask(60, '0');
        EXPECT_NE(parse_sched_item("minute", {}, text, 0, 59, mask.data()), 0) << text;
    }
}

TEST(TimeField, NamesAndSunday) {
    struct {
        const char* times;
        std::set<int> months, weekdays;
    } const rows[] = {
        {"JAN,mar-May sun", {0, 2, 3, 4}, {0}},   {"12 7", {11}, {0}},
        {"1-dec/5 fri-7", {0, 5, 10}, {0, 5, 6}}, {"* 0-7", range(0, 11), range(0, 6)},
        {"* 2-wed", range(0, 11), {2, 3}},
    };
    for (const auto& row : rows) {
        const entry_ptr entry = parse(std::string("job - 0 0 1 ") + row.times + " cmd");
        ASSERT_NE(entry, nullptr) << row.times;
        EXPECT_EQ(ones(entry->month_mask, 12), row.months) << row.times;
        EXPECT_EQ(ones(entry->weekday_mask, 7), row.weekdays) << row.times;
        EXPECT_EQ(ones(entry->day_mask, 32), std::set<int>{1});
    }
}

}  // namespace
