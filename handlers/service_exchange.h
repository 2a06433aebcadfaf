// Requests without a body to the companion service, over its standard input and output.
//
// One socket serves everybody, so one exchange runs at a time: the others wait. When the client of
// an exchange goes away, what the service still answers is discarded before the next one begins. An
// answer that has no end of its own is over when nothing has come for two seconds.
// Process-wide; main thread only.
#pragma once

#include <string_view>

#include "core/fwd.h"

// Puts the request in line and starts it when it is its turn: the URI's path is then what the
// service gets to read. Requires an installed relay. An error reply may be in place afterwards.
void join_service_exchange(conn* c);

// One step of a waiting connection, which is visited again when there is reason to. An error reply
// may be in place afterwards.
void advance_service_exchange(conn* c);

// Bytes that a target has sent to the connection; ignored unless the target is the service.
void note_service_answer(conn* c, std::string_view bytes);

// Whether nobody can say where the answer that the connection gets ends: it has no length, can't be
// read, or is longer than announced.
bool answer_has_no_end(const conn* c);

// Whether such an answer counts as whole: two seconds have passed without a byte of it. If not, the
// connection is visited when they may have.
bool answer_is_over(conn* c);

// The connection's relay is being closed: hands the service on if it held it.
void leave_service_exchange(const conn* c);

// The service has ended: nothing of it is awaited any more.
void reset_service_exchange();
