#include "handlers/ssi_exec.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "core/compat_unix.h"

namespace {

// Between fork and exec: system calls only.
[[noreturn]] void run_child(int output, const char* command) {
    reset_child_signals();
    const int input = open("/dev/null", O_RDONLY);
    if (dup2(output, STDOUT_FILENO) < 0 || input < 0 || dup2(input, STDIN_FILENO) < 0) {
        _exit(1);
    }
    close_descriptors_from(STDERR_FILENO + 1);
    (void)execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(1);
}

}  // namespace

unique_fd start_shell_command(const char* command) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return unique_fd();
    }
    unique_fd output(ends[0]);
    unique_fd input(ends[1]);
    // The two ends are separate: the command's own writes still wait for room.
    if (set_non_blocking_mode(output.get()) != 0) {
        return unique_fd();
    }
    const pid_t pid = fork();
    if (pid == 0) {
        run_child(input.get(), command);
    }
    return pid < 0 ? unique_fd() : std::move(output);
}
