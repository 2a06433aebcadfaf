// Large static files, sent from the page cache to a plain socket without passing a buffer.
//
// Counters, expiry and the end of the reply are those of the buffered path; only the copy is saved.
#pragma once

#include "core/fwd.h"

// Whether the rest of the reply is a file's and goes to a plain socket, and is more than the
// handler's buffer would take in one go.
[[nodiscard]] bool sends_file_directly(const conn* c);

// Sends what the socket takes in one visit: first what the buffer still holds, then the file. The
// file's end, also an early one, stops the handler's stream; a broken socket the client's.
void send_file_directly(conn* c);
