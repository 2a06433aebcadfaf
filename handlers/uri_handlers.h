// The two embedded URIs that everybody may call: is the daemon alive, and which host is this.
#pragma once

#include "core/fwd.h"

// Registers "/world/getvitals" and "/world/ping".
void init_world_uris(shttpd_ctx* ctx);

// Answers 200 without headers and body.
void ping_call(shttpd_call_arg* arg);

// Answers one JSON document about daemon, host, connection and management domains. It is produced
// in one call: what does not fit the reply buffer is cut.
void vitals_call(shttpd_call_arg* arg);
