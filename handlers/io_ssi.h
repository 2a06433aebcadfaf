// Server-side includes: pages whose directives are replaced by files, output of commands and of
// registered functions, or decide which sections are sent.
#pragma once

#include "core/fwd.h"

// Starts the reply with the page that stands opened in c->local.channel.fd, where io_file is
// installed. The descriptor is the reply's from here on. The connection closes after the reply.
void do_ssi(conn* c);
