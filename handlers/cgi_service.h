// The companion service: one program that runs for the daemon's whole life as a CGI-style child.
//
// Requests to "/hob://" reach it through the TCP port that it announces when it starts, or through
// the socket pair that is its standard input and output. Process-wide; main thread only.
#pragma once

#include "core/fwd.h"

// Starts PLX_INSTALL_ROOT/bin/`lower_name` and waits for its announcement, "PORT : " and a decimal
// number. The wait ends early when the child closes its output or the daemon is asked to end.
// `upper_name` names the service in log messages. Returns 0, or -1 with nothing left running.
int run_cgi_as_service(shttpd_ctx* ctx, const char* upper_name, const char* lower_name);

// Closes the pair and ends the child, which has two seconds before it is killed, without waiting
// for that. May be repeated, also without a service.
void end_cgi_services();

// The same, and waits until no child is left. Only for when nobody is served any more. Returns 0.
int stop_cgi_services();

// The announced TCP port, 0 without a service.
int gethobport();

// The daemon's end of the service's standard input and output, -1 without a service. Not owned.
int gethobstdio();
