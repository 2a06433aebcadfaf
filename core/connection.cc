#include "core/connection.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>

#include "core/context.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/poll_set.h"
#include "core/request.h"
#include "lib/plat.h"
#include "lib/qz_vector.h"

namespace {

constexpr std::int64_t drain_limit_s = 2;

int draining_count = 0;

// Moved out first: an assignment alone would leave the texts their room, and thousands of idle
// connections what their largest requests took.
void end_exchange(conn* c) {
    exchange& current = *c;
    wipe_authorization(&c->request);
    const exchange over = std::move(current);
    current = exchange();
}

void free_connection(conn* c) {
    if (c->state == conn_state::draining) {
        --draining_count;
    }
    stop_stream(&c->local);
    c->target.reset();
    stop_stream(&c->remote);
    forget_visit(c);
    end_exchange(c);
    release_identity(c);
    if (c->granted != nullptr) {
        qz_vector_delete(c->granted);
    }
    {
        const critical_section_guard guard(&c->ctx->lock);
        c->unlink();
        --c->ctx->active_connections;
    }
    delete_conn(c);
}

// Whether a byte lies in the socket that nobody has asked for.
bool has_waiting_byte(int fd) {
    char byte = 0;
    return recv(fd, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT) > 0;
}

// Whether closing now could meet input that nobody has read. What a look finds is not all: it loses
// the race with bytes on their way, so only a client's own word that nothing follows is trusted.
bool may_have_unread_input(const conn* c) {
    const stream& remote = c->remote;
    return remote.io != nullptr &&
           (!c->request.is_last || remote.pending() > 0 || c->body_left > 0 ||
            remote.total < remote.content_length || has_waiting_byte(remote.channel.fd));
}

// Closing a socket with unread input resets it and may take the reply away from the client, so
// what is still arriving is read and dropped for a moment first.
void start_draining(conn* c) {
    if (c->remote.io->say_goodbye != nullptr) {
        c->remote.io->say_goodbye(&c->remote);
    }
    give_back_buffer(&c->local);
    give_back_buffer(&c->remote);
    end_exchange(c);
    (void)shutdown(c->remote.channel.fd, SHUT_WR);  // the peer may have gone already
    c->state = conn_state::draining;
    ++draining_count;
    c->client.may_hold_bytes = false;
    c->expire_time = monotonic_seconds + drain_limit_s;
    visit_at(c, expiry_ms(c));
    set_poll_events(c->remote.poll_index, c->remote.channel.fd, POLLIN);
}

// One connection, one life: drains what is still arriving, then ends the process. The client hears
// of the end first: the companion may take two seconds to go.
[[noreturn]] void end_inetd_process(conn* c, bool alive) {
    stop_stream(&c->local);
    const bool drains = alive && may_have_unread_input(c);
    (void)shutdown(c->remote.channel.fd, SHUT_WR);
    if (drains) {
        pollfd entry{.fd = c->remote.channel.fd, .events = POLLIN, .revents = 0};
        const std::int64_t deadline = monotonic_ms() + drain_limit_s * 1000;
        char dropped[4096];
        while (monotonic_ms() <= deadline && poll(&entry, 1, 1000) > 0 &&
               recv(entry.fd, dropped, sizeof dropped, 0) > 0) {
        }
    }
    std::exit(0);
}

void write_access_line(conn* c) {
    if (c->ctx->access_log != nullptr) {
        log_access(c->ctx->access_log, c);
    }
}

void keep_alive(conn* c) {
    const io_class* io = c->local.io;
    if (io != nullptr && (io->keep == nullptr || !io->keep(&c->local))) {
        stop_stream(&c->local);
    }
    c->local.reset();
    end_exchange(c);
    stream& remote = c->remote;
    remote.flags = sf_readable | sf_writable;
    remote.content_length = 0;
    remote.header_length = 0;
    remote.total = remote.pending();
    c->birth_time = current_time;
}

}  // namespace

conn* new_conn(shttpd_ctx* ctx) {
    conn* c = new (std::nothrow) conn;
    if (c == nullptr) {
        return nullptr;
    }
    c->ctx = ctx;
    for (stream* s : {&c->local, &c->remote}) {
        s->connection = c;
        s->size = static_cast<std::size_t>(ctx->io_buf_size);
    }
    return c;
}

std::int64_t expiry_ms(const conn* c) {
    return (c->expire_time + 1) * 1000;
}

void renew_expiry(conn* c) {
    constexpr std::int64_t idle_limit_s = 300;
    c->expire_time = monotonic_seconds + idle_limit_s;
}

void delete_conn(conn* c) {
    give_back_buffer(&c->local);
    give_back_buffer(&c->remote);
    delete c;
}

bool close_dead(conn* c) {
    if (c->state == conn_state::serving) {
        write_access_line(c);
    }
    if (c->ctx->inetd_mode != 0) {
        end_inetd_process(c, false);
    }
    c->close_after = true;
    free_connection(c);
    return false;
}

bool discard_input(conn* c) {
    static char dropped[16384];
    stream& remote = c->remote;
    const bool ready = (poll_revents(remote.poll_index) & POLLIN) != 0 || c->client.may_hold_bytes;
    if (!ready) {
        return true;
    }
    c->client.may_hold_bytes = false;
    const ssize_t n = remote.io->read(&remote, dropped, sizeof dropped);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
        return close_dead(c);
    }
    return true;
}

bool disconnect(conn* c) {
    write_access_line(c);
    if (c->ctx->inetd_mode != 0) {
        end_inetd_process(c, true);
    }
    if (!c->close_after) {
        keep_alive(c);
        return true;
    }
    stop_stream(&c->local);
    c->target.reset();
    if (may_have_unread_input(c)) {
        start_draining(c);
        return true;
    }
    free_connection(c);
    return false;
}

void end_connection(conn* c) {
    if (c->state == conn_state::serving) {
        write_access_line(c);
    }
    free_connection(c);
}

int draining_connections() {
    return draining_count;
}

void release_identity(conn* c) {
    if (c->client_credential != nullptr) {
        (void)molbAtFree(c->client_credential);
        c->client_credential = nullptr;
    }
    if (c->groups != nullptr) {
        qz_vector_destroy(c->groups);
        c->groups = nullptr;
    }
    c->user_name.clear();
}

int local_port(const conn* c) {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    if (getsockname(c->remote.channel.fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    if (address.ss_family == AF_INET) {
        return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
    }
    if (address.ss_family == AF_INET6) {
        return ntohs(reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port);
    }
    return 0;
}
