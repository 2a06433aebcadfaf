#include "sched/sched_entry.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include "core/string.h"

namespace {

// Index 0 of the months is no month: the empty name never matches.
constexpr std::array<std::string_view, 13> months = {
    "", "jan", "feb", "mar", "apr", "may", "jun", "jul", "aug", "sep", "oct", "nov", "dec"};
constexpr std::array<std::string_view, 8> weekdays = {"sun", "mon", "tue", "wed",
                                                      "thu", "fri", "sat", "sun"};

// A time field: its name, the names of its values (may be empty), and its range.
struct field_row {
    const char* name;
    std::span<const std::string_view> names;
    std::uint32_t low;
    std::uint32_t high;
};

enum field_index : std::size_t { minute_field, hour_field, day_field, month_field, weekday_field };

constexpr std::array<field_row, 5> fields = {{
    {"minute", {}, 0, 59},
    {"hour", {}, 0, 23},
    {"day of month", {}, 1, 31},
    {"month", months, 1, 12},
    {"day of week", weekdays, 0, 7},
}};

// One mask as the parser fills it: '0' at every position up to the highest value.
struct field_mask {
    std::array<char, 64> at{};

    explicit field_mask(std::uint32_t high) { std::fill_n(at.begin(), high + 1, '0'); }
};

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Takes the next field off the line.
// Kept: spaces alone separate, so a tab joins two fields, and the line is dropped for want of one.
std::string_view next_field(std::string_view* line) {
    line->remove_prefix(std::min(line->find_first_not_of(' '), line->size()));
    const std::size_t length = std::min(line->find(' '), line->size());
    const std::string_view field = line->substr(0, length);
    line->remove_prefix(length);
    return field;
}

std::string_view without_leading_blanks(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
    return text;
}

// "*" or "*/n". Nonzero on an error.
int parse_every(std::string_view text, std::uint32_t low, std::uint32_t high, char* mask) {
    std::uint32_t step = 1;
    if (text.size() > 1 && text[1] == '/') {
        text.remove_prefix(2);
        if (string_to_uint32(&text, &step) != 0 || step == 0 || !text.empty()) {
            return 1;
        }
    }
    set_bit_range(low, high, step, mask);
    return 0;
}

// Takes a value, a range or a stepped range off the front of `text`. Only a range can have a step.
// Nonzero on an error.
int parse_range(std::string_view* text, const field_row& field, char* mask) {
    std::uint32_t from = 0;
    if (getint32(text, field.names, field.low, field.high, &from) != 0) {
        return 1;
    }
    std::uint32_t to = from;
    std::uint32_t step = 1;
    if (!text->empty() && text->front() == '-') {
        text->remove_prefix(1);
        if (getint32(text, field.names, field.low, field.high, &to) != 0 || to < from) {
            return 1;
        }
        if (!text->empty() && text->front() == '/') {
            text->remove_prefix(1);
            if (string_to_uint32(text, &step) != 0 || step == 0) {
                return 1;
            }
        }
    }
    set_bit_range(from, to, step, mask);
    return 0;
}

// "N - x x x": every N minutes. "- - x x x", and "0 - x x x" too: never by time. False: the minute
// is bad.
bool parse_interval(std::string_view minute, schedule_entry* entry) {
    if (minute == "-") {
        return true;
    }
    return string_to_uint32(&minute, &entry->interval) == 0 && minute.empty();
}

// Parses into masks that have room for the highest value, and then moves months to position 0 and
// the Sunday that is written as 7 to that of 0. The name of the field that is bad, null when none.
const char* parse_masks(const std::array<std::string_view, 5>& texts, schedule_entry* entry) {
    std::array<field_mask, 5> masks = {field_mask(59), field_mask(23), field_mask(31),
                                       field_mask(12), field_mask(7)};
    for (std::size_t i = 0; i < fields.size(); ++i) {
        const field_row& field = fields[i];
        if (parse_sched_item(field.name, field.names, texts[i], field.low, field.high,
                             masks[i].at.data()) != 0) {
            return field.name;
        }
    }
    std::array<char, 64>& weekday = masks[weekday_field].at;
    if (weekday[7] == '1') {
        weekday[0] = '1';  // 7 is Sunday, like 0
    }
    std::copy_n(masks[minute_field].at.begin(), 60, entry->minute_mask);
    std::copy_n(masks[hour_field].at.begin(), 24, entry->hour_mask);
    std::copy_n(masks[day_field].at.begin(), 32, entry->day_mask);
    std::copy_n(masks[month_field].at.begin() + 1, 12, entry->month_mask);
    std::copy_n(weekday.begin(), 7, entry->weekday_mask);
    return nullptr;
}

// The interval form has masks that match nothing.
void clear_masks(schedule_entry* entry) {
    std::fill_n(entry->minute_mask, 60, '0');
    std::fill_n(entry->hour_mask, 24, '0');
    std::fill_n(entry->day_mask, 32, '0');
    std::fill_n(entry->month_mask, 12, '0');
    std::fill_n(entry->weekday_mask, 7, '0');
}

// The first field that a line without a command does not have.
std::string missing_field(std::string_view flags, const std::array<std::string_view, 5>& texts) {
    if (flags.empty()) {
        return "no flags";
    }
    for (std::size_t i = 0; i < texts.size(); ++i) {
        if (texts[i].empty()) {
            return std::string("no ") + fields[i].name;
        }
    }
    return "no command";
}

}  // namespace

