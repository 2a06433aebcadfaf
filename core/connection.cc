#include "core/connection.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "core/context.h"
#include "core/file_sender.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/poll_set.h"
#include "core/request.h"
#include "core/route.h"
#include "lib/plat.h"
#include "lib/qz_vector.h"

namespace {

constexpr std::int64_t drain_limit_s = 2;

int draining_count = 0;

constexpr short broken_events = POLLERR | POLLHUP | POLLNVAL;

// --- Steps of one visit ---

bool is_dead(const conn* c) {
    return monotonic_seconds > c->expire_time || c->remote.has(sf_closed) ||
           (poll_revents(c->remote.poll_index) & broken_events) != 0;
}

// An unfinished write to a secure target must be repeated from the same address.
bool may_compact(const conn* c) {
    return !c->remote.has(sf_parsed) ||
           (c->remote.head >= c->remote.size && c->proxy_channel == nullptr);
}

void compact(stream* s) {
    const std::size_t pending = s->pending();
    std::memmove(s->buffer, s->buffer + s->tail, pending);
    s->tail = 0;
    s->head = pending;
}

// Room for input, counting what the next visit gains by compacting.
bool has_input_room(const conn* c) {
    return c->remote.room() > 0 || (c->remote.tail > 0 && may_compact(c));
}

// Whether the announced body has been read; one without announced length never is.
bool body_complete(const conn* c) {
    return c->remote.has(sf_parsed) && c->remote.content_length > 0 &&
           c->remote.total >= c->remote.content_length;
}

void read_from_client(conn* c) {
    stream& remote = c->remote;
    if (remote.tail > 0 && may_compact(c)) {
        compact(&remote);
    }
    const short events = poll_revents(remote.poll_index);
    const bool ready = (events & POLLIN) != 0 || c->remote_pending || c->fresh;
    c->fresh = false;
    if (ready && remote.io != nullptr && !body_complete(c)) {
        read_stream(&remote);
    }
    if ((events & POLLRDHUP) != 0 && body_complete(c)) {
        stop_stream(&remote);  // a client that ends its side has gone
    }
}

void body_to_handler(conn* c) {
    stream& local = c->local;
    const std::uint64_t body = std::min<std::uint64_t>(c->remote.pending(), c->request.body_left);
    const bool deliverable = local.has(sf_writable) && local.io != nullptr &&
                             local.io->write != nullptr &&
                             (local.poll_index >= 0 || local.io == &io_file);
    if (body == 0 || !deliverable) {
        return;
    }
    const std::size_t moved = write_stream(&c->remote, &local, static_cast<std::size_t>(body));
    if (c->request.body_left != unlimited_body) {
        c->request.body_left -= moved;
    }
}

void reply_from_handler(conn* c) {
    stream& local = c->local;
    const short events = poll_revents(local.poll_index);
    if (local.io == &io_proxy && (events & POLLNVAL) != 0) {
        c->close_after = true;
        send_server_error(c, 500, "Could not connect to proxy target");
        return;
    }
    const bool ready = local.has(sf_always_ready) || c->proxy_pending ||
                       (events & (POLLIN | POLLHUP | POLLERR)) != 0;
    if (local.io != nullptr && !local.has(sf_closed) && local.has(sf_readable) && ready &&
        local.room() > 0 && !sends_file_directly(c)) {
        read_stream(&local);
    }
}

// Whether the handler has given all of its reply; some of it may still be in the buffer.
bool has_ended(const stream& local) {
    return local.has(sf_closed) ||
           (local.content_length > 0 && local.total >= local.content_length);
}

void reply_to_client(conn* c) {
    if (c->remote.io == nullptr) {
        return;
    }
    if (sends_file_directly(c)) {
        send_file_directly(c);
    } else if (c->local.pending() > 0) {
        if (c->close_after && has_ended(c->local)) {
            c->local.flags |= sf_more_follows;  // one packet carries the last bytes and the end
        }
        // Room that a write has made is worth another call of a handler that found too little.
        if (write_stream(&c->local, &c->remote, c->local.pending()) > 0) {
            c->idle_call = false;
        }
    }
}

// Whether the handler needs no descriptor to go on.
bool may_be_called(const stream& local) {
    return local.io != nullptr && local.has(sf_always_ready) && local.has(sf_readable) &&
           !local.has(sf_closed);
}

// --- Poll events, decided here and nowhere else ---

short remote_events(const conn* c) {
    const stream& local = c->local;
    short events = 0;
    if (body_complete(c)) {
        events |= POLLRDHUP;
    } else if (has_input_room(c)) {
        events |= POLLIN;
    }
    if (local.pending() > 0 || (may_be_called(local) && !c->idle_call)) {
        events |= POLLOUT;
    }
    return events;
}

short local_events(const conn* c) {
    const stream& local = c->local;
    short events = 0;
    // Of a reply that is complete nothing more is read, whatever its sender does.
    if (local.has(sf_readable) && local.room() > 0 && !has_ended(local)) {
        events |= POLLIN;
    }
    if (local.has(sf_writable) && c->remote.pending() > 0 && c->request.body_left > 0) {
        events |= POLLOUT;
    }
    return events;
}

void update_events(conn* c) {
    if (c->remote.poll_index >= 0) {
        set_poll_events(c->remote.poll_index, c->remote.channel.fd, remote_events(c));
    }
    if (c->local.poll_index >= 0) {
        const short events = local_events(c);
        if (events != 0) {
            set_poll_events(c->local.poll_index, c->local.channel.fd, events);
        } else {
            park_poll_index(c->local.poll_index);  // a hang-up would be reported for ever
        }
    }
}

// --- The end of a request ---

bool is_finished(const conn* c) {
    return has_ended(c->local) && c->local.pending() == 0;
}

void reset_request(request_data* request) {
    namespace_release(request->ns);
    request->ns = nullptr;
    request->status = 0;
    request->method = method_get;
    request->major = request->minor = 0;
    request->text.clear();
    request->headers_start = 0;
    request->uri.clear();
    request->query.clear();
    request->has_query = false;
    request->path_info.clear();
    request->mime = nullptr;
    request->role.clear();
    request->recorded_role.clear();
    request->headers = header_values();
    request->typed_user.clear();
    request->refusal_logged = false;
    request->headers_scanned = 0;
    request->is_last = false;
    request->body_left = 0;
    request->sent = 0;
    request->peer_lookup.reset();
    request->own_lookup.reset();
}

void reset_local(conn* c) {
    stream& local = c->local;
    local.channel = stream_channel();
    local.poll_index = -1;
    local.clear_buffer();
    local.total = 0;
    local.io = nullptr;
    local.header_length = 0;
    local.content_length = 0;
    local.flags = 0;
}

void free_connection(conn* c) {
    if (c->state == conn_state::draining) {
        --draining_count;
    }
    stop_stream(&c->local);
    proxy_release(c);
    stop_stream(&c->remote);
    forget_visit(c);
    reset_request(&c->request);
    release_identity(c);
    if (c->granted != nullptr) {
        qz_vector_delete(c->granted);
    }
    enter_critical_section(&c->ctx->lock);
    c->unlink();
    --c->ctx->active_connections;
    leave_critical_section(&c->ctx->lock);
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
           (!c->request.is_last || remote.pending() > 0 || c->request.body_left > 0 ||
            remote.total < remote.content_length || has_waiting_byte(remote.channel.fd));
}

// Closing a socket with unread input resets it and may take the reply away from the client, so
// what is still arriving is read and dropped for a moment first.
void start_draining(conn* c) {
    if (c->remote.io == &io_molbat) {
        // Says goodbye inside the channel; what still arrives is dropped undeciphered.
        (void)molbAtSecConnClose(&c->client_channel);
        c->client_channel = nullptr;
        c->remote.io = &io_socket;
    }
    (void)shutdown(c->remote.channel.fd, SHUT_WR);  // the peer may have gone already
    c->state = conn_state::draining;
    ++draining_count;
    c->remote_pending = false;
    c->expire_time = monotonic_seconds + drain_limit_s;
    visit_at(c, expiry_ms(c));
    set_poll_events(c->remote.poll_index, c->remote.channel.fd, POLLIN);
}

// One connection, one life: drains what is still arriving, then ends the process.
[[noreturn]] void end_inetd_process(conn* c, bool alive) {
    stop_stream(&c->local);
    if (alive && may_have_unread_input(c)) {
        (void)shutdown(c->remote.channel.fd, SHUT_WR);
        pollfd entry{.fd = c->remote.channel.fd, .events = POLLIN, .revents = 0};
        const std::int64_t deadline = monotonic_ms() + drain_limit_s * 1000;
        while (monotonic_ms() <= deadline && poll(&entry, 1, 1000) > 0 &&
               recv(entry.fd, c->remote.buffer, c->remote.size, 0) > 0) {
        }
    }
    std::exit(0);
}

void write_access_line(conn* c) {
    if (c->ctx->access_log != nullptr) {
        log_access(c->ctx->access_log, c);
    }
}

// Ends a connection whose client has gone, or that has expired.
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

// Reads and drops input of a muted or draining connection. Returns false when it was freed.
bool discard_input(conn* c) {
    stream& remote = c->remote;
    const bool ready = (poll_revents(remote.poll_index) & POLLIN) != 0 || c->remote_pending;
    if (!ready) {
        return true;
    }
    c->remote_pending = false;
    const ssize_t n = remote.io->read(&remote, remote.buffer, remote.size);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
        return close_dead(c);
    }
    return true;
}

