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
#include "handlers/target.h"

namespace {

constexpr std::size_t status_line_min = 12;

// --- Moving bytes ---

// The target that the stream serves; null: the companion service's standard output.
target* target_of(const stream* s) {
    target* t = s->connection->target.get();
    return t != nullptr && t->slot >= 0 && t->slot == s->poll_index ? t : nullptr;
}

ssize_t receive(stream* s, void* buffer, std::size_t length) {
    target* t = target_of(s);
    return t != nullptr ? t->receive(buffer, length) : recv(s->channel.fd, buffer, length, 0);
}

ssize_t deliver(stream* s, const void* bytes, std::size_t length) {
    target* t = target_of(s);
    return t != nullptr ? t->deliver(bytes, length)
                        : send(s->channel.fd, bytes, length, MSG_NOSIGNAL);
}

// --- The reply ---

// The reply is complete although its sender keeps the connection: nothing more is read or written.
void end_reply(stream* s) {
    s->clear(sf_readable | sf_writable);
    s->set(sf_closed);
}

// Judges the next bytes of a chunked body and returns how many of them belong to the reply.
std::size_t scan_reply(stream* s, std::string_view bytes) {
    chunk_scanner& scanner = relay_of(s)->reply;
    const std::size_t own = scanner.consume(bytes);
    const bool failed = scanner.failed();
    if (failed || scanner.complete()) {
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
    return c->request.method == method_head && target_of(&c->local) != nullptr &&
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
        relay_of(s)->scans_reply = true;
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
    s->flags |= sf_parsed;
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

// Reads on behind the headers.
ssize_t read_body(stream* s, const char* buffer, ssize_t n) {
    if (!relay_of(s)->scans_reply) {
        return n;
    }
    if (n > 0) {
        return static_cast<ssize_t>(scan_reply(s, {buffer, static_cast<std::size_t>(n)}));
    }
    if (n == 0) {
        s->connection->close_after = true;  // cut short
    }
    return n;
}

ssize_t read_ready(stream* s, char* buffer, std::size_t length) {
    conn* c = s->connection;
    s->clear(sf_keep_open);
    const ssize_t n = receive(s, buffer, length);
    const int error = errno;  // of the read, whatever the tracking of answers does
    if (ended_before_answer(s, n, error) && repeat_request(c)) {
        errno = EAGAIN;
        return -1;
    }
    if (n > 0) {
        note_service_answer(c, {buffer, static_cast<std::size_t>(n)});
    }
    if (answer_has_no_end(c)) {
        s->set(sf_always_ready);  // no descriptor tells that nothing has come for a while
        c->held = true;
        if (n < 0 && error == EAGAIN && answer_is_over(c)) {
            return end_endless(s);
        }
    }
    errno = error;
    return s->has(sf_parsed) ? read_body(s, buffer, n) : take_reply_head(s, n, head_rules);
}

ssize_t read_proxy(stream* s, void* buffer, std::size_t length) {
    conn* c = s->connection;
    switch (relay_of(s)->step) {
        case relay_step::relaying:
            return read_ready(s, static_cast<char*>(buffer), length);
        case relay_step::in_line:
            advance_service_exchange(c);
            break;
        case relay_step::starting:  // a program's
        case relay_step::naming:
        case relay_step::connecting:
            go_on_forwarding(c);
            break;
    }
    errno = EAGAIN;
    return -1;
}

// No shutdown: some servers take a half-closed connection for one that was given up.
void finish_body(stream* s) {
    s->clear(sf_writable);
}

ssize_t write_proxy(stream* s, const void* buffer, std::size_t length) {
    return relay_body(s, buffer, length, {.deliver = deliver, .finish = finish_body});
}

bool keep_target(stream* s) {
    target* t = target_of(s);
    if (t == nullptr) {
        return false;
    }
    release_relay(s);
    leave_target(s);
    t->keep();
    return true;
}

void close_proxy(stream* s) {
    conn* c = s->connection;
    leave_service_exchange(c);
    release_relay(s);
    const bool is_idle = c->target != nullptr && c->target->state == target_state::kept;
    if (c->target != nullptr && !is_idle) {
        leave_target(s);
        c->target.reset();
    } else if (s->channel.fd >= 0) {
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
    install_relay(&c->local, &io_proxy, -1, relay_step::naming);
}

void leave_target(stream* s) {
    s->poll_index = -1;
    s->channel.fd = -1;
    s->channel.holds_bytes = false;
    s->channel.pins_input = false;
}

void relay_with_target(conn* c) {
    stream& local = c->local;
    local.channel.fd = c->target->fd.get();
    local.poll_index = c->target->slot;
    local.channel.pins_input = c->target->channel != nullptr;
    begin_relaying(&local);
}
