// Requests answered by functions inside the daemon.
#pragma once

#include "core/context.h"
#include "core/fwd.h"
#include "core/shttpd.h"

// The first registered pattern that matches `uri`, or null. Kept: after a "*" only the first
// occurrence of the next character is tried.
const registered_uri* is_registered_uri(shttpd_ctx* ctx, const char* uri);

// Lets `handler` write the reply of the current request; the connection closes after it.
void setup_embedded_stream(conn* c, shttpd_handler handler, void* user_data);

// The one place where a handler is called: fills the views of `arg`, calls, and accounts for what
// was consumed and produced. `user_data` and `flags` are the caller's.
void call_user(conn* c, shttpd_call_arg* arg, shttpd_handler handler);
