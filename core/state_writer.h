// Files of state (the domain file, access files), written by a thread of their own.
//
// A change asks for its file to be written and holds its reply until the file stands. Changes that
// arrive while a write is under way share the next one, which begins at the end of the pass in
// which that one was found over. Main loop thread only. An endpoint that changes files:
//
//     if (kept_wait(arg) == nullptr) {
//         ... change memory, write_state({...}) ...
//     }
//     if (files_stand(arg)) {
//         show_success(arg);
//     }
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "core/background.h"
#include "core/endpoint.h"
#include "core/fwd.h"
#include "lib/file.h"

// What the maker of a file's content has seen of it.
struct known_file {
    file_stamp stamp;  // when it was read, all zero: missing; the writer's once it writes
    std::size_t rescued =
        0;  // lines of somebody else that were saved; whoever tells them clears it
};

struct state_write {
    std::string path;
    // Makes the whole content, once. Called when the write begins, which may be in a later pass; by
    // settle_state_writes() at the latest.
    std::function<std::string()> content;
    // Lines of the present file that the content leaves out and that somebody may miss. They are
    // saved first (save_lines), or the write fails.
    std::string dropped = {};
    // When the file is not as it was known, somebody has edited it: lines in it that the content
    // lacks are saved as well. Null: nobody looks.
    std::shared_ptr<known_file> known = nullptr;
    // Hears how the write ended: 0 or the errno value of replace_file. May be empty.
    std::function<void(int)> written;
};

// Asks for a write. One of the same path that has not begun yet is dropped in its favour: what it
// would have written is part of this one's content.
void write_state(state_write write);

// Makes the content of every write that has not begun. To be called before what `content` reads
// goes away; the writes themselves still come.
void settle_state_writes();

// Whether a write of the path has been asked for and not ended: memory is ahead of the file.
[[nodiscard]] bool state_write_pending(const std::string& path);

// Whether the path leads to the very file that was last written here, unchanged since. False while
// no write has succeeded.
[[nodiscard]] bool state_file_is_ours(const std::string& path);

// Runs a job behind all writes that have been asked for, in their thread: one that reads a file of
// state finds what was last answered. Without threads it has run and finished when this returns.
void run_behind_writes(std::unique_ptr<background_job> job);

// Destroys something large in the thread: freeing what belongs to nobody any more takes time.
template <class Owner>
void destroy_behind_writes(Owner owner) {
    struct destruction : background_job {
        explicit destruction(Owner whose) : owner(std::move(whose)) {}
        void run() override { owner.reset(); }
        void finish() override {}
        Owner owner;
    };
    run_behind_writes(std::make_unique<destruction>(std::move(owner)));
}

// The request of a connection that waits for all writes asked for so far. The connection is visited
// (visit_soon) when they are over, unless the wait was destroyed before: the farewell call does it.
class write_wait {
  public:
    explicit write_wait(conn* waiter);
    write_wait(const write_wait&) = delete;
    write_wait& operator=(const write_wait&) = delete;
    write_wait(write_wait&&) = delete;
    write_wait& operator=(write_wait&&) = delete;
    ~write_wait();

    // Whether the writes are over, with whatever result.
    [[nodiscard]] bool over() const;

  private:
    friend struct state_writer;
    conn* waiter_;
    std::uint64_t last_;  // the number of the last write that it waits for
};

// For an endpoint that keeps no other wait: whether all that was asked for until its first call is
// over. False: it has said not_yet() for the endpoint, which returns and calls again.
inline bool files_stand(shttpd_call_arg* arg);

// Begins the writes that were asked for; the loop calls it at the end of a pass.
void start_state_writes();

// Returns when every write and job is over: the end of the process.
void finish_state_writes();

struct files_wait : endpoint_wait {
    explicit files_wait(conn* c) : writes(c) {}
    write_wait writes;
};

inline bool files_stand(shttpd_call_arg* arg) {
    const auto* kept = waiting_for<files_wait>(arg);
    if (kept != nullptr) {
        if (!kept->writes.over()) {
            not_yet(arg, nullptr);
        }
        return kept->writes.over();
    }
    auto wait = std::make_unique<files_wait>(arg->connection);
    const bool over = wait->writes.over();
    if (!over) {
        not_yet(arg, std::move(wait));
    }
    return over;
}
