// Starting programs without a copy of the process.
#pragma once

#include <sys/types.h>

// What a program is started with. Everything is laid out beforehand and outlives the call: on its
// way to the program the child borrows the daemon's memory and makes system calls only.
struct child_plan {
    const char* program = nullptr;       // executed as it is, never searched for
    char* const* arguments = nullptr;    // argument 0 included, ends in null
    char* const* environment = nullptr;  // ends in null
    const char* directory = nullptr;     // null: the daemon's own
    int input = -1;                      // what becomes the three standard streams, which may be
    int output = -1;                     // one descriptor; -1: /dev/null
    int error = -1;
    bool detached = false;  // a session of its own, and the umask 027
};

enum class child_step { none, fork, directory, execute };

struct child_start {
    pid_t pid = -1;  // -1: there is no process
    child_step failed =
        child_step::none;  // where the start ended; the child has then exited with 1
    int error = 0;         // the errno value of that step
};

// Starts a program and returns when it runs or has failed to. Signal dispositions and mask are
// reset and descriptors above 2 closed; the caller keeps its own. The child is not waited for.
[[nodiscard]] child_start start_child(const child_plan& plan);

// Child side of every fork: signal dispositions and mask back to their defaults.
void reset_child_signals();

// Closes every descriptor from `lowest` upwards, quickly whatever the limit is. Async-signal-safe.
void close_descriptors_from(int lowest);
