// The relay between a client and a proxy target.
#pragma once

#include "core/fwd.h"

// Makes the local stream relay to and from a target that is not connected yet: the reply buffer is
// empty and the class installed, without descriptor.
void start_proxy_relay(conn* c);

// The connection's target is ready: its descriptor and slot are the local stream's, too, until the
// request is over or the target ends.
void relay_with_target(conn* c);

// The stream refers to its target's descriptor and slot no more.
void leave_target(stream* s);
