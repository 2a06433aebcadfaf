// Starting a scheduled command as a session of its own.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "core/child.h"
#include "core/fwd.h"
#include "sched/sched_entry.h"

// A command as its argument list. "/bin/sh -c" hands the rest, with the blank in front of it, to
// the shell as one argument; any other command is cut at spaces and tabs into at most 1023 words,
// the first of which is the program's path.
std::vector<std::string> split_command(std::string_view command);

// Starts the entry's command and does not wait for it: a new session, standard input, output and
// error on /dev/null, every other descriptor closed, umask 027, signals at their defaults, and an
// environment of SERVER_NAME, PLX_VAR_DIR, PLX_INSTALL_ROOT, PERL5LIB, PATH and LC_TIME alone.
child_start spawn_command(const schedule_entry* entry, const shttpd_ctx* ctx);
