// CGI programs: their environment, their start, and the relay of their output.
//
// A program runs with one end of a loopback TCP pair as its standard input and output; the daemon
// keeps the other end as the local stream's descriptor until the stream is stopped. Nobody waits
// for the child: SIGCHLD reaps it.
#pragma once

#include <string>

#include "core/cgi_env.h"
#include "core/fwd.h"

// Makes a connected pair of close-on-exec stream sockets over the loopback interface: sp[0], the
// daemon's end, does not block, sp[1], the child's, does. Returns 0 with both owned by the caller,
// or -1 after a log message with nothing left open. `c` is for the log only and may lack everything
// but its context.
int my_socketpair(conn* c, int sp[2]);

// Fills `block` with the environment of the script `prog` (a full path) for the current request.
void build_cgi_environment(conn* c, const char* prog, env_block* block);

// Starts the script `prog`. On success returns 0: the local stream's channel and poll slot hold
// the daemon's end, non-blocking. On failure returns -1 and nothing is left open.
int run_cgi(conn* c, const char* prog);

// Makes the local stream relay what run_cgi started. The first bytes of the reply, the status
// line, are held back until the script's headers are complete.
void do_cgi(conn* c);

// Both of them, or a 500 when the program can't be started. Once the starts of a pass have taken
// their time together, further ones wait for the following passes.
void start_cgi(conn* c, const std::string& prog);
