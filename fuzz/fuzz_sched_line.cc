// One line of a schedule file, on arbitrary bytes.
//
// A line that is accepted must have masks of the right length and form, and the engine must plan
// its next run at a minute that the masks allow, for every hour of a day.
#include <cstdint>
#include <cstring>
#include <string_view>

#include "fuzz/check.h"
#include "lib/rbtree.h"
#include "sched/sched_engine.h"

namespace {

void check_mask(const char* mask, std::size_t length) {
    check(std::strlen(mask) == length && std::strspn(mask, "01") == length);
}

void check_next(const schedule_entry* entry, std::time_t asked) {
    if (entry->next == 0 || entry->interval != 0) {
        return;
    }
    std::tm local{};
    localtime_r(&entry->next, &local);
    check(entry->next + 60 > asked && entry->next < asked + 3600 && local.tm_sec == 0);
    check(entry->minute_mask[local.tm_min] == '1' && entry->hour_mask[local.tm_hour] == '1' &&
          entry->month_mask[local.tm_mon] == '1');
}

child_start no_start(const schedule_entry* /*entry*/, const shttpd_ctx* /*ctx*/) {
    return {.pid = -1, .failed = child_step::fork, .error = 11};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    schedule_entry* entry =
        parse_schedule_line(std::string_view(reinterpret_cast<const char*>(data), size));
    if (entry == nullptr) {
        return 0;
    }
    check(!entry->id.empty() && !entry->command.empty());
    check_mask(entry->minute_mask, 60);
    check_mask(entry->hour_mask, 24);
    check_mask(entry->day_mask, 32);
    check_mask(entry->month_mask, 12);
    check_mask(entry->weekday_mask, 7);
    check(entry->day_mask[0] == '0');

    scheduler_state* state = new_scheduler_state(no_start);
    if (entry->id.find('\0') == std::string::npos &&
        qz_map_insert(state->entries, entry->id.data(), entry) == 0) {
        constexpr std::time_t first = 1711836000;  // around a change of the clocks in some zones
        for (std::time_t now = first; now < first + 86400; now += 1799) {
            (void)calc_next_wakeup(state, now);
            check_next(entry, state->floor - 3600);
            (void)sched_check(state, now);
        }
        (void)dump_schedules(state, first);
    } else {
        sched_free(entry);
    }
    delete_scheduler_state(state);
    return 0;
}
