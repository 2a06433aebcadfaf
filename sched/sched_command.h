// Starting a scheduled command as a session of its own.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>
#include <vector>

#include "core/fwd.h"
#include "sched/sched_entry.h"

// A command as its argument list. "/bin/sh -c" hands the rest, with the blank in front of it, to
// the shell as one argument; any other command is cut at spaces and tabs into at most 1023 words,
// the first of which is the program's path.
std::vector<std::string> split_command(std::string_view command);

// Remembers the process's supplementary groups, which commands get back.
void remember_groups();

// Starts the entry's command and does not wait for it: a new session, standard input, output and
// error on /dev/null, every other descriptor closed, umask 027, signals at their defaults, and an
// environment of SERVER_NAME, PLX_VAR_DIR, PLX_INSTALL_ROOT, PERL5LIB, PATH and LC_TIME alone.
// Returns the process id, or -1 after a log line when there can be no process; a program that
// can't be executed ends with status 1.
pid_t spawn_command(const schedule_entry* entry, const shttpd_ctx* ctx);
