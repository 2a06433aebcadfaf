#include "handlers/proxy_connect.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

#include "core/connection.h"
#include "core/context.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/poll_set.h"
#include "core/string.h"
#include "handlers/proxy_target.h"
#include "lib/unique_fd.h"

namespace {

using clock_type = std::chrono::steady_clock;

constexpr std::chrono::seconds connect_limit{4};  // for all addresses of a target together
constexpr std::size_t host_max = 255;
constexpr int port_max = 65535;

struct address_deleter {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using address_list = std::unique_ptr<addrinfo, address_deleter>;

// Never negative: poll() would take that for "for ever".
int milliseconds_until(clock_type::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now());
    return std::max(0, static_cast<int>(left.count()));
}

// All addresses of the host in the resolver's order; empty when there are none. Waits for the name
// servers as long as the system's resolver does.
address_list resolve(const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &list) != 0) {
        return nullptr;
    }
    return address_list(list);
}

void set_port(addrinfo* address, int port) {
    const in_port_t number = htons(static_cast<std::uint16_t>(port));
    if (address->ai_family == AF_INET) {
        reinterpret_cast<sockaddr_in*>(address->ai_addr)->sin_port = number;
    } else if (address->ai_family == AF_INET6) {
        reinterpret_cast<sockaddr_in6*>(address->ai_addr)->sin6_port = number;
    }
}

// A signal does not stop a connect: it goes on in the background like one in progress.
bool connect_started(int fd, const addrinfo& address) {
    return connect(fd, address.ai_addr, address.ai_addrlen) == 0 || errno == EINPROGRESS ||
           errno == EINTR || errno == EALREADY || errno == EEXIST;
}

// A connected, non-blocking socket, or an empty one. Heads and bodies are written in one piece
// where that is possible, so nothing is gained by holding small packets back.
unique_fd connect_to(const addrinfo& address, clock_type::time_point deadline) {
    unique_fd fd(socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd || !connect_started(fd.get(), address) ||
        IsSktWriteable(fd.get(), milliseconds_until(deadline)) <= 0) {
        return unique_fd();
    }
    int error = 0;
    socklen_t length = sizeof(error);
    if (getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
        return unique_fd();
    }
    const int on = 1;
    (void)setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return fd;
}

// "localhost" may have an address that nobody listens on in front of the right one.
unique_fd connect_to_host(const std::string& host, int port, clock_type::time_point deadline) {
    const address_list addresses = resolve(host);
    for (addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
        set_port(address, port);
        if (unique_fd fd = connect_to(*address, deadline)) {
            return fd;
        }
    }
    return unique_fd();
}

void close_channel(conn* c) {
    if (c->proxy_channel != nullptr) {
        (void)molbAtSecConnClose(&c->proxy_channel);
        c->proxy_channel = nullptr;
    }
}

// Sets up the target's secure channel. The library bounds its handshake; one that asks to be
// called again is given until the deadline.
bool secure_channel(conn* c, int fd, clock_type::time_point deadline) {
    constexpr std::uint32_t connect_mode = 1;
    constexpr int retry_ms = 100;
    for (;;) {
        char* text = nullptr;
        const std::uint32_t result =
            molbAtSecConnConnect(fd, c->ctx->at_handle, connect_mode, &c->proxy_channel, &text);
        if (text != nullptr) {
            elog(elog_info, c, "proxy: %s", text);
            (void)molbAtFree(text);
        }
        if (result == at_ok && c->proxy_channel != nullptr) {
            return true;
        }
        if (result != at_again || milliseconds_until(deadline) == 0) {
            break;
        }
        pollfd entry = {.fd = fd, .events = POLLIN, .revents = 0};
        (void)poll(&entry, 1, std::min(retry_ms, milliseconds_until(deadline)));
    }
    close_channel(c);
    return false;
}

// The record keeps descriptor and slot; the stream uses them while it serves the request. What the
// slot last reported is older than this use.
void share_with_local_stream(conn* c, const proxy_record& record) {
    c->local.channel.fd = record.fd;
    c->local.poll_index = record.poll_index;
    clear_poll_revents(record.poll_index);
}

// A kept target that is readable has closed its side, or says what nobody asked for.
bool can_be_reused(const proxy_record& record, const proxy_target& target, bool secure) {
    constexpr int limit_ms = std::chrono::milliseconds(connect_limit).count();
    if (record.port != target.port || record.secure != secure ||
        !equals_nocase(record.host, target.host)) {
        return false;
    }
    pollfd entry = {.fd = record.fd, .events = POLLIN | POLLOUT, .revents = 0};
    const int ready = poll(&entry, 1, limit_ms);
    return ready > 0 && entry.revents == POLLOUT;
}

}  // namespace

int IsSktWriteable(int fd, int timeout_ms) {
    const auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    pollfd entry = {.fd = fd, .events = POLLOUT, .revents = 0};
    for (;;) {
        const int ready = poll(&entry, 1, milliseconds_until(deadline));
        if (ready >= 0) {
            return ready;
        }
        if (errno != EAGAIN && errno != EINTR) {
            return 0;
        }
    }
}

int connect_unsecure(conn* c, const proxy_target& target, bool secure) {
    if (c->proxy != nullptr && can_be_reused(*c->proxy, target, secure)) {
        share_with_local_stream(c, *c->proxy);
        c->proxy->reused = true;
        return c->proxy->fd;
    }
    proxy_release(c);
    if (target.host.size() > host_max || target.port > port_max) {
        return -1;
    }
    const auto deadline = clock_type::now() + connect_limit;
    unique_fd fd = connect_to_host(target.host, target.port, deadline);
    if (!fd || (secure && !secure_channel(c, fd.get(), deadline))) {
        return -1;
    }
    // Only now: a slot whose descriptor is closed again would be reported for ever.
    const int index = get_poll_index(fd.get());
    if (index < 0) {
        close_channel(c);
        return -1;
    }
    set_poll_owner(index, c);
    c->proxy = new proxy_record{.port = target.port,
                                .host = target.host,
                                .fd = fd.release(),
                                .poll_index = index,
                                .secure = secure};
    share_with_local_stream(c, *c->proxy);
    return c->proxy->fd;
}

int connect_local_service(conn* c) {
    const std::string& role = c->request.recorded_role;
    const char* path = nullptr;
    if (role.starts_with("admin")) {
        path = paths.tuvo_admin_socket;
    } else if (role.starts_with("pub")) {
        path = paths.tuvo_query_socket;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path == nullptr || std::strlen(path) >= sizeof(address.sun_path)) {
        return -1;
    }
    std::memcpy(address.sun_path, path, std::strlen(path));
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd) {
        return -1;
    }
    // A service whose queue is full answers EAGAIN and counts as absent: there is nothing to wait
    // on.
    const bool connected =
        connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ||
        errno == EEXIST || errno == EINPROGRESS;
    if (!connected || !poll_stream(&c->local, fd.get())) {
        return -1;
    }
    c->local.channel.fd = fd.release();
    return c->local.channel.fd;
}
