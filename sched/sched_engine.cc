#include "sched/sched_engine.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>

#include "core/string.h"
#include "lib/qz_result.h"
#include "lib/rbtree.h"
#include "lib/unique_fd.h"

namespace {

constexpr std::time_t minute_s = 60;
constexpr std::time_t hour_s = 3600;

// Sort keys order times as texts, which holds for ten digits only.
constexpr std::time_t longest_plannable_time = 9'999'999'999;

constexpr int line_bytes = 1024;

// A moment in local time. Planning is arithmetic from here: asking the C library to turn a local
// time back would have to guess in the hour that a daylight-saving change repeats.
struct local_moment {
    std::time_t time;
    std::tm local;

    explicit local_moment(std::time_t t) : time(t), local{} { localtime_r(&t, &local); }

    [[nodiscard]] std::time_t minute_start() const { return time - local.tm_sec; }
    [[nodiscard]] std::time_t hour_start() const {
        return minute_start() - local.tm_min * minute_s;
    }
};

void free_entry(void* word) {
    sched_free(qz_as<schedule_entry>(word));
}

schedule_entry* find_entry(const scheduler_state* state, const char* id) {
    return qz_as<schedule_entry>(qz_map_find(state->entries, id));
}

// The earliest planned entry; null when nothing is planned.
schedule_entry* first_timer(const scheduler_state* state) {
    const auto first = qz_each(state->timers).begin();
    return first != qz_map_range::stop{} ? qz_as<schedule_entry>((*first).value) : nullptr;
}

// Takes the entry's own timer away; an equal key of another entry stays.
void remove_timer(scheduler_state* state, const schedule_entry* entry) {
    if (qz_map_find(state->timers, entry->sortkey) == entry) {
        (void)qz_map_delete(state->timers, entry->sortkey);
    }
}

// A restriction of the day in both fields is met by either, as in cron; one that allows every day
// leaves the decision to the other field. Whole masks are compared: "1-31" is no restriction.
bool day_matches(const schedule_entry* entry, const std::tm& local) {
    const bool any_day = entry->day_mask == every_day_of_month;
    const bool any_weekday = entry->weekday_mask == every_day_of_week;
    const bool day = entry->day_mask[local.tm_mday] == '1';
    const bool weekday = entry->weekday_mask[local.tm_wday] == '1';
    if (any_day || any_weekday) {
        return (any_day || day) && (any_weekday || weekday);
    }
    return day || weekday;
}

// The next run at or after the moment within its hour; 0 when there is none.
std::time_t next_match(const schedule_entry* entry, const local_moment& at) {
    const std::tm& local = at.local;
    if (entry->hour_mask[local.tm_hour] != '1' || entry->month_mask[local.tm_mon] != '1' ||
        !day_matches(entry, local)) {
        return 0;
    }
    const char* minute = std::strchr(entry->minute_mask + local.tm_min, '1');
    if (minute == nullptr) {
        return 0;
    }
    return at.hour_start() + (minute - entry->minute_mask) * minute_s;
}

// Also when another entry stands under the same key, which only ids longer than 52 characters or
// repeated ones can bring about.
bool is_planned(const scheduler_state* state, const schedule_entry* entry) {
    return entry->sortkey[0] != '\0' && qz_map_find(state->timers, entry->sortkey) != nullptr;
}

int plan_entry(scheduler_state* state, schedule_entry* entry, const local_moment& at) {
    if (entry->paused != 0 || is_planned(state, entry)) {
        return 0;
    }
    entry->next =
        entry->interval != 0 ? at.time + entry->interval * minute_s : next_match(entry, at);
    if (entry->next <= 0 || entry->next > longest_plannable_time) {
        entry->next = 0;
        return 0;
    }
    // The map's key is this very text, which therefore only changes here, while it is in no map.
    (void)std::snprintf(entry->sortkey, sizeof entry->sortkey, "%.10" PRId64 "-%s",
                        std::int64_t{entry->next}, entry->id.c_str());
    if (qz_map_insert(state->timers, entry->sortkey, entry) != qz_ok) {
        entry->next = 0;  // an entry of the same id, or of the same first 52 characters
        return 0;
    }
    return 1;
}

// Starts a due entry and drops a missed one; either is planned again, and a stray, whose id stands
// for another entry, is not.
void handle_timer(scheduler_state* state, const shttpd_ctx* ctx, schedule_entry* entry,
                  std::time_t now) {
    const bool due = entry->next >= min_floor(now);
    const bool start = due && entry->paused == 0;
    entry->paused = 1;
    if (start) {
        (void)state->start(entry, ctx);
        entry->prev = now;
    }
    remove_timer(state, entry);
    scheduler_resume(state, entry->id.c_str(), due, now);
}

// Frees the strays of one id.
void free_strays(scheduler_state* state, const std::string& id) {
    std::erase_if(state->strays, [&](schedule_entry* stray) {
        if (stray->id != id) {
            return false;
        }
        remove_timer(state, stray);
        sched_free(stray);
        return true;
    });
}

// In this order: timers point to strays and to entries.
void clear_schedules(scheduler_state* state) {
    qz_map_clear(state->timers);
    std::for_each(state->strays.begin(), state->strays.end(), sched_free);
    state->strays.clear();
    qz_map_clear(state->entries);
}

// The file as a stream, null when there is none to read. Only a regular file can be read without
// ever waiting.
std::unique_ptr<std::FILE, int (*)(std::FILE*)> open_schedule(const char* path) {
    unique_fd fd(path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return {nullptr, std::fclose};
    }
    std::FILE* file = fdopen(fd.get(), "r");
    if (file != nullptr) {
        (void)fd.release();  // the stream closes it
    }
    return {file, std::fclose};
}

void add_line(scheduler_state* state, const char* only_id, std::string_view line, std::time_t now) {
    if (line.ends_with('\n')) {
        line.remove_suffix(1);
    }
    schedule_entry* entry = parse_schedule_line(line);
    if (entry == nullptr || (only_id != nullptr && entry->id != only_id)) {
        sched_free(entry);
        return;
    }
    if (qz_map_insert(state->entries, entry->id.data(), entry) != qz_ok) {
        state->strays.push_back(entry);
    }
    (void)timer_add(state, entry, now);
}

// A local time as the dump shows it, with a line break at its end. The C locale's names, whatever
// the daemon's locale is.
std::string time_text(std::time_t t) {
    char text[26];
    return ctime_r(&t, text) != nullptr ? text : "\n";  // null: a year of five digits
}

const char* entry_status(const schedule_entry* entry, std::time_t minute) {
    if (entry->next == 0) {
        return "\tnot scheduled in this hour\n";
    }
    if (entry->next < minute) {
        return "\tclock is advanced beyond the scheduled time\n";
    }
    if (entry->next >= minute + minute_s) {
        return "\twaiting...\n";
    }
    return entry->paused != 0 ? "\tnot runnable because paused\n" : "\truns in this minute.\n";
}

void dump_entry(const schedule_entry* entry, std::time_t minute, std::string* out) {
    char rest[160];
    (void)my_snprintf(rest, sizeof rest, "  interval=%" PRIu32 " sortkey=%s p=%d k=%d\n",
                      entry->interval, entry->sortkey, entry->paused, entry->kickoff);
    std::string id = entry->id;
    if (id.size() < 10) {
        id.resize(10, ' ');
    }
    *out += "id=" + id + rest;
    *out += "\tprev=" + time_text(entry->prev);
    *out += "\tnext=" + time_text(entry->next);
    *out += entry_status(entry, minute);
}

}  // namespace

