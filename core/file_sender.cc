#include "core/file_sender.h"

#include <sys/sendfile.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "core/connection.h"
#include "core/context.h"
#include "core/io_class.h"
#include "core/stream.h"

namespace {

// The kernel moves 16 pages at once, a few bytes more than one segment (64 KiB with its headers)
// carries, and sends such a rest as a packet of its own that wakes the receiver for nothing. Pieces
// of 15 pages leave no rest: one fast client gets twice the bytes in the same time.
constexpr std::size_t piece_bytes = std::size_t{15} * 4096;

// The last two go at once: for a file that is not much larger the call costs more than the rest.
constexpr std::size_t last_bytes_max = 2 * piece_bytes;

// More a visit would keep other connections waiting, and what 32 clients still have to read would
// fall out of the processor's cache; fewer would wake this process too often for one slow reader.
constexpr int pieces_per_visit = 4;

bool would_block() {
    return errno == EAGAIN || errno == EINTR;
}

// Sends what the buffer holds, announced as the beginning of more. False when bytes are left.
bool send_buffered(conn* c) {
    stream& local = c->local;
    while (local.pending() > 0) {
        const ssize_t n = send(c->remote.channel.fd, local.buffer + local.tail, local.pending(),
                               MSG_MORE | MSG_NOSIGNAL);
        if (n <= 0) {
            if (!would_block()) {
                stop_stream(&c->remote);
            }
            return false;
        }
        local.tail += static_cast<std::size_t>(n);
        c->reply.sent += static_cast<std::uint64_t>(n);
        renew_expiry(c);
    }
    local.clear_buffer();
    return true;
}

// Moves one piece. False when nothing more goes now: the socket is full, or the reply has ended.
bool send_piece(conn* c) {
    stream& local = c->local;
    const std::uint64_t left = local.content_length - local.total;
    const auto length = static_cast<std::size_t>(left <= last_bytes_max ? left : piece_bytes);
    const ssize_t n =
        sendfile(c->remote.channel.fd, local.channel.fd, &local.channel.offset, length);
    if (n < 0) {
        if (!would_block()) {
            stop_stream(&c->remote);
        }
        return false;
    }
    const auto moved = static_cast<std::uint64_t>(n);
    if (n > 0) {
        local.total += moved;
        c->ctx->bytes_out += moved;
        c->reply.sent += moved;
        renew_expiry(c);
    }
    if (n == 0 || local.total >= local.content_length) {
        stop_stream(&local);  // all is sent, or the file has become shorter
        return false;
    }
    return moved == length;
}

}  // namespace

bool sends_file_directly(const conn* c) {
    const stream& local = c->local;
    return local.io != nullptr && local.io->is_file && c->remote.io != nullptr &&
           c->remote.io->is_plain_socket && local.has(sf_readable) &&
           local.content_length > local.total && local.content_length - local.total > local.room();
}

void send_file_directly(conn* c) {
    if (!send_buffered(c)) {
        return;
    }
    for (int piece = 0; piece < pieces_per_visit && send_piece(c); ++piece) {
    }
}
