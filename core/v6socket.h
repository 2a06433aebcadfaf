// Dual-stack sockets: one interface for hosts with IPv4, IPv6 or both.
//
// The first call probes the host. A listening handle stands for up to two sockets on one port.
#pragma once

#include <sys/socket.h>

#include <cstddef>

void v6init();

// Probes the host; non-zero when an IPv6 socket would also receive IPv4 traffic. *err is an errno
// value when no socket could be created.
int isdualIP(int* err);

// Listens on `port` with both families where usable. The handle, or -1 with *err set to errno.
// TCP_NODELAY is set, so that accepted sockets inherit it.
int v6listen(int port, int backlog, int* err);

// Accepts on either socket of a handle. The descriptor, or -1. *kind is 1 for IPv4, 2 for IPv6, or
// an errno value. A time-out of 0 waits for ever.
int v6accept(int handle, sockaddr* address, socklen_t* length, int* kind, int timeout_ms);

// Always 0. Kept: listening handles are never marked as taken, so closing one does nothing.
int v6close(int handle);

// The handle's IPv6 (family 2) or IPv4 (family 1) descriptor, -1 when there is none.
int v6getsocket(int handle, int family);

int isipv4();
int isipv6();

// The numeric text of an IPv4 or IPv6 address in `buffer`; null for any other family. A mapped
// IPv4 address prints as plain IPv4.
const char* v6inet_ntop(const sockaddr* address, char* buffer, std::size_t length);

// 1 when the user exists and its name begins with "root", or when its id is 0; else 0.
int isRoot(const void* ignored, const char* name);

void v6lock();
void v6unlock();

// Writes to the trace stream while tracing is on.
[[gnu::format(printf, 1, 2)]] void v6printf(const char* format, ...);
