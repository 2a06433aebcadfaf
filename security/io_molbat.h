// The class of client sockets that begin with the authentication library's handshake: io_molbat.
//
// The stream's channel holds the socket, the connection holds the secure channel and what the
// handshake found out about the client.
#pragma once

#include "core/fwd.h"

// Makes one attempt at the handshake of a connection whose state is pending, and records the
// outcome in its handshake state; an unfinished handshake stays pending and is tried again by every
// read. Never frees, stops or closes anything: a failed connection reports EPROTO at its next read.
void molbat_handshake(stream* s);
