#include "sched/sched_engine.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

#include "core/child.h"
#include "lib/plat.h"
#include "lib/qz_result.h"
#include "lib/rbtree.h"

namespace {

constexpr std::time_t minute_s = 60;
constexpr std::time_t hour_s = 3600;

// Sort keys order times as texts, which holds for ten digits only.
constexpr std::time_t longest_plannable_time = 9'999'999'999;

constexpr std::size_t plans_between_looks = 64;  // at the clock

// Lines that one check may log, the one with the number of the others aside.
constexpr int lines_max = 10;

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
    // Where the hour ends, or where a change of the zone's offset within it makes another time of
    // it: there are zones whose clocks change at a quarter to.
    [[nodiscard]] std::time_t hour_end() const {
        const std::time_t end = hour_start() + hour_s;
        if (offset_at(end - minute_s) == local.tm_gmtoff) {
            return end;
        }
        std::time_t t = minute_start();
        while (t < end && offset_at(t) == local.tm_gmtoff) {
            t += minute_s;
        }
        return t;
    }

  private:
    static long offset_at(std::time_t t) { return local_moment(t).local.tm_gmtoff; }
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
    const std::time_t next = at.hour_start() + (minute - entry->minute_mask) * minute_s;
    return next < at.hour_end() ? next : 0;
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

// --- Lines for the log ---

void tell_left_out(scheduler_state* state) {
    if (state->lines_left_out > 0) {
        state->lines_left = 1;
        log_line(state, "sched: %d more lines like these", std::exchange(state->lines_left_out, 0));
    }
}

// A moment as the log shows it.
struct moment_text {
    char text[32] = "";

    explicit moment_text(std::time_t t) {
        const local_moment at(t);
        (void)std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &at.local);
    }
};

// --- Starting ---

void start_entry(scheduler_state* state, const schedule_entry* entry) {
    const child_start child = state->start(entry, state->ctx);
    if (child.failed == child_step::none) {
        return;
    }
    const std::string program = child.failed == child_step::fork
                                    ? "fork"
                                    : entry->command.substr(0, entry->command.find_first_of(" \t"));
    log_line(state, "sched: job %s could not be started: %s: %s", entry->id.c_str(),
             program.c_str(), std::strerror(child.error));
}