void keep_alive(conn* c) {
    const bool serves_target = c->proxy != nullptr && c->local.io == &io_proxy &&
                               c->local.poll_index == c->proxy->poll_index;
    if (serves_target) {
        // The target stays connected; anything that happens on it while it is idle drops it.
        set_poll_events(c->proxy->poll_index, c->proxy->fd, POLLIN);
        clear_poll_revents(c->proxy->poll_index);
        c->proxy_pending = false;
    } else if (c->local.io != nullptr) {
        stop_stream(&c->local);
    }
    reset_local(c);
    reset_request(&c->request);
    stream& remote = c->remote;
    remote.flags = sf_handshake_done | sf_readable | sf_writable;
    remote.content_length = 0;
    remote.header_length = 0;
    remote.total = remote.pending();
    c->birth_time = current_time;
}

// Parses and routes what the buffer holds. False when there is nothing to serve yet.
bool start_request(conn* c) {
    if (c->remote.pending() == 0) {
        return false;
    }
    switch (parse_request(c)) {
        case parse_result::incomplete:
            compact(&c->remote);  // the rest needs room, or it would never be asked for
            return false;
        case parse_result::muted:
            c->state = conn_state::muted;
            c->remote.clear_buffer();
            return false;
        case parse_result::failed:
            return true;
        case parse_result::parsed:
            route_request(c);
            return true;
    }
    return false;
}