scheduler_state* new_scheduler_state(sched_start_fn start) {
    auto* state = new scheduler_state;
    state->entries = new_qz_map(sched_cmp_requestid, nullptr, free_entry);
    state->timers = new_qz_map(sched_cmp_time, nullptr, nullptr);
    state->start = start;
    return state;
}

void delete_scheduler_state(scheduler_state* state) {
    if (state == nullptr) {
        return;
    }
    clear_schedules(state);
    qz_map_destroy(state->timers);
    qz_map_destroy(state->entries);
    delete state;
}

void read_schedules(scheduler_state* state, const char* only_id, const char* path,
                    std::time_t now) {
    const auto file = open_schedule(path);
    if (file == nullptr) {
        return;
    }
    char line[line_bytes];  // a longer line comes in pieces, each a line of its own
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        add_line(state, only_id, line, now);
    }
}

void rescan_schedules(scheduler_state* state, const std::string& id, const char* path,
                      std::time_t now) {
    const schedule_entry* entry = id.empty() ? nullptr : find_entry(state, id.c_str());
    if (entry == nullptr) {
        clear_schedules(state);
        read_schedules(state, nullptr, path, now);
        return;
    }
    remove_timer(state, entry);  // while its key is alive
    free_strays(state, id);
    (void)qz_map_delete(state->entries, id.c_str());
    read_schedules(state, id.c_str(), path, now);
}

