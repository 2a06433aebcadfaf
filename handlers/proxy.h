// The reverse proxy: requests whose URI names a target are forwarded with the caller's identity.
//
// Targets are reached over TCP ("/http://", "http://"), TLS ("/https://"), a Unix-domain socket
// chosen by the caller's role ("/httpu://"), or the companion service ("/hob://").
#pragma once

#include <string>

#include "core/fwd.h"

// Whether the request's URI has one of the five forms. Case-sensitive.
bool is_proxy(const conn* c);

// Whether the URI names this very daemon. When it does, the request is rewritten for local
// service (URI, query, role) and *path receives the file that it maps to.
bool is_loopback(conn* c, std::string* path);

// Replaces the request's URI by its path: the text from the first "/" behind "://"; "/" when
// there is none.
void adjust_uri(conn* c);

// Forwards the request: connects the local stream to the target and puts the forwarded request's
// head in front of the body bytes that have arrived, or answers with an error. Connecting may
// block for up to 4 seconds.
void do_proxy(conn* c);

// A kept target has ended before the first byte of its answer: connects anew and sends the request
// once more, if that has not been done yet and all of it is still at hand. False when nothing was
// done.
bool repeat_request(conn* c);
