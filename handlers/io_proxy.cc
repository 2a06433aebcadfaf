#include "handlers/io_proxy.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string_view>

#include "core/connection.h"
#include "core/context.h"
#include "core/io_class.h"
#include "core/poll_set.h"
#include "core/request.h"
#include "core/string.h"
#include "handlers/proxy.h"
#include "handlers/relay.h"
#include "handlers/service_exchange.h"

namespace {

constexpr std::size_t status_line_min = 12;

// --- Moving bytes ---

// The secure channel of the target that the stream serves; null: it is spoken to in clear text.
void* channel_of(const stream* s) {
    const conn* c = s->connection;
    const bool own = c->proxy != nullptr && c->proxy->fd == s->channel.fd;
    return own ? c->proxy_channel : nullptr;
}

// What one call moves at most. A library that can't serve a call answers it with a result code,
// which a larger request would take for a count: the reply would get bytes that nobody sent.
constexpr std::size_t transfer_max = 16384;
static_assert(transfer_max < at_invalid_argument, "every result code is a larger number");

std::int32_t transfer_length(std::size_t length) {
    return static_cast<std::int32_t>(std::min(length, transfer_max));
}

// The library's count with errno as recv and send would leave it.
ssize_t checked_count(std::int32_t count, std::int32_t length) {
    if (count >= 0 && count <= length) {
        return count;
    }
    if (count != -1 || errno == 0) {
        errno = count == std::int32_t{at_again} ? EAGAIN : EIO;
    }
    return -1;
}

// Like recv, through the channel when there is one.
ssize_t receive(stream* s, void* buffer, std::size_t length) {
    void* channel = channel_of(s);
    if (channel == nullptr) {
        return recv(s->channel.fd, buffer, length, 0);
    }
    const std::int32_t asked = transfer_length(length);
    errno = 0;
    const std::int32_t count = molbAtSecConnRead(channel, buffer, asked);
    // Only a read that got less than it asked for has emptied the channel.
    s->connection->proxy_pending = count == asked;
    return checked_count(count, asked);
}

// Like send, through the channel when there is one.
ssize_t deliver(stream* s, const void* buffer, std::size_t length) {
    void* channel = channel_of(s);
    if (channel == nullptr) {
        // A head and the body that has come with it make one packet.
        const conn* c = s->connection;
        const bool more = !c->head_left().empty() && c->body_left > 0 && c->remote.pending() > 0;
        return send(s->channel.fd, buffer, length, MSG_NOSIGNAL | (more ? MSG_MORE : 0));
    }
    const std::int32_t offered = transfer_length(length);
    errno = 0;
    return checked_count(molbAtSecConnWrite(channel, buffer, offered), offered);
}

// --- The reply ---

// The reply is complete although its sender keeps the connection: nothing more is read or written.
void end_reply(stream* s) {
    release_scanners(s);
    s->clear(sf_readable | sf_writable);
    s->set(sf_closed);
    s->connection->proxy_pending = false;
}

// Judges the next bytes of a chunked body and returns how many of them belong to the reply.
std::size_t scan_reply(stream* s, std::string_view bytes) {
    relay_scanners* scanners = scanners_of(s);
    const std::size_t own = scanners->reply.consume(bytes);
    const bool failed = scanners->reply.failed();
    if (failed || scanners->reply.complete()) {
        end_reply(s);
        // What is left belongs to no reply; a broken body ends both sides, so that nobody takes a
        // part of it for the whole.
        if (failed || own < bytes.size()) {
            s->connection->close_after = true;
        }
    }
    return own;
}

// A target reached over its port never learns the method of a service request: its answer to a HEAD
// has a body, which would be taken for the next answer.
bool hides_body(const conn* c, std::string_view head) {
    return c->request.method == method_head && c->proxy != nullptr &&
           frame_reply(head, method_get).end != reply_end::at_once;
}

// Whether the client connection ends with this reply. Kept: all but the service's do, whatever
// target and client say.
bool must_close(const conn* c, const header_values& values, const reply_framing& framing) {
    return !c->request.uri.starts_with("/hob://") || c->request.major == 0 ||
           c->request.minor == 0 || starts_with_nocase(values.connection, "close") ||
           framing.end == reply_end::with_close;
}

// Keeps `own` of the bytes behind the header block; the others are no part of this reply.
void keep_body_bytes(stream* s, std::size_t own) {
    if (s->header_length + own < s->head) {
        s->connection->close_after = true;
    }
    s->head = s->header_length + own;
    s->total = own;
}

// What stands behind the header block has arrived along with it.
void judge_first_body_bytes(stream* s, reply_end end) {
    const std::string_view body(s->buffer + s->header_length, s->head - s->header_length);
    if (end == reply_end::chunked) {
        obtain_scanners(s)->scans_reply = true;
        keep_body_bytes(s, scan_reply(s, body));
    } else if (end == reply_end::at_once) {
        end_reply(s);
        keep_body_bytes(s, 0);
    } else if (end == reply_end::counted && s->total > s->content_length) {
        // Kept: they are relayed, but where the next reply would begin is anybody's guess.
        s->connection->close_after = true;
    }
}

// The headers are complete: decides where the reply ends and what is kept, and releases it.
void accept_headers(stream* s) {
    conn* c = s->connection;
    const std::string_view head(s->buffer, s->header_length);
    header_values values;
    parse_headers(head.data(), head.size(), &values);
    const reply_framing framing = frame_reply(head, c->request.method);
    s->content_length = framing.end == reply_end::counted ? framing.length : 0;
    const std::uint64_t status = values.location.empty() ? values.status : 302;
    c->reply.status = static_cast<int>(status);
    c->close_after = c->close_after || must_close(c, values, framing) || hides_body(c, head) ||
                     blurs_next_reply(framing, status != 0 ? status : reply_status(head));
    // Kept: a Location makes any status 302, and the reason text stays the target's.
    if (status != 0 && head.starts_with("HTTP/") && head.size() >= status_line_min) {
        write_status(s->buffer, status);
    }
    s->set(sf_parsed);
    s->total -= s->header_length;
    s->tail = 0;
    judge_first_body_bytes(s, framing.end);
}

constexpr reply_head_rules head_rules = {
    .failure = "Error in proxy", .own_bytes = 0, .accept = accept_headers};

// The answer without an end counts as whole.
ssize_t end_endless(stream* s) {
    end_reply(s);
    s->connection->close_after = true;
    errno = EAGAIN;
    return -1;
}

// A kept target may close in the moment in which the next request goes out to it.
bool ended_before_answer(const stream* s, ssize_t n, int error) {
    const bool ended = n == 0 || (n < 0 && error != EAGAIN && error != EINTR);
    return ended && !s->has(sf_parsed) && s->total == 0;
}

ssize_t read_proxy(stream* s, void* buffer, std::size_t length) {
    conn* c = s->connection;
    if (waits_for_service(c)) {
        advance_service_exchange(c);
        errno = EAGAIN;
        return -1;
    }
    s->clear(sf_keep_open);
    const ssize_t n = receive(s, buffer, length);
    const int error = errno;  // of the read, whatever the tracking of answers does
    if (ended_before_answer(s, n, error) && repeat_request(c)) {
        errno = EAGAIN;
        return -1;
    }
    if (n > 0) {
        note_service_answer(c, {static_cast<const char*>(buffer), static_cast<std::size_t>(n)});
    }
    if (answer_has_no_end(c)) {
        s->set(sf_always_ready);  // no descriptor tells that nothing has come for a while:
        c->held = true;           // a timer does
        if (n < 0 && error == EAGAIN && answer_is_over(c)) {
            return end_endless(s);
        }
    }
    errno = error;
    if (!s->has(sf_parsed)) {
        return take_reply_head(s, n, head_rules);
    }
    const relay_scanners* scanners = scanners_of(s);
    if (scanners == nullptr || !scanners->scans_reply) {
        return n;
    }
    if (n > 0) {
        const std::size_t count = static_cast<std::size_t>(n);
        return static_cast<ssize_t>(scan_reply(s, {static_cast<const char*>(buffer), count}));
    }
    if (n == 0) {
        c->close_after = true;  // cut short
    }
    return n;
}

// No shutdown: some servers take a half-closed connection for one that was given up.
void finish_body(stream* s) {
    s->clear(sf_writable);
}

ssize_t write_proxy(stream* s, const void* buffer, std::size_t length) {
    return relay_body(s, buffer, length, {.deliver = deliver, .finish = finish_body});
}

// The target stays connected; anything that happens on it while it is idle drops it.
bool keep_target(stream* s) {
    conn* c = s->connection;
    if (c->proxy == nullptr || s->poll_index != c->proxy->poll_index) {
        return false;
    }
    set_poll_events(c->proxy->poll_index, c->proxy->fd, POLLIN);
    clear_poll_revents(c->proxy->poll_index);
    c->proxy_pending = false;
    return true;
}

// The record of a kept target is the engine's to free: it follows the poll slot.
void close_proxy(stream* s) {
    conn* c = s->connection;
    leave_service_exchange(c);
    release_scanners(s);
    if (channel_of(s) != nullptr) {
        (void)molbAtSecConnClose(&c->proxy_channel);
        c->proxy_channel = nullptr;
    }
    c->proxy_pending = false;
    if (s->channel.fd >= 0) {
        // The companion's is a duplicate, which the kernel would go on watching.
        unwatch_poll_index(s->poll_index);
        (void)close(s->channel.fd);
        s->channel.fd = -1;
    }
}

}  // namespace

constinit const io_class io_proxy{.name = "proxy",
                                  .read = read_proxy,
                                  .write = write_proxy,
                                  .close = close_proxy,
                                  .keep = keep_target,
                                  .lost_descriptor = "Could not connect to proxy target"};

void start_proxy_relay(conn* c) {
    c->local.clear_buffer();
    c->local.total = 0;
    install_class(&c->local, &io_proxy, -1, sf_readable | sf_writable);
}
