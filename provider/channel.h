// A TLS channel on a socket that belongs to somebody else.
//
// A channel is used by one thread at a time. It never closes its descriptor and never raises
// SIGPIPE. The TLS state, about 50 KiB until the handshake is over, is made when the client's first
// byte is there, so connections that only wait cost next to nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "provider/object.h"
#include "provider/openssl_ptr.h"
#include "provider/site.h"
#include "security/at_types.h"

namespace provider {

enum class channel_state { waiting, handshake, open, broken };

struct channel {
    static constexpr object_kind kind = object_kind::channel;

    object_head head{object_magic, kind};
    int fd = -1;
    channel_state state = channel_state::waiting;
    site_ref owner;                              // whose certificate is presented
    const molb_accept_params* params = nullptr;  // the caller's; outlives the handshake
    openssl_ptr<SSL> ssl;
    bool client_known = false;  // a verified certificate with a usable name
    principal client;

    // Between the socket and OpenSSL. Once the channel is open, one system call fetches a short
    // record whole instead of its head and its body.
    int io_errno = 0;
    bool peer_closed = false;
    std::size_t raw_begin = 0;
    std::size_t raw_end = 0;
    std::array<unsigned char, 1024> raw{};
};

// Finishes a server context: "http/1.1" is agreed on when offered, the credential-selection
// callback is asked, clients are asked for a certificate when `ask_for_certificate`, and otherwise
// may resume a session for five minutes.
void prepare_server_context(SSL_CTX* context, bool ask_for_certificate);

// One step of the server's handshake: at_ok, at_no_credential, at_again or at_channel_failed.
[[nodiscard]] std::uint32_t accept_step(channel* c);

// The whole client handshake, at most four seconds. On failure *why says what happened.
[[nodiscard]] std::uint32_t connect_now(channel* c, std::string* why);

[[nodiscard]] std::int32_t read_channel(channel* c, void* buffer, std::int32_t length);
[[nodiscard]] std::int32_t write_channel(channel* c, const void* data, std::int32_t length);
[[nodiscard]] std::int32_t pending_bytes(const channel* c);

// Says goodbye when the channel is in order, and frees it.
void close_channel(channel* c);

}  // namespace provider
