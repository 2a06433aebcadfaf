// Choosing what answers a request, and the engine's error replies.
#pragma once

#include <string>
#include <string_view>

#include "core/fwd.h"

// Authenticates, authorizes and routes a parsed request: installs a class on the local stream or
// puts an error reply in place.
void route_request(conn* c);

// The last part of it: finds what answers a request that may proceed and is not forwarded. `path`
// is the file that its URI maps to.
void serve_locally(conn* c, std::string path);

// Replaces whatever the local stream holds by "HTTP/1.1 STATUS REASON\r\n\r\nSTATUS REASON", or
// starts the handler registered for the status; the connection closes after the reply. When bytes
// of an earlier reply have gone out nothing is written. `error`, an errno value, and `why` tell the
// log alone how it came to that; 0 and the empty text: nobody knows.
void send_server_error(conn* c, int status, const char* reason, int error = 0);
void send_server_error(conn* c, int status, const char* reason, std::string_view why);

// The same with "HTTP/1.1 STATUS REASON\r\n\r\n TEXT".
// Kept: a handler registered for the status starts without its user data.
void send_server_error_with_header(conn* c, int status, const char* reason, const char* text);
