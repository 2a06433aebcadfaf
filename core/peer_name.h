// Host names of peers, looked up with a time bound and remembered.
#pragma once

#include <sys/socket.h>

#include <string>

#include "core/fwd.h"

struct host_name_result {
    int code = 0;      // the result of getnameinfo
    std::string name;  // empty unless code is 0
};

// The host name of a socket address; a name is required, an address text is never returned.
// An unknown address costs about one second per silent name server at most; results are remembered
// (success 300 s, failure 60 s, 256 addresses).
host_name_result lookup_host_name(const sockaddr* address, socklen_t length);

// The name of the connection's peer, asked of its socket, else of the address it was accepted from.
host_name_result peer_host_name(const conn* c);