// A reply that the client can't tell from a complete one, or a body that nobody read, ends the
// connection.
void judge_keep_alive(conn* c) {
    const stream& local = c->local;
    if (local.total < local.content_length || c->request.body_left > 0 || c->request.sent == 0) {
        c->close_after = true;
    }
}

void drop_idle_target(conn* c) {
    if (c->proxy != nullptr && c->local.poll_index != c->proxy->poll_index &&
        poll_revents(c->proxy->poll_index) != 0) {
        proxy_release(c);
    }
}

}  // namespace

conn* new_conn(shttpd_ctx* ctx) {
    const auto size = static_cast<std::size_t>(ctx->io_buf_size);
    constexpr std::size_t alignment = alignof(std::max_align_t);
    const std::size_t record = (sizeof(conn) + alignment - 1) / alignment * alignment;
    // Behind the client's buffer lies room for the head that a proxied request gets in front.
    void* memory = std::malloc(record + (size + 1) + (2 * size + 1));
    if (memory == nullptr) {
        return nullptr;
    }
    conn* c = new (memory) conn;
    char* buffers = static_cast<char*>(memory) + record;
    c->ctx = ctx;
    for (stream* s : {&c->local, &c->remote}) {
        s->connection = c;
        s->size = size;
    }
    c->local.buffer = buffers;
    c->remote.buffer = buffers + size + 1;
    c->local.buffer[size] = '\0';
    c->remote.buffer[2 * size] = '\0';
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
    c->~conn();
    std::free(c);
}

bool process_connection(conn* c) {
    for (bool first = true;; first = false) {
        c->idle_call = false;
        if (is_dead(c)) {
            return close_dead(c);
        }
        if (c->state != conn_state::serving) {
            return discard_input(c);
        }
        drop_idle_target(c);
        if (first) {
            read_from_client(c);
            if (c->remote.has(sf_closed)) {
                return close_dead(c);
            }
        }
        if (!c->remote.has(sf_parsed) && !start_request(c)) {
            update_events(c);
            return true;
        }
        body_to_handler(c);
        reply_from_handler(c);
        reply_to_client(c);
        if (c->remote.poll_index < 0) {
            return close_dead(c);
        }
        if (!is_finished(c)) {
            update_events(c);
            return true;
        }
        judge_keep_alive(c);
        if (!disconnect(c)) {
            return false;
        }
        if (c->state != conn_state::serving) {
            return true;
        }
        if (c->remote.pending() == 0) {
            update_events(c);
            return true;
        }
    }
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
    proxy_release(c);
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

bool needs_visit(const conn* c) {
    if (c->state != conn_state::serving) {
        return c->remote_pending;
    }
    // A handler that had nothing to say is asked again; one whose bytes wait for the client is not:
    // thousands of stalled readers must cost nothing.
    const bool asked_again =
        c->idle_call && !c->held && c->local.pending() == 0 && may_be_called(c->local);
    return asked_again || has_hidden_input(c);
}

bool has_hidden_input(const conn* c) {
    if (c->state != conn_state::serving) {
        return c->remote_pending;
    }
    return (c->remote_pending && has_input_room(c) && !body_complete(c)) ||
           (c->proxy_pending && c->local.room() > 0 && !has_ended(c->local));
}

void proxy_release(conn* c) {
    proxy_record* record = c->proxy;
    if (record == nullptr) {
        return;
    }
    c->proxy = nullptr;
    c->proxy_pending = false;
    if (c->proxy_channel != nullptr) {
        (void)molbAtSecConnClose(&c->proxy_channel);
        c->proxy_channel = nullptr;
    }
    put_poll_index(record->poll_index);
    if (record->fd >= 0) {
        (void)close(record->fd);
    }
    delete record;
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
