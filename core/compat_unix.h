// Process-level helpers: detaching, children, descriptors, and thin wrappers of system calls.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <ctime>

#include "core/fwd.h"

// A started child: the base name of its program and its process id (0: none).
struct process_record {
    char name[64] = {};
    pid_t pid = 0;
};

// Detaches from the terminal: the parent exits, the child continues in a session of its own with
// standard input, output and error on /dev/null. Does nothing below process 1.
void daemonize();

// The handler of SIGTERM, SIGCHLD and SIGHUP between daemonize and main's own set-up.
void daemon_signal_handler(int signal_number);

// The daemon's handler: reaps children on SIGCHLD, else stores the number in exit_flag.
void signal_handler(int signal_number);

// What a program of a client or of the daemon is started with.
struct process_start {
    const shttpd_ctx* ctx = nullptr;     // cgi_interpreter, error_log
    const char* program = nullptr;       // a path, of which the base name is executed
    char* const* environment = nullptr;  // ends in null
    int fd = -1;                         // becomes standard input and output
    const char* directory = nullptr;     // where the program is started, and found
    const conn* client = nullptr;        // whose request it answers: for the log
    process_record* record = nullptr;    // may be null
};

// Starts a program; with the option cgi_interpreter set, the interpreter runs it. The error log
// becomes its standard error; every other descriptor above 2 is closed and signal dispositions are
// reset. Returns 0 (the parent's `fd` is closed, the record is filled) or -1 (there is no process;
// `fd` stays open). A program that can't be executed is told in the log, and has ended with 1.
int spawn_process(const process_start& start);

// Waits up to 2 seconds for a child to end by itself, then kills it. Returns the result of the
// waitpid that saw it end; the current time when there is no child (null record, pid below 1).
long stop_process(const process_record* record);

// 0, or -1 with errno set.
int set_non_blocking_mode(int fd);

// The result of fcntl.
int set_close_on_exec(int fd);

// Newly allocated copies of `name` (free); without memory the process ends.
char* get_admin_group(const char* name);
char* get_admin_user(const char* name);

// Writes the default variable-data directory into `buffer` and returns it.
char* get_default_var_directory(char* buffer, std::size_t size);

int my_stat(const char* path, struct stat* st);
int my_open(const char* path, int flags, mode_t mode);
int my_remove(const char* path);
int my_rename(const char* from, const char* to);
int my_mkdir(const char* path, mode_t mode);
char* my_getcwd(char* buffer, std::size_t size);
