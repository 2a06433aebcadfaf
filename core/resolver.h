// Names of hosts and addresses, looked up by a thread of its own, so that a silent name server
// keeps nobody waiting but those who asked.
//
// A look-up that can be answered from memory (success 300 s, failure 60 s, 256 entries a kind) or
// without asking anybody (a numeric address) is done when the call returns. Any other is answered
// within one second per name server, the time in the thread's queue included: after that it has
// failed with EAI_AGAIN. One that has run out of time makes every further look-up of the next 10
// seconds fail at once, except those that need not ask. The asker is visited when its answer is
// there or its time is over. Main thread only.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/fwd.h"

// An IPv4 or IPv6 address with its port.
union host_address {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;

    [[nodiscard]] socklen_t length() const {
        return any.sa_family == AF_INET6 ? sizeof v6 : sizeof v4;
    }
    void set_port(std::uint16_t port);  // in host byte order
};

struct name_answer {
    int code = 0;                         // of getaddrinfo or getnameinfo; 0: found
    std::string name;                     // of an address; empty unless found
    std::vector<host_address> addresses;  // of a name: the resolver's order, port 0, at most 256
};

struct name_lookup;

// Both return an owned handle. `waiter` may be null: nobody is visited then.
[[nodiscard]] name_lookup* look_up_addresses(std::string_view host, conn* waiter);
// The name of a socket address; its text form is no name. An IPv4 address that came in over IPv6 is
// looked up as what it is.
[[nodiscard]] name_lookup* look_up_name(const sockaddr* address, socklen_t length, conn* waiter);

// The answer, which lives as long as the handle; null while it is under way.
[[nodiscard]] const name_answer* lookup_answer(name_lookup* lookup);
[[nodiscard]] inline bool lookup_done(name_lookup* lookup) {
    return lookup_answer(lookup) != nullptr;
}

// Frees the handle, at any time. Null is ignored.
void end_lookup(name_lookup* lookup);

struct lookup_ending {
    void operator()(name_lookup* lookup) const { end_lookup(lookup); }
};
using lookup_ptr = std::unique_ptr<name_lookup, lookup_ending>;

// The name of the request's peer, or of the daemon's end of its connection: null while it is not
// known. The first call of a request asks; the connection, which is visited when the answer is
// there, owns it until the request ends. A socket without an address has the empty name.
[[nodiscard]] const name_answer* peer_name(conn* c);
[[nodiscard]] const name_answer* own_name(conn* c);

// Lets the C library read its configuration of names once, before anybody asks; ends the process
// when there is no memory for it.
void resolver_init();

// Forgets all answers and leaves the thread to itself: a look-up that hangs holds up no ending
// process.
void resolver_fini();

// What asks, replaceable by tests. The first two are called on the thread.
struct resolver_backend {
    name_answer (*addresses)(const std::string& host);
    name_answer (*name)(const host_address& address);
    int (*name_servers)();  // how many are configured
};
void set_resolver_backend(const resolver_backend& backend);
