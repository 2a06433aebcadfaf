// One visit of a connection: the bytes that can move, move.
#include <poll.h>

#include <algorithm>
#include <cerrno>

#include "core/connection.h"
#include "core/context.h"
#include "core/file_sender.h"
#include "core/globals.h"
#include "core/loop_watch.h"
#include "core/pass_work.h"
#include "core/poll_set.h"
#include "core/request.h"
#include "core/route.h"

namespace {

constexpr short broken_events = POLLERR | POLLHUP | POLLNVAL;

bool is_dead(const conn* c) {
    return monotonic_seconds > c->expire_time || c->remote.has(sf_closed) ||
           (poll_revents(c->remote.poll_index) & broken_events) != 0;
}

// An unfinished write to a secure target must be repeated from the same address.
bool may_compact(const conn* c) {
    return !c->remote.has(sf_parsed) ||
           (c->remote.head >= c->remote.size && !c->local.channel.pins_input);
}

// Room for input, counting what the next visit gains by compacting.
bool has_input_room(const conn* c) {
    return c->remote.room() > 0 || (c->remote.tail > 0 && may_compact(c));
}

// Whether the announced body has been read; one without announced length never is.
bool body_complete(const conn* c) {
    return c->remote.has(sf_parsed) && c->remote.complete();
}

// Whether the handler has given all of its reply; some of it may still be in the buffer.
bool has_ended(const stream& local) {
    return local.has(sf_closed) || local.complete();
}

// Whether the handler needs no descriptor to go on.
bool may_be_called(const stream& local) {
    return local.io != nullptr && local.has(sf_always_ready) && local.has(sf_readable) &&
           !local.has(sf_closed);
}

// --- The steps ---

// False when there is no memory for the input.
bool read_from_client(conn* c) {
    stream& remote = c->remote;
    if (remote.tail > 0 && may_compact(c)) {
        remote.compact();
    }
    const short events = poll_revents(remote.poll_index);
    const bool ready = (events & POLLIN) != 0 || c->client.may_hold_bytes || c->fresh;
    c->fresh = false;
    if (ready && remote.io != nullptr && !body_complete(c)) {
        if (!borrow_buffer(&remote)) {
            return false;
        }
        read_stream(&remote);
    }
    if ((events & POLLRDHUP) != 0 && body_complete(c)) {
        stop_stream(&remote);  // a client that ends its side has gone
    }
    return true;
}

// False when the request's turn to log in has not come: it stays as it is.
bool route_in_turn(conn* c) {
    if (!c->request.headers.authorization.empty() && !take_turn(c, pass_work::logins)) {
        return false;
    }
    route_request(c);
    if (c->local.io != nullptr) {
        name_request_step(c->local.io->name);
    }
    if (c->request.login_judged) {
        wipe_authorization(&c->request);
    }
    return true;
}

// Parses and routes what the buffer holds. False when there is nothing to serve yet.
bool start_request(conn* c) {
    stream& remote = c->remote;
    if (remote.pending() == 0) {
        return false;
    }
    switch (parse_request(c)) {
        case parse_result::incomplete:
            remote.compact();  // the rest needs room, or it would never be asked for
            return false;
        case parse_result::muted:
            c->state = conn_state::muted;
            wipe_pending(&remote);
            return false;
        case parse_result::failed:
            return true;
        case parse_result::parsed:
            return route_in_turn(c);
    }
    return false;
}

// What is forwarded goes in front of the body, and into one packet with it where there is one.
// False while some of it is left.
bool send_forwarded_head(conn* c) {
    stream& local = c->local;
    const std::string_view left = c->head_left();
    if (left.empty()) {
        return true;
    }
    const ssize_t n = local.io->write(&local, left.data(), left.size());
    if (n > 0) {
        c->head_sent += std::min(left.size(), static_cast<std::size_t>(n));
        renew_expiry(c);
    } else if (n == 0 || (errno != EAGAIN && errno != EINTR && errno != ENOTCONN)) {
        local.clear(sf_writable);  // the answer that it has already given is still read
    }
    return c->head_left().empty();
}

void body_to_handler(conn* c) {
    stream& local = c->local;
    const bool deliverable = local.has(sf_writable) && local.io != nullptr &&
                             local.io->write != nullptr &&
                             (local.poll_index >= 0 || local.io->takes_body_unpolled);
    if (!deliverable || !send_forwarded_head(c)) {
        return;
    }
    const std::uint64_t body = std::min<std::uint64_t>(c->remote.pending(), c->body_left);
    if (body == 0) {
        return;
    }
    const std::size_t moved = write_stream(&c->remote, &local, static_cast<std::size_t>(body));
    if (c->body_left != unlimited_body) {
        c->body_left -= moved;
    }
}

void reply_from_handler(conn* c) {
    stream& local = c->local;
    if (local.io == nullptr) {
        return;
    }
    const short events = poll_revents(local.poll_index);
    if (local.io->lost_descriptor != nullptr && (events & POLLNVAL) != 0) {
        send_server_error(c, 500, local.io->lost_descriptor);
        return;
    }
    const bool ready = local.has(sf_always_ready) || c->local.channel.holds_bytes ||
                       (events & (POLLIN | POLLHUP | POLLERR)) != 0;
    if (ready && local.has(sf_readable) && !local.has(sf_closed) && local.room() > 0 &&
        !sends_file_directly(c)) {
        read_stream(&local);
    }
}

void reply_to_client(conn* c) {
    if (c->remote.io == nullptr) {
        return;
    }
    if (sends_file_directly(c)) {
        send_file_directly(c);
    } else if (c->local.pending() > 0) {
        if (c->close_after && has_ended(c->local)) {
            c->local.set(sf_more_follows);  // one packet carries the last bytes and the end
        }
        // Room that a write has made is worth another call of a handler that found too little.
        if (write_stream(&c->local, &c->remote, c->local.pending()) > 0) {
            c->idle_call = false;
        }
    }
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
    const bool has_body = c->remote.pending() > 0 && c->body_left > 0;
    if (local.has(sf_writable) && (has_body || !c->head_left().empty())) {
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

// A reply that the client can't tell from a complete one, or a body that nobody read, ends the
// connection.
void judge_keep_alive(conn* c) {
    const stream& local = c->local;
    if (local.total < local.content_length || c->body_left > 0 || c->reply.sent == 0) {
        c->close_after = true;
    }
}

// One round: at most one request ends in it.
enum class round_end : std::uint8_t {
    waiting,   // for a descriptor or a later pass
    finished,  // the next request's first bytes are there
    freed,
};

round_end serve_round(conn* c) {
    const bool waited = c->remote.has(sf_parsed) && waits_for_turn(c, pass_work::logins);
    const bool begins = !c->remote.has(sf_parsed);
    if ((waited && !route_in_turn(c)) || (begins && !start_request(c))) {
        return round_end::waiting;
    }
    body_to_handler(c);
    reply_from_handler(c);
    reply_to_client(c);
    if (c->remote.poll_index < 0) {
        (void)close_dead(c);
        return round_end::freed;
    }
    if (!is_finished(c)) {
        return round_end::waiting;
    }
    judge_keep_alive(c);
    if (!disconnect(c)) {
        return round_end::freed;
    }
    const bool goes_on = c->state == conn_state::serving && c->remote.pending() > 0;
    return goes_on ? round_end::finished : round_end::waiting;
}

// A buffer without a byte serves another connection better.
void give_back_empty_buffers(conn* c) {
    for (stream* s : {&c->local, &c->remote}) {
        if (s->head == 0) {
            give_back_buffer(s);
        }
    }
}

}  // namespace

bool process_connection(conn* c) {
    c->idle_call = false;
    if (is_dead(c)) {
        return close_dead(c);
    }
    if (c->state != conn_state::serving) {
        return discard_input(c);
    }
    drop_idle_target(c);
    if (!read_from_client(c) || c->remote.has(sf_closed)) {
        return close_dead(c);
    }
    if (c->remote.has(sf_parsed) || c->remote.pending() > 0) {
        if (!borrow_buffer(&c->local) || !borrow_buffer(&c->remote)) {
            return close_dead(c);
        }
        round_end end = serve_round(c);
        while (end == round_end::finished) {
            c->idle_call = false;
            end = serve_round(c);
        }
        if (end == round_end::freed) {
            return false;
        }
    }
    if (c->state != conn_state::draining) {
        update_events(c);
    }
    give_back_empty_buffers(c);
    return true;
}

bool waits_without_descriptor(const conn* c) {
    return c->state == conn_state::serving && c->idle_call && !c->held && c->local.pending() == 0 &&
           may_be_called(c->local);
}

bool has_hidden_input(const conn* c) {
    if (c->state != conn_state::serving) {
        return c->client.may_hold_bytes;
    }
    return (c->client.may_hold_bytes && has_input_room(c) && !body_complete(c)) ||
           (c->local.channel.holds_bytes && c->local.room() > 0 && !has_ended(c->local));
}
