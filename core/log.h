// The error log and the access log.
//
// In both, every control byte of a line is written as \xNN: what a client sends can neither end a
// line nor move a terminal's cursor.
#pragma once

#include <cstdio>
#include <string_view>

#include "core/fwd.h"

enum elog_flag : int {
    elog_fatal = 0x1,  // the process ends with status 1 after the message
    elog_info = 0x2,
};

// Logs one message. It goes to standard error, unless it concerns a connection in inetd mode, and
// to the error log when it concerns a connection. `c` may be null and may be a connection without
// request, peer or context. errno is left as it was.
[[gnu::format(printf, 3, 4)]] void elog(int flags, const conn* c, const char* format, ...);

// The message on standard error, then the end with status 1: for starts that can't go on.
[[noreturn]] [[gnu::format(printf, 1, 2)]] void fatal(const char* format, ...);

// --- Lines of the error log alone, never of standard error. errno is left as it was. ---

// The line of a change of rights, namespaces, mode, blacklist, credentials or life cycle: who made
// it and on whose behalf stand around the message ("granted admin in plx to user bob"), from where
// in the line's prefix. Call it when the change has been made, whatever the method was.
[[gnu::format(printf, 2, 3)]] void log_change(const conn* c, const char* format, ...);

// A line that is never left out. `c` may be null.
[[gnu::format(printf, 3, 4)]] void log_always(const shttpd_ctx* ctx, const conn* c,
                                              const char* format, ...);

// At most 50 of the lines below are written in a second; the others are counted, and one line tells
// their number.

// The line of a reply of 400 and above: "STATUS REASON", the reason's first line, behind it why it
// came to that: ": " and the text, or the system's text of an error number that is not 0; then the
// user of a 401 (as typed) or 403 where one is known. Nothing for a lower status, and for a request
// that has its line already: the first caller, who knows most, wins.
void log_refusal(conn* c, int status, std::string_view reason, std::string_view why);
void log_refusal(conn* c, int status, std::string_view reason, int error);

// The line of a connection that is given up without a reply.
void log_muted(const conn* c, const char* reason);

// The line of anything else that goes wrong through what a peer does. `c` may be null.
[[gnu::format(printf, 3, 4)]] void log_trouble(const shttpd_ctx* ctx, const conn* c,
                                               const char* format, ...);

// Tells how many lines were left out, once the second in which that happened is over. Called in
// every pass of the main loop, and at the end with `now` true.
void tell_left_out_lines(const shttpd_ctx* ctx, bool now = false);

// Writes the line of a finished request. Kept: GET requests and successful requests of the "agent"
// role leave no line.
void log_access(std::FILE* file, const conn* c);
