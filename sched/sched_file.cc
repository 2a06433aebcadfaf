#include "sched/sched_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "lib/file.h"
#include "lib/rbtree.h"

namespace {

constexpr int line_bytes = 1024;         // a longer line comes in pieces, each a line of its own
constexpr int lines_between_looks = 64;  // at the clock
constexpr int told_lines_max = 10;

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
                log_line(into_, "schedule %s: %s", path, std::strerror(errno));
            }
        }
    }

    // Reads until the end of the file (true) or of the share.
    bool go_on(const pass_share& share) {
        if (file_ == nullptr) {
            return true;
        }
        char line[line_bytes];
        for (int lines = 1; std::fgets(line, sizeof line, file_.get()) != nullptr; ++lines) {
            take(line);
            if (lines % lines_between_looks == 0 && share.used_up()) {
                return false;
            }
        }
        file_.reset();
        tell_counts();
        return true;
    }

  private:
    void take(std::string_view line) {
        number_ += at_line_start_ ? 1 : 0;
        at_line_start_ = line.ends_with('\n');
        line.remove_suffix(at_line_start_ ? 1 : 0);
        schedule_fault fault;
        schedule_entry* entry = parse_schedule_line(line, &fault);
        if (!only_id_.empty() && fault.id != only_id_) {
            sched_free(entry);
        } else if (entry != nullptr) {
            ++loaded_;
            if (!add_entry(into_, entry, now_)) {
                tell(fault.id, "the id is taken, so this line runs once at most");
            }
        } else if (!fault.text.empty()) {
            ++bad_;
            tell(fault.id, fault.text);
        }
    }

    void tell(std::string_view id, const std::string& what) {
        log_line(into_, "schedule %s:%d: job %s: %s", path_.c_str(), number_,
                 std::string(id).c_str(), what.c_str());
    }

    void tell_counts() {
        into_->lines_left = 1;
        into_->lines_left_out = 0;
        log_line(into_, "schedule %s: %d entries%s%s, %d lines not loaded", path_.c_str(), loaded_,
                 only_id_.empty() ? "" : " of job ", only_id_.c_str(), bad_);
    }

    scheduler_state* into_;
    std::string only_id_;
    std::time_t now_;
    std::string path_;
    file_ptr file_;
    bool at_line_start_ = true;
    int number_ = 0;
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
    reader_ = std::make_unique<schedule_reader>(fresh_, id_, path, now);
}

schedule_rescan::~schedule_rescan() {
    delete_scheduler_state(fresh_);
}

bool schedule_rescan::go_on(std::time_t now) {
    const pass_share share(state_);
    if (reader_ != nullptr) {
        if (!reader_->go_on(share)) {
            return false;
        }
        reader_.reset();
        if (id_.empty()) {
            exchange_entries(state_, fresh_, now);
        } else {
            remove_entries(state_, id_);
            move_entries(state_, fresh_, now);
        }
        if (share.used_up()) {
            return false;
        }
    }
    delete_scheduler_state(std::exchange(fresh_, nullptr));
    return true;
}
