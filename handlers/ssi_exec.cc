#include "handlers/ssi_exec.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "core/child.h"
#include "core/compat_unix.h"

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
    const std::array<const char*, 4> arguments = {"sh", "-c", command, nullptr};
    const child_start child = start_child({.program = "/bin/sh",
                                           .arguments = const_cast<char**>(arguments.data()),
                                           .environment = environ,
                                           .output = input.get(),
                                           .error = STDERR_FILENO});
    if (child.pid < 0) {
        errno = child.error;
        return unique_fd();
    }
    return output;
}
