// Schedule entries: one line of the schedule file, its time fields as match masks.
//
// A line has the fields id, flags, minute, hour, day of month, month and day of week, separated by
// spaces, then the command.
// A mask is a terminated text of '0' and '1', one character for each value of its field.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <string_view>

inline constexpr std::size_t sort_key_bytes = 64;

struct schedule_entry {
    std::string id;
    std::string command;
    char sortkey[sort_key_bytes] = {};  // "NEXT-ID", the key in the timer map
    std::uint32_t interval = 0;         // minutes; 0: the masks decide
    int paused = 0;                     // while a due or missed entry is being handled
    int kickoff = 0;                    // runs once after the start
    std::time_t next = 0;               // the planned run; 0: none in this hour
    std::time_t prev = 0;               // the last start; 0: none
    char minute_mask[61] = {};
    char hour_mask[25] = {};
    char day_mask[33] = {};     // position = day of month; position 0 is always '0'
    char month_mask[13] = {};   // position 0 is January
    char weekday_mask[8] = {};  // position 0 is Sunday
};

// Every day of the month, and every day of the week.
inline constexpr std::string_view every_day_of_month = "01111111111111111111111111111111";
inline constexpr std::string_view every_day_of_week = "1111111";

// Why a line gave no entry: "bad minute", "no command". Empty for what is no entry on purpose:
// empty lines, comments and paused ones.
struct schedule_fault {
    std::string_view id;  // of the line's text
    std::string text;
};

// Builds an entry from one line without its newline. Null: a comment, a paused line, or a line with
// a missing or bad field, which `fault`, when given, then tells. Free the entry with sched_free.
[[nodiscard]] schedule_entry* parse_schedule_line(std::string_view line,
                                                  schedule_fault* fault = nullptr);

// Null is ignored.
void sched_free(schedule_entry* entry);

// Parses one time field: "*", "*/n", or a list of values, ranges "a-b" and stepped ranges "a-b/n".
// Sets the mask at every value that matches and returns 0; nonzero on an error, and then the mask
// is half filled. `field_name` tells a debugger which field it was; a value may also be written as
// one of the `names` (may be empty), whose value is its index. Requires: `mask` holds high + 1
// characters of '0'. Kept: nothing behind a "*" that is not followed by "/" is looked at, so "*,5"
// is every value.
int parse_sched_item(const char* field_name, std::span<const std::string_view> names,
                     std::string_view text, std::uint32_t low, std::uint32_t high, char* mask);

// Takes one value, a number or else a name, off the front of `text`. Returns 0, or nonzero when
// there is none or it is not within low..high.
int getint32(std::string_view* text, std::span<const std::string_view> names, std::uint32_t low,
             std::uint32_t high, std::uint32_t* value);

// Takes a decimal number off the front of `text`. Returns 0, or nonzero when there is no digit or
// the number does not fit in 32 bits.
int string_to_uint32(std::string_view* text, std::uint32_t* value);

// Writes '1' at from, from + step, ... up to `to`. Requires: step above 0.
void set_bit_range(std::uint32_t from, std::uint32_t to, std::uint32_t step, char* mask);

// strcmp, on ids and on sort keys.
int sched_cmp_requestid(const void* a, const void* b);
int sched_cmp_time(const void* a, const void* b);
