// The reverse proxy: requests whose URI names a target are forwarded with the caller's identity.
//
// Targets are reached over TCP ("/http://", "http://"), TLS ("/https://"), a Unix-domain socket
// chosen by the caller's role ("/httpu://"), or the companion service ("/hob://").
#pragma once

#include <string>

#include "core/fwd.h"

struct proxy_target;

// Whether the request's URI has one of the five forms. Case-sensitive.
bool is_proxy(const conn* c);

// Whether the URI names this very daemon. When it does, the request is rewritten for local
// service (URI, query, role) and *path receives the file that it maps to. False also while the
// host's name is being looked up, which request.target_lookup tells; do_proxy() then waits for it
// and asks again.
bool is_loopback(conn* c, std::string* path);

// Replaces the request's URI by its path: the text from the first "/" behind "://"; "/" when
// there is none.
void adjust_uri(conn* c);

// Forwards the request: connects the local stream to the target, which gets the forwarded request's
// head and then the body, or answers with an error. Whatever has to be waited for, looking up,
// connecting and setting up a secure channel, is waited for in the poll set, and has 4 seconds.
void do_proxy(conn* c);

// The next step of a forwarded request whose target is not ready. Its local stream may be another's
// afterwards: an error reply's, or a local handler's.
void go_on_forwarding(conn* c);

// A kept target has ended before the first byte of its answer: connects anew and sends the request
// once more, if that has not been done yet and all of it is still at hand. False when nothing was
// done.
bool repeat_request(conn* c);

// Takes up the connection's kept target when it leads there and is still usable, or begins to
// connect in place of it.
void connect_unsecure(conn* c, const proxy_target& wanted, bool secure);