int timer_add(scheduler_state* state, schedule_entry* entry, std::time_t t) {
    return plan_entry(state, entry, local_moment(t));
}

void timer_add_all(scheduler_state* state, std::time_t t) {
    const local_moment at(t);
    for (const qz_pair& pair : qz_each(state->entries)) {
        auto* entry = qz_as<schedule_entry>(pair.value);
        const bool planned = plan_entry(state, entry, at) != 0;
        // Only a clock that was set back brings an entry to the minute of its last start.
        const bool ran_then = entry->prev >= entry->next && entry->prev < entry->next + minute_s;
        if (planned && entry->interval == 0 && ran_then) {
            remove_timer(state, entry);
            (void)timer_add(state, entry, entry->next + minute_s);
        }
    }
}

std::time_t min_floor(std::time_t t) {
    return local_moment(t).minute_start();
}

std::time_t calc_next_wakeup(scheduler_state* state, std::time_t now) {
    if (state->floor <= now) {
        state->floor = local_moment(now).hour_start() + hour_s;
        timer_add_all(state, now);
    }
    const schedule_entry* first = first_timer(state);
    if (first == nullptr || state->floor <= first->next) {
        return state->floor;
    }
    return min_floor(first->next);
}

void sched_check(scheduler_state* state, const shttpd_ctx* ctx, std::time_t now) {
    if (state->kickoff_pending) {
        state->kickoff_pending = false;
        for (const qz_pair& pair : qz_each(state->entries)) {
            const auto* entry = qz_as<const schedule_entry>(pair.value);
            if (entry->kickoff != 0) {
                (void)state->start(entry, ctx);
            }
        }
    }
    if (now < state->previous_check) {
        qz_map_clear(state->timers);
        state->floor = now;  // the hour of `now` is planned below, and the hours after it again
    }
    state->previous_check = now;

    // An hour that has begun since the last check is planned before the walk: its minute 0 may be
    // over by the next check.
    (void)calc_next_wakeup(state, now);

    // From the front each time: a missed entry may come back for the current minute.
    const std::time_t next_minute = min_floor(now) + minute_s;
    schedule_entry* entry = first_timer(state);
    while (entry != nullptr && entry->next < next_minute) {
        handle_timer(state, ctx, entry, now);
        entry = first_timer(state);
    }
}

void scheduler_resume(scheduler_state* state, const char* id, bool next_minute, std::time_t now) {
    schedule_entry* entry = find_entry(state, id);
    if (entry == nullptr || entry->paused == 0) {
        return;
    }
    entry->paused = 0;
    const bool skip_minute = next_minute && entry->interval == 0;
    (void)timer_add(state, entry, skip_minute ? min_floor(now) + minute_s : now);
}

std::string dump_schedules(const scheduler_state* state, std::time_t now) {
    const std::time_t minute = min_floor(now);
    std::string out = "---- scheduler data structures ----\n";
    out += "now=  " + time_text(now);
    out += "floor=" + time_text(minute) + "\n";
    for (const qz_pair& pair : qz_each(state->entries)) {
        dump_entry(qz_as<const schedule_entry>(pair.value), minute, &out);
    }
    return out += "\n";
}
