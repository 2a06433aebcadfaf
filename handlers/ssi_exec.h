// Running a shell command whose output becomes part of a page.
#pragma once

#include "lib/unique_fd.h"

// Starts "/bin/sh -c COMMAND" and returns the reading end of a pipe with its standard output,
// non-blocking and closed on exec; empty with errno set when there can be no process. Standard
// input is /dev/null, standard error stays, every other descriptor is closed. Nobody waits for the
// command: closing the pipe is enough.
[[nodiscard]] unique_fd start_shell_command(const char* command);
