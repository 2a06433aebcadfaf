#include "core/v6socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "lib/unique_fd.h"

namespace {

// A fixed marker, not a secret: it tells the probe's own connection from a stranger's.
constexpr std::string_view probe_token = "{cb546344-1dd1-11b2-945c-5abc090b20c8}";
constexpr int probe_backlog = 128;
constexpr int probe_wait_ms = 1000;
constexpr std::size_t list_step = 8;
constexpr long lock_pause_ns = 100'000;
constexpr unsigned pending_flag = 2;
constexpr unsigned lowest_flag = 1;
constexpr int kind_ipv4 = 1;
constexpr int kind_ipv6 = 2;

// Kept: nothing sets a flag, so an entry counts as free for v6close and no connection is ever
// pending. `taken` is what the search for the next handle goes by.
struct socket_entry {
    unsigned flags = 0;
    int fd6 = -1;
    int fd4 = -1;
    bool taken = false;
};

struct dual_stack_state {
    bool init = false;
    bool starting = false;
    bool isipv4 = false;
    bool isipv6 = false;
    bool isdualstack = false;
    bool isdualip = false;
    bool v6debug = false;
    std::FILE* logfile = nullptr;
    std::atomic<int> lock{0};
    std::vector<socket_entry> socklist;
    std::size_t next_entry = 0;
};

dual_stack_state state;

// The probe itself traces, so `starting` keeps v6init from being entered again.
void ensure_init() {
    if (!state.init && !state.starting) {
        v6init();
    }
}

// --- Addresses ---

// A wildcard or loopback address of either family, and the size that the kernel wants with it.
struct socket_address {
    sockaddr_storage storage{};
    socklen_t length = sizeof(sockaddr_storage);

    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
};

socket_address ipv6_wildcard(int port) {
    sockaddr_in6 in6{};
    in6.sin6_family = AF_INET6;
    in6.sin6_addr = in6addr_any;
    in6.sin6_port = htons(static_cast<std::uint16_t>(port));
    socket_address address;
    std::memcpy(&address.storage, &in6, sizeof in6);
    address.length = sizeof in6;
    return address;
}

socket_address ipv4_address(std::uint32_t host, int port) {
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = htonl(host);
    in.sin_port = htons(static_cast<std::uint16_t>(port));
    socket_address address;
    std::memcpy(&address.storage, &in, sizeof in);
    address.length = sizeof in;
    return address;
}

// --- The probe ---

// Packet filters may swallow what goes over the loopback interface: the probe never blocks.
bool readable_soon(int fd) {
    pollfd entry = {.fd = fd, .events = POLLIN, .revents = 0};
    return poll(&entry, 1, probe_wait_ms) == 1;
}

// A connection attempt of a non-blocking socket has come to a good end, or does so soon.
bool connects(int fd, socket_address target) {
    if (connect(fd, target.get(), target.length) == 0) {
        return true;
    }
    pollfd entry = {.fd = fd, .events = POLLOUT, .revents = 0};
    int error = 0;
    socklen_t length = sizeof error;
    return errno == EINPROGRESS && poll(&entry, 1, probe_wait_ms) == 1 &&
           getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 && error == 0;
}

// Binds the IPv6 socket to a port of the kernel's choice and listens; the port, 0 when it could not
// be read back, or -1.
int listen_for_probe(int fd6) {
    socket_address wildcard = ipv6_wildcard(0);
    if (bind(fd6, wildcard.get(), wildcard.length) != 0) {
        v6printf("isdualIP: Bind on v6 socket failed\n");
        return -1;
    }
    if (listen(fd6, probe_backlog) != 0) {
        v6printf("isdualIP: Listen on v6 socket failed\n");
        return -1;
    }
    sockaddr_in6 bound{};
    socklen_t length = sizeof bound;
    if (getsockname(fd6, reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
        v6printf("isdualIP: getsockname on v6 socket failed\n");
        return 0;
    }
    return ntohs(bound.sin6_port);
}

// Whether a connection to 127.0.0.1 arrives at the IPv6 listener.
bool token_arrives(int fd6, int fd4) {
    const int port = listen_for_probe(fd6);
    if (port < 0) {
        return false;
    }
    if (!connects(fd4, ipv4_address(INADDR_LOOPBACK, port))) {
        return false;
    }
    if (port == 0) {
        v6printf("isdualIP: Connect was successfull, but could not get portname\n");
        return false;
    }
    if (!readable_soon(fd6)) {
        return false;
    }
    const unique_fd accepted(accept4(fd6, nullptr, nullptr, SOCK_CLOEXEC));
    if (!accepted ||
        send(fd4, probe_token.data(), probe_token.size(), MSG_NOSIGNAL) !=
            static_cast<ssize_t>(probe_token.size()) ||
        !readable_soon(accepted.get())) {
        return false;
    }
    char received[probe_token.size() + 1];
    const ssize_t n = recv(accepted.get(), received, sizeof received, 0);
    return n >= static_cast<ssize_t>(probe_token.size()) &&
           std::string_view(received, probe_token.size()) == probe_token;
}

// --- Listening ---

// What waits in the kernel for a client whose window is full. Much more and the reading of a slow
// one would not show for minutes, as if nothing moved, and thousands of them would take gigabytes.
constexpr int unsent_bytes = 128 * 1024;

void set(int fd, int level, int option, int value) {
    (void)setsockopt(fd, level, option, &value, sizeof value);  // the socket works without it, too
}

void keep_to_ipv6(int fd) {
    const int on = 1;
    if (setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) == 0) {
        v6printf("v6listen: setsockopt IPV6_V6ONLY set.\n");
    } else {
        v6printf("v6listen: setsockopt IPV6_V6ONLY failed.\n");
    }
}

// A listening socket of one family, or -1 with errno set.
int listen_on(int family, int port, int backlog) {
    unique_fd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!fd) {
        return -1;
    }
    // Whatever became of the probe: with both families there is a socket for each.
    if (family == AF_INET6 && state.isipv4) {
        keep_to_ipv6(fd.get());
    }
    set(fd.get(), SOL_SOCKET, SO_REUSEADDR, 1);
    // Accepted sockets have these, too.
    set(fd.get(), IPPROTO_TCP, TCP_NODELAY, 1);
    set(fd.get(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, unsent_bytes);
    socket_address address =
        family == AF_INET6 ? ipv6_wildcard(port) : ipv4_address(INADDR_ANY, port);
    int error = 0;
    if (bind(fd.get(), address.get(), address.length) != 0) {
        error = errno;
        v6printf("v6listen: Bind on v6 socket failed\n");
    } else if (listen(fd.get(), backlog) != 0) {
        error = errno;
        v6printf("v6listen: Listen on v6 socket failed\n");
    }
    if (error != 0) {
        fd.reset();
        errno = error;
        return -1;
    }
    v6printf("v6listen: Listen successfull on %d port for %s\n", port,
             family == AF_INET6 ? "ipv6" : "ipv4");
    return fd.release();
}

// Null for handles that were never given out.
socket_entry* entry_at(int handle) {
    return handle >= 0 && static_cast<std::size_t>(handle) < state.socklist.size()
               ? &state.socklist[static_cast<std::size_t>(handle)]
               : nullptr;
}

bool entry_free(std::size_t index) {
    return state.socklist[index].flags == 0 && !state.socklist[index].taken;
}

// Moves next_entry to the next free entry: onwards, else from the start, else a new one.
void advance_next_entry() {
    std::vector<socket_entry>& list = state.socklist;
    std::size_t index = state.next_entry;
    while (index < list.size() && !entry_free(index)) {
        ++index;
    }
    if (index == list.size()) {
        index = 0;
        while (index < list.size() && !entry_free(index)) {
            ++index;
        }
    }
    if (index == list.size()) {
        list.resize(list.size() + list_step);
    }
    state.next_entry = index;
}

// --- Accepting ---

// The family is known from the socket: accepted addresses of an IPv6 socket may be mapped ones.
int accept_on(int fd, int result_kind, sockaddr* address, socklen_t* length, int* kind) {
    const int accepted = accept4(fd, address, length, SOCK_CLOEXEC);
    const bool ok = accepted >= 0;
    *kind = ok ? result_kind : errno;
    const char* family = result_kind == kind_ipv4 ? "v4" : "v6";
    if (ok) {
        v6printf("v6accept: %s connection accepted\n", family);
    } else {
        v6printf("v6accept: error in %s accept\n", family);
    }
    return accepted;
}

// Waits for either socket. Kept: the part of the time-out below a second counts as microseconds.
int wait_for_either(pollfd (&entries)[2], int timeout_ms) {
    const timespec limit = {.tv_sec = timeout_ms / 1000, .tv_nsec = timeout_ms % 1000 * 1000L};
    return ppoll(entries, 2, timeout_ms == 0 ? nullptr : &limit, nullptr);
}

}  // namespace