// Starts a due entry and drops a missed one, `now` being the time of the check; either is planned
// again, and a stray, whose id stands for another entry, is not.
void handle_timer(scheduler_state* state, schedule_entry* entry, std::time_t now) {
    const bool due = entry->next >= min_floor(now);
    const bool start = due && entry->paused == 0;
    entry->paused = 1;
    if (start) {
        start_entry(state, entry);
        entry->prev = now;
    } else if (!due) {
        log_line(state, "sched: job %s missed %s", entry->id.c_str(),
                 moment_text(entry->next).text);
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
    state->unplanned.clear();
    qz_map_clear(state->entries);
}

// Local times as the dump shows them, with a line break at their ends: the C locale's names,
// whatever the daemon's locale is. Most entries share a few times.
class dump_times {
  public:
    const std::string& text(std::time_t t) {
        known& slot = known_[static_cast<std::size_t>(t / minute_s) % known_.size()];
        if (slot.text.empty() || slot.time != t) {
            char text[26];
            slot.time = t;
            slot.text = ctime_r(&t, text) != nullptr ? text : "\n";  // null: a year of five digits
        }
        return slot.text;
    }

  private:
    struct known {
        std::time_t time = 0;
        std::string text;
    };
    std::array<known, 128> known_;
};

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

void append_number(std::string* out, std::uint32_t number) {
    char digits[16];
    out->append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

void dump_entry(const schedule_entry* entry, std::time_t minute, dump_times* times,
                std::string* out) {
    constexpr std::size_t id_width = 10;
    out->append("id=").append(entry->id);
    if (entry->id.size() < id_width) {
        out->append(id_width - entry->id.size(), ' ');
    }
    out->append("  interval=");
    append_number(out, entry->interval);
    out->append(" sortkey=").append(entry->sortkey);
    out->append(entry->paused != 0 ? " p=1" : " p=0");
    out->append(entry->kickoff != 0 ? " k=1\n\tprev=" : " k=0\n\tprev=");
    out->append(times->text(entry->prev)).append("\tnext=").append(times->text(entry->next));
    out->append(entry_status(entry, minute));
}

// --- Planning ---

void drop_timers_of_local_times(scheduler_state* state) {
    for (qz_cursor at(qz_map_open(state->timers)); !at.at_end();) {
        if (qz_as<schedule_entry>(at.data<qz_pair>()->value)->interval == 0) {
            at.erase();
        } else {
            at.next();
        }
    }
}

int local_minutes(std::time_t t) {
    const std::tm local = local_moment(t).local;
    return (local.tm_mday * 24 + local.tm_hour) * 60 + local.tm_min;
}

void set_floor(scheduler_state* state, std::time_t now) {
    state->floor = local_moment(now).hour_end();
    state->floor_local = local_minutes(state->floor);
}

void plan_again(scheduler_state* state, schedule_entry* entry, const local_moment& at) {
    const bool planned = plan_entry(state, entry, at) != 0;
    // Only a clock that was set back, or a new zone, brings an entry to the minute of its last
    // start.
    const bool ran_then = entry->prev >= entry->next && entry->prev < entry->next + minute_s;
    if (planned && entry->interval == 0 && ran_then) {
        remove_timer(state, entry);
        (void)timer_add(state, entry, entry->next + minute_s);
    }
}

// What the check of `now` finds changed since the last one.
void begin_check(scheduler_state* state, std::time_t now) {
    state->lines_left = lines_max;
    if (std::exchange(state->kickoff_pending, false)) {
        for (const qz_pair& pair : qz_each(state->entries)) {
            const auto* entry = qz_as<const schedule_entry>(pair.value);
            if (entry->kickoff != 0) {
                state->kickoffs.push_back(entry->id);
            }
        }
        std::reverse(state->kickoffs.begin(), state->kickoffs.end());
    }
    if (now < state->previous_check) {
        qz_map_clear(state->timers);
        state->floor = now;  // the hour of `now` is planned below, and the hours after it again
    } else if (state->floor_local != local_minutes(state->floor)) {
        drop_timers_of_local_times(state);
        state->floor = now;
    }
    const std::time_t unwatched = min_floor(state->previous_check) + minute_s;
    if (state->previous_check != 0 && unwatched < min_floor(now) &&
        qz_map_size(state->entries) > 0) {
        log_line(state, "sched: nothing was run from %s to %s", moment_text(unwatched).text,
                 moment_text(now).text);
    }
    state->previous_check = now;
    state->check_time = now;
    // An hour that has begun since the last check is planned before the walk: its minute 0 may be
    // over by the next check.
    if (state->floor <= now) {
        set_floor(state, now);
        state->unplanned.clear();
        for (const qz_pair& pair : qz_each(state->entries)) {
            state->unplanned.push_back(qz_as<schedule_entry>(pair.value));
        }
        std::reverse(state->unplanned.begin(), state->unplanned.end());
    }
}

bool start_kickoffs(scheduler_state* state, const pass_share& share) {
    while (!state->kickoffs.empty() && !share.used_up()) {
        const std::string id = std::move(state->kickoffs.back());
        state->kickoffs.pop_back();
        if (const schedule_entry* entry = find_entry(state, id.c_str()); entry != nullptr) {
            start_entry(state, entry);
        }
    }
    return state->kickoffs.empty();
}

bool plan_hour(scheduler_state* state, const pass_share& share) {
    const local_moment at(state->check_time);
    while (!state->unplanned.empty()) {
        if (state->unplanned.size() % plans_between_looks == 0 && share.used_up()) {
            return false;
        }
        plan_again(state, state->unplanned.back(), at);
        state->unplanned.pop_back();
    }
    return true;
}

// From the front each time: a missed entry may come back for the current minute.
bool run_timers(scheduler_state* state, const pass_share& share) {
    const std::time_t next_minute = min_floor(state->check_time) + minute_s;
    schedule_entry* entry = first_timer(state);
    while (entry != nullptr && entry->next < next_minute) {
        if (share.used_up()) {
            return false;
        }
        handle_timer(state, entry, state->check_time);
        entry = first_timer(state);
    }
    return true;
}

}  // namespace

pass_share::pass_share(const scheduler_state* state)
    : clock_us_(state != nullptr ? state->clock_us : nullptr),
      end_(clock_us_ != nullptr ? clock_us_() + state->share_us : 0) {}

bool pass_share::used_up() const {
    return clock_us_ != nullptr && clock_us_() >= end_;
}

void log_line(scheduler_state* state, const char* format, ...) {
    if (state->log == nullptr) {
        return;
    }
    if (state->lines_left <= 0) {
        ++state->lines_left_out;
        return;
    }
    --state->lines_left;
    char line[2048];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    state->log(state->ctx, line);
}

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

bool add_entry(scheduler_state* state, schedule_entry* entry, std::time_t now) {
    const bool is_new = qz_map_insert(state->entries, entry->id.data(), entry) == qz_ok;
    if (!is_new) {
        state->strays.push_back(entry);
    }
    (void)timer_add(state, entry, now);
    return is_new;
}

void remove_entries(scheduler_state* state, const std::string& id) {
    free_strays(state, id);
    if (const schedule_entry* entry = find_entry(state, id.c_str()); entry != nullptr) {
        remove_timer(state, entry);  // while its key is alive
        std::erase(state->unplanned, entry);
        (void)qz_map_delete(state->entries, id.c_str());
    }
}

void move_entries(scheduler_state* state, scheduler_state* from, std::time_t now) {
    qz_map_clear(from->timers);
    for (qz_cursor at(qz_map_open(from->entries)); !at.at_end();) {
        const qz_owned<qz_pair> pair(at.remove<qz_pair>());
        (void)add_entry(state, qz_as<schedule_entry>(pair->value), now);
    }
    for (schedule_entry* stray : std::exchange(from->strays, {})) {
        (void)add_entry(state, stray, now);
    }
}

void exchange_entries(scheduler_state* state, scheduler_state* fresh, std::time_t now) {
    std::swap(state->entries, fresh->entries);
    std::swap(state->timers, fresh->timers);
    std::swap(state->strays, fresh->strays);
    state->unplanned.clear();
    if (state->floor != fresh->floor) {
        state->floor = now;  // a new hour has begun meanwhile
    }
    const local_moment at(now);
    for (schedule_entry* entry = first_timer(state);
         entry != nullptr && entry->next < at.minute_start(); entry = first_timer(state)) {
        remove_timer(state, entry);
        (void)plan_entry(state, entry, at);
    }
}

int timer_add(scheduler_state* state, schedule_entry* entry, std::time_t t) {
    return plan_entry(state, entry, local_moment(t));
}

void timer_add_all(scheduler_state* state, std::time_t t) {
    const local_moment at(t);
    for (const qz_pair& pair : qz_each(state->entries)) {
        plan_again(state, qz_as<schedule_entry>(pair.value), at);
    }
}

std::time_t min_floor(std::time_t t) {
    return local_moment(t).minute_start();
}

std::time_t calc_next_wakeup(scheduler_state* state, std::time_t now) {
    if (state->floor <= now) {
        set_floor(state, now);
        timer_add_all(state, now);
    }
    return next_wakeup(state);
}

std::time_t next_wakeup(const scheduler_state* state) {
    const schedule_entry* first = first_timer(state);
    if (first == nullptr || state->floor <= first->next) {
        return state->floor;
    }
    return min_floor(first->next);
}

bool sched_check(scheduler_state* state, std::time_t now) {
    if (state->check_time == 0 || now < state->previous_check) {
        begin_check(state, now);
    }
    state->previous_check = now;
    const pass_share share(state);
    if (!start_kickoffs(state, share) || !plan_hour(state, share) || !run_timers(state, share)) {
        return false;
    }
    tell_left_out(state);
    state->check_time = 0;
    return true;
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

std::string dump_schedules(const scheduler_state* state, std::time_t now, std::string head) {
    constexpr std::size_t entry_bytes = 224;  // of most
    const std::time_t minute = min_floor(now);
    dump_times times;
    std::string out = std::move(head);
    out.reserve(out.size() + static_cast<std::size_t>(qz_map_size(state->entries)) * entry_bytes);
    out.append("---- scheduler data structures ----\nnow=  ").append(times.text(now));
    out.append("floor=").append(times.text(minute)).append("\n");
    for (const qz_pair& pair : qz_each(state->entries)) {
        dump_entry(qz_as<const schedule_entry>(pair.value), minute, &times, &out);
    }
    return out.append("\n");
}
