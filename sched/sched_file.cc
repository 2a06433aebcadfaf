#include "sched/sched_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "core/state_writer.h"
#include "lib/file.h"
#include "lib/odd_lines.h"
#include "lib/rbtree.h"

namespace {

constexpr std::size_t line_bytes = 1024;  // a longer line comes in pieces, each a line of its own
constexpr int lines_between_looks = 64;   // at the clock
constexpr int told_lines_max = 10;
constexpr std::int32_t small_schedule = 1000;  // entries that are freed at once

}  // namespace

// A schedule file on its way into a state.
class schedule_reader {
  public:
    // `only_id` empty: all. A path that is null has nothing to be read.
    schedule_reader(scheduler_state* into, std::string only_id, const char* path, std::time_t now)
        : into_(into), only_id_(std::move(only_id)), now_(now) {
        into_->lines_left = told_lines_max;
        if (path != nullptr) {
            path_ = path;
            file_ = stream_of(open_regular(path), "r");
            if (file_ == nullptr) {
                log_line(into_, "schedule %s: %s", path,
                         errno == EINVAL ? "not a regular file" : std::strerror(errno));
            } else {
                lines_.emplace(file_.get(), line_bytes);
            }
        }
    }

    // Reads until the end of the file (true) or of the share.
    bool go_on(const pass_share& share) {
        if (file_ == nullptr) {
            return true;
        }
        for (int read = 1; lines_->next(); ++read) {
            take(lines_->visible());
            if (read % lines_between_looks == 0 && share.used_up()) {
                return false;
            }
        }
        file_.reset();
        tell_counts();
        return true;
    }

  private:
    void take(std::string_view line) {
        schedule_fault fault;
        schedule_entry* entry = parse_schedule_line(line, &fault);
        if (!only_id_.empty() && fault.id != only_id_) {
            sched_free(entry);
        } else if (entry != nullptr) {
            ++loaded_;
            if (line.ends_with('\r')) {
                returns_.add(lines_->number());
            }
            if (line.size() < lines_->text().size()) {
                tell(fault.id, "a zero byte ends the command");
            }
            if (!add_entry(into_, entry, now_)) {
                tell(fault.id, "the id is taken, so this line runs once at most");
            }
        } else if (!fault.text.empty() && bad_line_ != lines_->number()) {
            bad_line_ = lines_->number();  // once, however many pieces it comes in
            ++bad_;
            tell(fault.id, fault.text);
        }
    }

    void tell(std::string_view id, const std::string& what) {
        constexpr std::size_t longest_id = 64;
        log_line(into_, "schedule %s:%zu: job %s: %s", path_.c_str(), lines_->number(),
                 std::string(id.substr(0, longest_id)).c_str(), what.c_str());
    }

    void tell_counts() {
        into_->lines_left = 2;
        into_->lines_left_out = 0;
        if (returns_.count() > 0) {
            log_line(into_,
                     "schedule %s, %s: the carriage return at the end belongs to the command",
                     path_.c_str(), returns_.text().c_str());
        }
        log_line(into_, "schedule %s: %d entries%s%s, %d lines not loaded", path_.c_str(), loaded_,
                 only_id_.empty() ? "" : " of job ", only_id_.c_str(), bad_);
    }

    scheduler_state* into_;
    std::string only_id_;
    std::time_t now_;
    std::string path_;
    file_ptr file_;
    std::optional<line_pieces> lines_;  // of the file
    line_numbers returns_;
    std::size_t bad_line_ = 0;
    int loaded_ = 0;
    int bad_ = 0;
};

void read_schedules(scheduler_state* state, const char* only_id, const char* path,
                    std::time_t now) {
    schedule_reader reader(state, only_id != nullptr ? only_id : "", path, now);
    (void)reader.go_on(pass_share(nullptr));
}

schedule_rescan::schedule_rescan(scheduler_state* state, std::string id, const char* path,
                                 std::time_t now)
    : state_(state), fresh_(new_scheduler_state(state->start)), id_(std::move(id)) {
    if (qz_map_find(state->entries, id_.c_str()) == nullptr) {
        id_.clear();  // one that is not known means everything
    }
    fresh_->ctx = state->ctx;
    fresh_->log = state->log;
    fresh_->floor = state->floor;
    reader_ = std::make_unique<schedule_reader>(fresh_.get(), id_, path, now);
}

schedule_rescan::~schedule_rescan() {
    if (fresh_ != nullptr && qz_map_size(fresh_->entries) > small_schedule) {
        destroy_behind_writes(std::move(fresh_));
    }
}

bool schedule_rescan::go_on(std::time_t now) {
    if (!reader_->go_on(pass_share(state_))) {
        return false;
    }
    if (id_.empty()) {
        exchange_entries(state_, fresh_.get(), now);
    } else {
        remove_entries(state_, id_);
        move_entries(state_, fresh_.get(), now);
    }
    return true;
}
