#include "core/stream.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/buffer_pool.h"
#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/poll_set.h"

namespace {

bool would_block(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// What a class returned, made safe: a count that it can't have moved is an input/output error.
ssize_t checked_result(ssize_t n, std::size_t length) {
    if (n >= -1 && n <= static_cast<ssize_t>(length)) {
        return n;
    }
    errno = EIO;
    return -1;
}

// The bytes that may be read now: the buffer's room, within the announced length.
std::size_t allowed_bytes(const stream* s) {
    const std::size_t room = s->room();
    if (s->content_length == 0) {
        return room;
    }
    if (s->complete()) {
        return 0;
    }
    return static_cast<std::size_t>(std::min<std::uint64_t>(room, s->content_length - s->total));
}

void count_bytes(stream* s, ssize_t n) {
    conn* c = s->connection;
    const auto moved = static_cast<std::uint64_t>(n);
    s->head += static_cast<std::size_t>(n);
    s->total += moved;
    (s == &c->local ? c->ctx->bytes_out : c->ctx->bytes_in) += moved;
}

}  // namespace

void stream::compact() {
    const std::size_t left = pending();
    std::memmove(buffer, buffer + tail, left);
    explicit_bzero(buffer + left, tail);  // a login may be in it
    tail = 0;
    head = left;
}

void stream::put(const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(buffer + head, room() + 1, format, args);
    va_end(args);
    head += std::min(static_cast<std::size_t>(std::max(length, 0)), room());
}

void stream::put_pieces(std::initializer_list<std::string_view> pieces) {
    for (const std::string_view piece : pieces) {
        const std::size_t n = std::min(piece.size(), room());
        std::copy_n(piece.data(), n, buffer + head);
        head += n;
    }
}

void wipe_pending(stream* s) {
    if (s->pending() > 0) {
        explicit_bzero(s->buffer + s->tail, s->pending());
    }
    s->clear_buffer();
}

bool borrow_buffer(stream* s) {
    if (s->buffer == nullptr) {
        s->buffer = lend_buffer(s->size);
    }
    return s->buffer != nullptr;
}

void give_back_buffer(stream* s) {
    wipe_pending(s);
    take_back_buffer(s->buffer, s->size);
    s->buffer = nullptr;
}

void read_stream(stream* s) {
    const std::size_t length = allowed_bytes(s);
    if (length == 0 || s->io == nullptr) {
        return;
    }
    conn* c = s->connection;
    const io_class* io = s->io;
    const std::size_t head_before = s->head;
    const std::size_t input_before = c->remote.pending();
    const ssize_t n = checked_result(io->read(s, s->buffer + s->head, length), length);
    const int error = errno;
    assert(s->tail <= s->head && s->head <= s->size);
    if (s->io != io) {
        return;  // the class has replaced itself, by an error reply for instance
    }
    if (n > 0) {
        count_bytes(s, n);
    } else if (!(n == -1 && would_block(error)) && !s->has(sf_keep_open)) {
        stop_stream(s);
    }
    if (s->head != head_before) {
        renew_expiry(c);
    } else if (s == &c->local && c->remote.pending() == input_before) {
        c->idle_call = true;
    }
    // What may be kept for the next request is not stopped: the end of its reply is judged by the
    // length.
    if (s == &c->local && s->io == io && s->complete() && io->keep == nullptr) {
        stop_stream(s);
    }
}

std::size_t write_stream(stream* from, stream* to, std::size_t limit) {
    const io_class* io = to->io;
    if (io == nullptr || io->write == nullptr) {
        return 0;
    }
    const std::size_t length = std::min(from->pending(), limit);
    const ssize_t n = checked_result(io->write(to, from->buffer + from->tail, length), length);
    const int error = errno;
    conn* c = to->connection;
    if (n > 0) {
        from->consume(static_cast<std::size_t>(n));
        if (to == &c->remote) {
            c->reply.sent += static_cast<std::uint64_t>(n);
        }
        renew_expiry(c);
        return static_cast<std::size_t>(n);
    }
    if (to->io != io || (n == -1 && (would_block(error) || error == ENOTCONN)) ||
        to->has(sf_keep_open)) {
        return 0;
    }
    if (to == &c->remote) {
        stop_stream(to);
    } else {
        to->clear(sf_writable);
    }
    return 0;
}

void stop_stream(stream* s) {
    if (s->io != nullptr && s->io->close != nullptr) {
        const io_class* io = s->io;
        io->close(s);
    }
    put_poll_index(s->poll_index);
    s->poll_index = -1;
    s->channel.fd = -1;
    s->io = nullptr;
    s->set(sf_closed);
    s->clear(sf_readable | sf_writable | sf_always_ready);
}

void install_class(stream* s, const io_class* io, int fd, std::uint32_t flags) {
    s->io = io;
    s->channel.fd = fd;
    s->flags = flags;
}

bool poll_stream(stream* s, int fd) {
    s->poll_index = get_poll_index(fd);
    if (s->poll_index < 0) {
        return false;
    }
    set_poll_owner(s->poll_index, s->connection);
    return true;
}
