#include "core/state_writer.h"

#include <algorithm>
#include <limits>
#include <map>
#include <optional>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "core/connection.h"
#include "lib/file.h"
#include "lib/odd_lines.h"
#include "lib/replace_file.h"

namespace {

constexpr std::uint64_t none = std::numeric_limits<std::uint64_t>::max();

// Writes are numbered in the order in which they were asked for. A write answers for every one of
// its path since the last that began, of which it knows the first.
struct file_record {
    std::optional<state_write> wanted;  // asked for, not begun
    std::uint64_t wanted_first = none;
    std::uint64_t begun_first = none;  // handed to the thread, not ended
    int begun = 0;
    file_stamp stamp;     // of the file that was written last
    std::string dropped;  // to be saved by the next write
};

}  // namespace

struct state_writer {
    std::map<std::string, file_record> files;
    std::vector<write_wait*> waits;
    std::uint64_t last_number = 0;
    background_thread thread;

    [[nodiscard]] std::uint64_t first_open() const {
        std::uint64_t first = none;
        for (const auto& [path, file] : files) {
            first = std::min({first, file.wanted_first, file.begun_first});
        }
        return first;
    }

    void begin(const std::string& path, file_record* file);
    void begin_all(bool also_busy);
    void tell_waits();
    void submit(std::unique_ptr<background_job> job);
};

namespace {

state_writer& writer() {
    static state_writer only;
    return only;
}

// Whether the file is the one that was last written, with this content: then a new one would be no
// better. What somebody else has written is replaced even so, for it may not be on the disk.
bool stands_already(const std::string& path, const file_stamp& stamp, const std::string& content) {
    if (stamp == file_stamp{} || stamp != stamp_of(path.c_str()) ||
        stamp.size != static_cast<off_t>(content.size())) {
        return false;
    }
    const unique_fd file = open_regular(path.c_str());
    std::string found;
    return file && read_all(file.get(), &found) == 0 && found == content;
}

// Takes the next line off the front of a text, without its line break.
std::string_view take_line(std::string_view* text) {
    const std::string_view line = text->substr(0, text->find('\n'));
    text->remove_prefix(std::min(text->size(), line.size() + 1));
    return line;
}

// Appends the lines of the present file that say something and stand neither in the content nor
// among the lines yet, and counts them.
std::size_t append_edits(const std::string& path, std::string_view content, std::string* lines) {
    std::string found;
    const unique_fd file = open_regular(path.c_str());
    if (!file || read_all(file.get(), &found) != 0) {
        return 0;
    }
    const std::string before = *lines;
    std::unordered_set<std::string_view> kept;
    for (std::string_view rest : {content, std::string_view(before)}) {
        while (!rest.empty()) {
            kept.insert(take_line(&rest));
        }
    }
    std::size_t count = 0;
    for (std::string_view rest = found; !rest.empty();) {
        const std::string_view line = take_line(&rest);
        if (!is_idle_line(line) && !kept.contains(line)) {
            lines->append(line).append("\n");
            ++count;
        }
    }
    return count;
}

struct write_job : background_job {
    std::string path;
    std::string content;
    file_stamp stamp;
    std::string dropped;
    std::shared_ptr<known_file> known;
    std::function<void(int)> written;
    std::size_t rescued = 0;
    int error = 0;

    void run() override {
        error = save();
        if (error == 0 && !stands_already(path, stamp, content)) {
            file_stamp written_one;
            error = replace_file(path.c_str(), content, &written_one);
            note(written_one);
        }
        content = std::string();  // it can be long, and the result may wait for the loop
    }

    void finish() override {
        file_record& file = writer().files[path];
        file.stamp = error == 0 ? stamp : file_stamp{};
        file.dropped.insert(0, dropped);
        if (--file.begun == 0) {
            file.begun_first = none;
        }
        if (known != nullptr) {
            known->rescued += rescued;
        }
        if (written) {
            written(error);
        }
        writer().tell_waits();
    }

