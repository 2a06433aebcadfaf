// The name that the engine finds for the clients of a test program.
#pragma once

#include <unistd.h>

#include <string>

// Over a socket pair every peer is this very host.
inline std::string local_peer_name() {
    char name[256] = {};
    (void)gethostname(name, sizeof name - 1);
    return name;
}
