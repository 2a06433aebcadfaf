#include "security/io_molbat.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <string>

#include "core/connection.h"
#include "core/context.h"
#include "core/io_class.h"
#include "core/log.h"
#include "core/pass_work.h"
#include "core/stream.h"
#include "security/api.h"
#include "security/at_types.h"
#include "security/library_log.h"

namespace {

// The meaning of both belongs to the library.
constexpr std::uint32_t accept_mode = 4;
constexpr std::uint32_t accept_flags = 1;

// The user name and the groups that came from it stay: they end with the connection.
void free_credential(conn* c) {
    if (c->client_credential != nullptr) {
        (void)molbAtFree(c->client_credential);
        c->client_credential = nullptr;
    }
}

// A library that lacks one of the calls answers it with a code that a large buffer would take for a
// count, so a channel is used only when all of them are there.
bool library_moves_bytes() {
    return molbatGetSymbol(62, "molbAtSecConnRead") != nullptr &&
           molbatGetSymbol(63, "molbAtSecConnWrite") != nullptr &&
           molbatGetSymbol(65, "molbAtSecConnClose") != nullptr;
}

void finish_handshake(stream* s) {
    conn* c = s->connection;
    if (c->client.channel == nullptr || !library_moves_bytes()) {
        c->client.handshake = handshake_state::failed;
        return;
    }
    c->client.handshake = handshake_state::done;
}

// The library's count as the engine may use it: nothing else may move the buffer's head.
ssize_t checked_count(std::int32_t count, std::int32_t length) {
    if (count < -1 || count > length) {
        errno = EIO;
        return -1;
    }
    if (count == -1 && errno == 0) {  // no reason given: not a wait, which would never end
        errno = EIO;
    }
    return count;
}

std::int32_t int_length(std::size_t length) {
    constexpr std::size_t most = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(std::min(length, most));
}

// Tells when the channel may hold decrypted bytes that no poll would report: a read
// that got less than it asked for has emptied it.
ssize_t read_molbat(stream* s, void* buffer, std::size_t length) {
    conn* c = s->connection;
    if (c->client.handshake == handshake_state::pending) {
        molbat_handshake(s);
    }
    if (c->client.handshake != handshake_state::done) {
        errno = c->client.handshake == handshake_state::pending ? EAGAIN : EPROTO;
        return -1;
    }
    const std::int32_t asked = int_length(length);
    errno = 0;
    const std::int32_t count = molbAtSecConnRead(c->client.channel, buffer, asked);
    c->client.may_hold_bytes = count == asked;
    return checked_count(count, asked);
}

ssize_t write_molbat(stream* s, const void* buffer, std::size_t length) {
    const std::int32_t offered = int_length(length);
    errno = 0;
    return checked_count(molbAtSecConnWrite(s->connection->client.channel, buffer, offered),
                         offered);
}

void say_goodbye(stream* s) {
    secure_client& client = s->connection->client;
    if (client.channel != nullptr) {
        (void)molbAtSecConnClose(&client.channel);
        client.channel = nullptr;
    }
    s->io = &io_socket;
}

// The library's farewell goes out before the socket is closed.
void close_molbat(stream* s) {
    conn* c = s->connection;
    if (c->client.channel != nullptr) {
        (void)molbAtSecConnClose(&c->client.channel);
        c->client.channel = nullptr;
    }
    free_credential(c);
    c->client.server_credential = nullptr;
    c->client.may_hold_bytes = false;
    if (s->channel.fd >= 0) {
        (void)close(s->channel.fd);
        s->channel.fd = -1;
    }
}

}  // namespace

const io_class io_molbat{.name = "molbat",
                         .read = read_molbat,
                         .write = write_molbat,
                         .close = close_molbat,
                         .say_goodbye = say_goodbye};

void molbat_handshake(stream* s) {
    conn* c = s->connection;
    if (c->client.handshake != handshake_state::pending || !take_turn(c, pass_work::logins)) {
        return;
    }
    const pass_work_timer time(pass_work::logins);
    if (c->client.server_credential == nullptr) {
        c->client.server_credential = c->ctx->service_credential;
    }
    free_credential(c);  // of an attempt before this one
    std::string reason;
    const library_subject subject(c, &reason);
    const std::uint32_t result = molbAtSecConnAcceptWithCommExtn(
        c->ctx->at_handle, s->channel.fd, c->client.server_credential, accept_mode,
        &c->ctx->accept_params, accept_flags, 0, &c->client.channel, &c->client_credential);
    switch (result) {
        case at_no_credential:  // the client may still log in by a header
            free_credential(c);
            [[fallthrough]];
        case at_ok:
            finish_handshake(s);
            break;
        case at_again:
            return;
        default:
            c->client.handshake = handshake_state::failed;
            break;
    }
    if (c->client.handshake == handshake_state::failed) {
        log_trouble(c->ctx, c, "handshake failed: %s",
                    reason.empty() ? ("code " + std::to_string(result)).c_str() : reason.c_str());
    }
    // The first request may have been decrypted along with the handshake; a failure is to be
    // noticed in the next pass, whatever the client sends.
    c->client.may_hold_bytes = true;
}
