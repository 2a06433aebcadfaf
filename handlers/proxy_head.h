// The head of a forwarded request, and how it gets in front of the body bytes that have arrived.
#pragma once

#include <cstddef>
#include <string_view>

#include "core/fwd.h"

struct proxy_target;

// Writes the forwarded request's head: request line, the known headers, the caller's identity.
// False when the identity is too long to be sent; it is never cut.
bool create_proxy_headers(const conn* c, const proxy_target& target, qz_stream* head);

// Has bytes go to the target in front of the request's body. Returns 1, or -1 when they are larger
// than a buffer.
int safe_write_bytes(conn* c, std::string_view bytes);
int safe_write(conn* c, const qz_stream* bytes);
