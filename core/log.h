// The error log and the access log.
#pragma once

#include <cstdio>

#include "core/fwd.h"

enum elog_flag : int {
    elog_fatal = 0x1,  // the process ends with status 1 after the message
    elog_info = 0x2,
};

// Logs one message. It goes to standard error, unless it concerns a connection in inetd mode, and
// to the error log when it concerns a connection. `c` may be null and may be a connection without
// request, peer or context. errno is left as it was.
[[gnu::format(printf, 3, 4)]] void elog(int flags, const conn* c, const char* format, ...);

// Writes the line of a finished request. Kept: GET requests and successful requests of the "agent"
// role leave no line.
void log_access(std::FILE* file, const conn* c);
