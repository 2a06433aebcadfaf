// The plain socket class: bytes as they are.
#include <sys/socket.h>
#include <unistd.h>

#include "core/connection.h"
#include "core/io_class.h"
#include "core/stream.h"

namespace {

ssize_t read_socket(stream* s, void* buffer, std::size_t length) {
    return recv(s->channel.fd, buffer, length, 0);
}

ssize_t write_socket(stream* s, const void* buffer, std::size_t length) {
    const int more = s->connection->local.has(sf_more_follows) ? MSG_MORE : 0;
    return send(s->channel.fd, buffer, length, MSG_NOSIGNAL | more);
}

void close_socket(stream* s) {
    (void)close(s->channel.fd);
}

}  // namespace

constinit const io_class io_socket{.name = "socket",
                                   .read = read_socket,
                                   .write = write_socket,
                                   .close = close_socket,
                                   .is_plain_socket = true};
