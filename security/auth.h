// Authentication: who sent a request.
//
// A caller is known by a credential of the authentication library, obtained in the secure channel's
// handshake or from an "Authorization: Basic" header. The connection owns it, and keeps it together
// with the user name and groups taken from it until it closes; later requests on the connection do
// not ask the library again. Runs on the main loop's thread.
#pragma once

#include <cstdint>

#include "core/fwd.h"

// The milliseconds by which refused logins are counted; tests bring their own.
extern std::int64_t (*login_clock)();

// Decides about the connection's current request: 1 when it may proceed, 0 when the caller must
// authenticate (answer 401), 2 when the caller is known and not allowed (answer 403). On 1 the
// request's recorded_role is set to its role; it stays empty otherwise. Never waits for a client,
// but may ask the system's user and group databases.
int check_authorization(conn* c);

// The second half of that decision, for a caller that holds a credential: fills the connection's
// user name and groups when they are not known yet. 1 when allowed, 2 otherwise.
// Requires: client_credential set.
int is_authorized_at(conn* c);

// Puts the 401 answer, which asks for a Basic login in the realm of the context, in place.
void send_authorization_request(conn* c);
