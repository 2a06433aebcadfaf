// The connection over which requests are forwarded to a target.
//
// A client's connection has at most one. It owns its descriptor, poll slot and secure channel from
// the first attempt to connect to the end, which is that of the object; the local stream refers to
// them while a request is being forwarded. Nothing here waits: advance() does what can be done now
// and has the client's connection visited when more can be.
//
//     looking_up -> connecting -> securing -> ready <-> kept
//
// Any of the first three may end in `failed`, at the latest at the deadline.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/fwd.h"
#include "core/resolver.h"
#include "lib/unique_fd.h"

// All that comes before a target is ready has this long.
inline constexpr std::int64_t target_limit_ms = 4000;

enum class target_state : std::uint8_t {
    looking_up,  // the addresses of the host
    connecting,  // to one address after the other
    securing,    // the channel's handshake
    ready,       // serves a request
    kept,        // connected, between two requests
    failed,      // everything is closed; `failure` says why
};

struct target {
    // Both begin; the first advance() comes with them. The deadline is a moment of monotonic_ms().
    // A name longer than 255 bytes or a port above 65535 fails.
    target(conn* client, std::string_view host_name, int port_number, bool use_channel,
           std::int64_t deadline);
    target(conn* client, const char* socket_path, std::int64_t deadline);
    target(const target&) = delete;
    target& operator=(const target&) = delete;
    target(target&&) = delete;
    target& operator=(target&&) = delete;
    ~target() { close(); }

    // Goes on as far as possible without waiting.
    target_state advance();

    // Whether a kept target leads there and has neither ended nor said anything.
    [[nodiscard]] bool serves(std::string_view host_name, int port_number, bool use_channel) const;
    // The request is over, the next one begins.
    void keep();
    void reuse();

    // Like recv and send, through the channel where there is one.
    ssize_t receive(void* buffer, std::size_t length);
    ssize_t deliver(const void* bytes, std::size_t length);

    conn* owner;
    std::string host;  // empty: a Unix-domain socket
    int port = 0;
    bool secure = false;
    bool reused = false;  // has served an earlier request
    target_state state = target_state::looking_up;
    unique_fd fd;  // never blocks
    int slot = -1;
    void* channel = nullptr;  // the library's; null: spoken to in clear text
    std::string failure;

  private:
    bool read_addresses();
    void connect_next();
    bool begin_connect(const sockaddr* address, socklen_t length);
    bool check_connect();
    bool set_up_channel();
    void stop_delays();
    void become_ready();
    void fail(std::string why);
    void drop_attempt();
    void close();

    std::int64_t deadline_ms_;
    std::int64_t attempt_ends_ms_ = 0;
    lookup_ptr lookup_;
    std::vector<host_address> addresses_;  // still to be tried, the next one last
    int last_error_ = 0;
    int writes_ = 0;  // in clear text, as far as they count
};

// Waits until the descriptor is writable: above 0 when it is, 0 when the time has passed or the
// wait failed.
int IsSktWriteable(int fd, int timeout_ms);

// Who begins connections, replaceable by tests: a descriptor that does not block, connected or on
// its way, or -1 with errno.
using target_connector = int (*)(const sockaddr* address, socklen_t length);
void set_target_connector(target_connector connector);
