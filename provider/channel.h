// A TLS channel on a socket that belongs to somebody else.
//
// A channel is used by one thread at a time. It never closes its descriptor and never raises
// SIGPIPE. The TLS state, about 50 KiB until the handshake is over, is made when the client's first
// byte is there, so connections that only wait cost next to nothing.
//
// What a caller that polls the descriptor has to know: bytes that were received together with the
// end of a handshake, or with a record that was read only in part, are no longer in the socket. So
// the first read is tried without waiting, and again after every read that filled its buffer.
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

enum class channel_state {
    waiting,    // for the client's first byte; no TLS state yet
    handshake,  // accept_step or connect_step goes on
    open,       // bytes may be moved
    broken,     // nothing more can be moved, not even a goodbye
};

struct channel {
    static constexpr object_kind kind = object_kind::channel;

    object_head head{object_magic, kind};
    int fd = -1;
    bool may_wait = false;  // during the handshake
    channel_state state = channel_state::waiting;
    site_ref owner;                              // whose certificate is presented
    const molb_accept_params* params = nullptr;  // the caller's; outlives the handshake
    openssl_ptr<SSL> ssl;
    bool client_known = false;  // a verified certificate with a usable name
    principal client;

    // Between the socket and OpenSSL. Once the channel is open, one system call fetches a short
    // record whole instead of its head and its body.
    int io_errno = 0;          // of the last system call that failed
    bool peer_closed = false;  // the peer's end of the stream was seen
    std::size_t raw_begin = 0;
    std::size_t raw_end = 0;
    std::array<unsigned char, 1024> raw{};  // received, not yet given to OpenSSL
};

// Finishes a server context: "http/1.1" is agreed on when offered, and the credential-selection
// callback is asked.
void prepare_server_context(SSL_CTX* context);

// Makes all that OpenSSL makes once, at the first handshake of a process, by a handshake with
// oneself: where memory fails it before, no later handshake would ever work. False when it fails;
// OpenSSL's queue of errors has the reason, if any.
[[nodiscard]] bool rehearse_handshake(SSL_CTX* server, SSL_CTX* client);

// One step of the server's handshake, as far as the bytes that are there take it. Returns at_ok
// (the client is known), at_no_credential (done, it is not), at_again (call again when the socket
// is readable) or at_channel_failed (the channel is good for nothing but close_channel). Once done,
// the answer stays the same.
[[nodiscard]] std::uint32_t accept_step(channel* c);

// The client's side of the same: at_ok, at_again (when the socket is readable) or
// at_channel_failed; then *why says what happened. On a blocking socket it waits for the peer, as
// long as the socket's own time-outs say.
[[nodiscard]] std::uint32_t connect_step(channel* c, std::string* why);

// Both return how many bytes were moved, 0 for a peer that has ended its stream (reads only), or -1
// with errno: EAGAIN (later), EPIPE (a write to a peer that is gone), EPROTO (what came is no TLS),
// or that of the socket. A write that returns EAGAIN is repeated with the same bytes, from any
// address and with more behind them if need be. Zero bytes are 0, a negative length is EINVAL.
[[nodiscard]] std::int32_t read_channel(channel* c, void* buffer, std::int32_t length);
[[nodiscard]] std::int32_t write_channel(channel* c, const void* data, std::int32_t length);

// Bytes that a read could have without the socket: decrypted ones, and raw ones still to be looked
// at.
[[nodiscard]] std::int32_t pending_bytes(const channel* c);

// Says goodbye when the channel is in order, and frees it.
void close_channel(channel* c);

}  // namespace provider
