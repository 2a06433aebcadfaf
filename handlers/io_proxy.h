// The relay between a client and a proxy target.
#pragma once

#include "core/fwd.h"

// Makes the local stream relay to and from a target that is not connected yet: the reply buffer is
// empty and the class installed, without descriptor.
void start_proxy_relay(conn* c);