  private:
    // What would be lost; once, however often the write is tried after that.
    int save() {
        std::string lines = dropped;
        const file_stamp present = stamp_of(path.c_str());
        const bool edited = known != nullptr && !known->stamp.same_content(present);
        const std::size_t edits = edited ? append_edits(path, content, &lines) : 0;
        if (const int failed = lines.empty() ? 0 : save_lines(path.c_str(), lines); failed != 0) {
            return failed;
        }
        dropped.clear();
        if (edited) {
            known->stamp = present;
            rescued = edits;
        }
        return 0;
    }

    // A file may have been replaced although the call failed.
    void note(const file_stamp& written_one) {
        if (written_one != file_stamp{}) {
            stamp = written_one;
            if (known != nullptr) {
                known->stamp = written_one;
            }
        }
    }
};

// Keeps a job at hand in case that there is no thread for it.
struct shared_job : background_job {
    std::shared_ptr<background_job> job;

    explicit shared_job(std::shared_ptr<background_job> which) : job(std::move(which)) {}
    void run() override { job->run(); }
    void finish() override { job->finish(); }
};

}  // namespace

void state_writer::submit(std::unique_ptr<background_job> job) {
    const std::shared_ptr<background_job> shared(std::move(job));
    if (!thread.submit(std::make_unique<shared_job>(shared))) {
        shared->run();
        shared->finish();
    }
}

void state_writer::begin(const std::string& path, file_record* file) {
    auto job = std::make_unique<write_job>();
    job->path = path;
    job->content = file->wanted->content();
    job->stamp = file->stamp;
    job->dropped = std::exchange(file->dropped, {});
    job->known = std::move(file->wanted->known);
    job->written = std::move(file->wanted->written);
    file->wanted.reset();
    file->begun_first = std::min(file->begun_first, std::exchange(file->wanted_first, none));
    ++file->begun;
    submit(std::move(job));
}

void state_writer::begin_all(bool also_busy) {
    std::vector<std::pair<const std::string, file_record>*> ready;
    for (auto& entry : files) {
        if (entry.second.wanted && (also_busy || entry.second.begun == 0)) {
            ready.push_back(&entry);
        }
    }
    std::sort(ready.begin(), ready.end(), [](const auto* a, const auto* b) {
        return a->second.wanted_first < b->second.wanted_first;
    });
    for (auto* entry : ready) {
        begin(entry->first, &entry->second);
    }
}

void state_writer::tell_waits() {
    const std::uint64_t open = first_open();
    const auto still = std::stable_partition(
        waits.begin(), waits.end(), [open](const write_wait* wait) { return wait->last_ >= open; });
    std::for_each(still, waits.end(), [](const write_wait* wait) { visit_soon(wait->waiter_); });
    waits.erase(still, waits.end());
}

void write_state(state_write write) {
    file_record& file = writer().files[write.path];
    ++writer().last_number;
    file.wanted_first = std::min(file.wanted_first, writer().last_number);
    file.dropped += write.dropped;
    file.wanted = std::move(write);
}

void settle_state_writes() {
    writer().begin_all(true);
}

bool state_write_pending(const std::string& path) {
    const auto found = writer().files.find(path);
    return found != writer().files.end() && (found->second.wanted || found->second.begun > 0);
}

bool state_file_is_ours(const std::string& path) {
    const auto found = writer().files.find(path);
    return found != writer().files.end() && found->second.stamp != file_stamp{} &&
           found->second.stamp == stamp_of(path.c_str());
}

void run_behind_writes(std::unique_ptr<background_job> job) {
    settle_state_writes();
    writer().submit(std::move(job));
}

write_wait::write_wait(conn* waiter) : waiter_(waiter), last_(writer().last_number) {
    if (!over()) {
        writer().waits.push_back(this);
    }
}

write_wait::~write_wait() {
    std::erase(writer().waits, this);
}

bool write_wait::over() const {
    return writer().first_open() > last_;
}

void start_state_writes() {
    writer().begin_all(false);
}

void finish_state_writes() {
    settle_state_writes();
    writer().thread.drain();
}