void v6init() {
    if (state.init || state.starting) {
        return;
    }
    state.starting = true;
    if (const char* path = std::getenv("IPV6_TRACEFILE"); path != nullptr) {
        state.logfile = std::fopen(path, "a+e");
        if (state.logfile == nullptr) {
            std::printf("Error in the opening the %s logfile, the trace will sent to stdout\n",
                        path);
            state.logfile = stdout;
        }
        state.v6debug = true;
    }
    int error = 0;
    if (isdualIP(&error) != 0) {
        v6printf("v6init: This is dual IP machine\n");
    } else if (error != 0) {
        v6printf("v6init: isdualIP returned with error %d\n", error);
    } else if (state.isipv6 && state.isipv4 && state.isdualstack) {
        v6printf("v6init: This is a dual stack machine\n");
    } else if (state.isipv6) {
        v6printf("v6init: This is a pure ipv6 machine\n");
    } else if (state.isipv4) {
        v6printf("v6init: This is a pure ipv4 machine\n");
    }
    state.socklist.resize(list_step);
    state.starting = false;
    state.init = true;
}

int isdualIP(int* err) {
    ensure_init();
    *err = 0;
    const unique_fd fd6(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int error = errno;
    state.isipv6 = static_cast<bool>(fd6);
    if (state.isipv6) {
        v6printf("isdualIP: ipv6 support available\n");
    }
    const unique_fd fd4(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    error = fd4 ? error : errno;
    state.isipv4 = static_cast<bool>(fd4);
    if (state.isipv4) {
        v6printf("isdualIP: ipv4 support available\n");
    }
    if (!state.isipv6 && !state.isipv4) {
        v6printf("isdualIP: Neither ipv4 nor ipv6 socket can be created\n");
        *err = error;
        return 0;
    }
    const bool both = state.isipv6 && state.isipv4;
    // A host with both families is dual IP when its IPv6 sockets get IPv4 clients, too; else dual
    // stack.
    state.isdualip = both && token_arrives(fd6.get(), fd4.get());
    state.isdualstack = both && !state.isdualip;
    return state.isdualip ? 1 : 0;
}

int v6listen(int port, int backlog, int* err) {
    ensure_init();
    if (!state.isipv6 && !state.isipv4) {
        *err = EAFNOSUPPORT;
        return -1;
    }
    unique_fd fd6;
    unique_fd fd4;
    if (state.isipv6) {
        // Kept: a family that exists but cannot be bound fails the whole port.
        fd6.reset(listen_on(AF_INET6, port, backlog));
        if (!fd6) {
            *err = errno;
            return -1;
        }
    }
    if (state.isipv4) {
        fd4.reset(listen_on(AF_INET, port, backlog));
        if (!fd4) {
            *err = errno;
            return -1;
        }
    }
    v6lock();
    const std::size_t handle = state.next_entry;
    state.socklist[handle] = {.flags = state.socklist[handle].flags & lowest_flag,
                              .fd6 = fd6.release(),
                              .fd4 = fd4.release(),
                              .taken = true};
    advance_next_entry();
    v6unlock();
    *err = 0;
    return static_cast<int>(handle);
}

int v6accept(int handle, sockaddr* address, socklen_t* length, int* kind, int timeout_ms) {
    ensure_init();
    socket_entry* entry = entry_at(handle);
    if (entry == nullptr) {
        *kind = EBADF;
        return -1;
    }
    if ((entry->flags & pending_flag) != 0) {
        v6printf("v6accept: PENDING socket is processed\n");
        entry->flags &= ~pending_flag;
        return accept_on(entry->fd6, kind_ipv6, address, length, kind);
    }
    pollfd entries[2] = {{.fd = entry->fd4, .events = POLLIN, .revents = 0},
                         {.fd = entry->fd6, .events = POLLIN, .revents = 0}};
    const int ready = wait_for_either(entries, timeout_ms);
    if (ready < 0) {
        *kind = errno;
        v6printf("v6accept: error in select\n");
        return -1;
    }
    if (ready == 0) {
        return -1;
    }
    if (entries[0].revents != 0) {
        if (entries[1].revents != 0) {
            entry->flags &= pending_flag;  // Kept: the next wait finds the IPv6 connection again
        }
        return accept_on(entry->fd4, kind_ipv4, address, length, kind);
    }
    return accept_on(entry->fd6, kind_ipv6, address, length, kind);
}

int v6close(int handle) {
    ensure_init();
    socket_entry* entry = entry_at(handle);
    if (handle < 1 || entry == nullptr || entry->flags == 0) {
        return 0;
    }
    // Reached only if an entry should ever carry a flag.
    unique_fd(entry->fd4).reset();
    unique_fd(entry->fd6).reset();
    v6lock();
    *entry = socket_entry();
    v6unlock();
    return 0;
}

int v6getsocket(int handle, int family) {
    ensure_init();
    const socket_entry* entry = entry_at(handle);
    if (entry == nullptr) {
        return -1;
    }
    if (family == kind_ipv6) {
        return entry->fd6;
    }
    return family == kind_ipv4 ? entry->fd4 : -1;
}

int isipv4() {
    ensure_init();
    return state.isipv4 ? 1 : 0;
}

int isipv6() {
    ensure_init();
    return state.isipv6 ? 1 : 0;
}

const char* v6inet_ntop(const sockaddr* address, char* buffer, std::size_t length) {
    ensure_init();
    const auto size = static_cast<socklen_t>(length);
    if (address->sa_family == AF_INET) {
        sockaddr_in in{};
        std::memcpy(&in, address, sizeof in);
        return inet_ntop(AF_INET, &in.sin_addr, buffer, size);
    }
    if (address->sa_family != AF_INET6) {
        return nullptr;
    }
    sockaddr_in6 in6{};
    std::memcpy(&in6, address, sizeof in6);
    if (IN6_IS_ADDR_V4MAPPED(&in6.sin6_addr)) {
        return inet_ntop(AF_INET, &in6.sin6_addr.s6_addr[12], buffer, size);
    }
    return inet_ntop(AF_INET6, &in6.sin6_addr, buffer, size);
}

int isRoot(const void* /*ignored*/, const char* name) {
    ensure_init();
    const passwd* user = getpwnam(name);
    if (user == nullptr) {
        return 0;
    }
    return std::string_view(name).substr(0, 4) == "root" || user->pw_uid == 0 ? 1 : 0;
}

// Taken for a few assignments only; an embedder's thread that meets it sleeps a moment.
void v6lock() {
    ensure_init();
    const timespec pause = {.tv_sec = 0, .tv_nsec = lock_pause_ns};
    for (int expected = 0; !state.lock.compare_exchange_weak(expected, 1); expected = 0) {
        if (ppoll(nullptr, 0, &pause, nullptr) != 0) {
            v6printf("select failed\n");
        }
    }
}

void v6unlock() {
    ensure_init();
    --state.lock;
}

void v6printf(const char* format, ...) {
    ensure_init();
    if (!state.v6debug || state.logfile == nullptr) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    (void)std::vfprintf(state.logfile, format, arguments);
    va_end(arguments);
    (void)std::fflush(state.logfile);
}