schedule_entry* parse_schedule_line(std::string_view line, schedule_fault* fault) {
    const std::string_view id = next_field(&line);
    const std::string_view flags = next_field(&line);
    std::array<std::string_view, 5> texts;
    for (std::string_view& text : texts) {
        text = next_field(&line);
    }
    const std::string_view command = without_leading_blanks(line);
    schedule_fault ignored;
    schedule_fault& why = fault != nullptr ? *fault : ignored;
    why = {.id = id, .text = {}};
    const bool blank = id.find_first_not_of("\t\r") == std::string_view::npos;
    if (blank || id.front() == '#' || flags.find("pause") != std::string_view::npos) {
        return nullptr;
    }
    if (command.empty()) {
        why.text = missing_field(flags, texts);
        return nullptr;
    }
    auto entry = std::make_unique<schedule_entry>();
    entry->id = id;
    entry->command = command;
    entry->kickoff = flags.find("kickoff") != std::string_view::npos ? 1 : 0;
    clear_masks(entry.get());
    const char* bad = nullptr;
    if (texts[hour_field] != "-") {
        bad = parse_masks(texts, entry.get());
    } else if (!parse_interval(texts[minute_field], entry.get())) {
        bad = fields[minute_field].name;
    }
    if (bad != nullptr) {
        why.text = std::string("bad ") + bad;
        return nullptr;
    }
    return entry.release();
}

void sched_free(schedule_entry* entry) {
    delete entry;
}

int parse_sched_item(const char* field_name, std::span<const std::string_view> names,
                     std::string_view text, std::uint32_t low, std::uint32_t high, char* mask) {
    if (!text.empty() && text.front() == '*') {
        return parse_every(text, low, high, mask);
    }
    const field_row field = {field_name, names, low, high};
    while (parse_range(&text, field, mask) == 0) {
        if (text.empty()) {
            return 0;
        }
        if (text.front() != ',') {
            return 1;
        }
        text.remove_prefix(1);
    }
    return 1;
}

int getint32(std::string_view* text, std::span<const std::string_view> names, std::uint32_t low,
             std::uint32_t high, std::uint32_t* value) {
    // Kept: a name is compared over its own length only, so "january" is "jan" with a rest that no
    // field allows: the line is dropped.
    std::uint32_t found = 0;
    if (string_to_uint32(text, &found) != 0) {
        const auto* name = std::find_if(
            names.data(), names.data() + names.size(), [text](std::string_view candidate) {
                return !candidate.empty() && starts_with_nocase(*text, candidate);
            });
        if (name == names.data() + names.size()) {
            return 1;
        }
        found = static_cast<std::uint32_t>(name - names.data());
        text->remove_prefix(name->size());
    }
    if (found < low || found > high) {
        return 1;
    }
    *value = found;
    return 0;
}

int string_to_uint32(std::string_view* text, std::uint32_t* value) {
    std::uint64_t number = 0;
    std::size_t used = 0;
    while (used < text->size() && is_digit((*text)[used])) {
        number = number * 10 + static_cast<std::uint64_t>((*text)[used] - '0');
        if (number > UINT32_MAX) {
            return 1;
        }
        ++used;
    }
    if (used == 0) {
        return 1;
    }
    text->remove_prefix(used);
    *value = static_cast<std::uint32_t>(number);
    return 0;
}

void set_bit_range(std::uint32_t from, std::uint32_t to, std::uint32_t step, char* mask) {
    for (std::uint64_t at = from; at <= to; at += step) {  // 64 bits: a huge step must not wrap
        mask[at] = '1';
    }
}

int sched_cmp_requestid(const void* a, const void* b) {
    return std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
}

int sched_cmp_time(const void* a, const void* b) {
    return std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
}
