// Connecting a request's local stream to the target that it is forwarded to.
#pragma once

#include "core/fwd.h"

struct proxy_target;

// Connects to host and port, or takes up the connection's kept target when it is the same one and
// still usable; any other kept target is dropped. Blocks for at most 4 seconds, look-up of the host
// and a TLS handshake aside. On success the descriptor, which does not block, and its poll slot
// stand in the local stream and in the connection's proxy record; returns the descriptor. Returns
// -1 with nothing left open; a secure target is never reached in clear text.
int connect_unsecure(conn* c, const proxy_target& target, bool secure);

// Connects the local stream to the Unix-domain socket that the caller's recorded role stands for.
// Returns the descriptor, which stands with its poll slot in the local stream, or -1.
int connect_local_service(conn* c);

// Waits until the descriptor is writable: above 0 when it is, 0 when the time has passed or the
// wait failed.
int IsSktWriteable(int fd, int timeout_ms);
