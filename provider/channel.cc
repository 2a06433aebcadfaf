#include "provider/channel.h"

#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

#include "provider/library.h"
#include "provider/report.h"

namespace provider {
namespace {

// --- Memory ---

// A handshake takes about 50 KiB in many pieces, between which the C library keeps the room once
// they are free. When a crowd has left, the room is given back; a trim costs less than the hundred
// handshakes that have to come and go before the next one.
constexpr int smallest_crowd = 128;
constexpr int crowd_that_stays = 4;  // one in so many

std::atomic<int> present = 0;
std::atomic<int> most_present = 0;

void one_came() {
    const int now = ++present;
    most_present = std::max(most_present.load(), now);
}

void one_left() {
    const int now = --present;
    if (most_present >= smallest_crowd && now <= most_present / crowd_that_stays) {
        most_present = now;
        (void)malloc_trim(0);
    }
}

// --- The socket as OpenSSL sees it ---

// Only the server's handshake must not wait on a blocking socket; the rest is the caller's choice.
int wait_flag(const channel* c) {
    return c->state == channel_state::open || c->may_wait ? 0 : MSG_DONTWAIT;
}

// The errno is kept: OpenSSL makes system calls of its own before it reports a failure.
int receive(channel* c, void* buffer, std::size_t length) {
    ssize_t n = 0;
    do {
        n = recv(c->fd, buffer, length, wait_flag(c));
    } while (n < 0 && errno == EINTR);
    if (n == 0) {
        c->peer_closed = true;
    } else if (n < 0) {
        c->io_errno = errno;
    }
    return static_cast<int>(n);
}

bool would_block(const channel* c) {
    return c->io_errno == EAGAIN || c->io_errno == EWOULDBLOCK;
}

// OpenSSL asks for the five bytes of a record's head, then for its body. Reading ahead for the
// first question answers both at once when the record is short; long bodies go straight to their
// place.
int bio_read(BIO* bio, char* buffer, int length) {
    auto* c = static_cast<channel*>(BIO_get_data(bio));
    const auto wanted = static_cast<std::size_t>(std::max(length, 0));
    BIO_clear_retry_flags(bio);
    if (c->raw_begin == c->raw_end) {
        const bool ahead = c->state == channel_state::open && wanted < c->raw.size();
        const int n = ahead ? receive(c, c->raw.data(), c->raw.size()) : receive(c, buffer, wanted);
        if (n < 0 && would_block(c)) {
            BIO_set_retry_read(bio);
        }
        if (n <= 0 || !ahead) {
            return n;
        }
        c->raw_begin = 0;
        c->raw_end = static_cast<std::size_t>(n);
    }
    const std::size_t taken = std::min(wanted, c->raw_end - c->raw_begin);
    memcpy(buffer, c->raw.data() + c->raw_begin, taken);
    c->raw_begin += taken;
    return static_cast<int>(taken);
}

int bio_write(BIO* bio, const char* data, int length) {
    auto* c = static_cast<channel*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    ssize_t n = 0;
    do {
        n = send(c->fd, data, static_cast<std::size_t>(length), MSG_NOSIGNAL | wait_flag(c));
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        c->io_errno = errno;
        if (would_block(c)) {
            BIO_set_retry_write(bio);
        }
    }
    return static_cast<int>(n);
}

// The answer to BIO_CTRL_EOF is how OpenSSL tells an end without goodbye from an error.
long bio_control(BIO* bio, int command, long, void*) {
    switch (command) {
        case BIO_CTRL_FLUSH:
            return 1;
        case BIO_CTRL_EOF:
            return static_cast<const channel*>(BIO_get_data(bio))->peer_closed ? 1 : 0;
        default:
            return 0;
    }
}

const BIO_METHOD* socket_method() {
    static BIO_METHOD* const method = [] {
        BIO_METHOD* made =
            BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "dovmad socket");
        if (made != nullptr) {
            BIO_meth_set_read(made, bio_read);
            BIO_meth_set_write(made, bio_write);
            BIO_meth_set_ctrl(made, bio_control);
        }
        return made;
    }();
    return method;
}

// --- Making the TLS state ---

// The descriptor stays the caller's: this BIO frees nothing.
bool make_ssl(channel* c, SSL_CTX* context) {
    if (context == nullptr || socket_method() == nullptr) {
        return false;
    }
    openssl_ptr<SSL> ssl{SSL_new(context)};
    openssl_ptr<BIO> bio{BIO_new(socket_method())};
    if (!ssl || !bio || SSL_set_app_data(ssl.get(), c) != 1) {
        return false;
    }
    BIO_set_data(bio.get(), c);
    BIO_set_init(bio.get(), 1);
    BIO* shared = bio.release();
    SSL_set_bio(ssl.get(), shared, shared);  // takes the one reference
    c->ssl = std::move(ssl);
    c->state = channel_state::handshake;
    one_came();
    return true;
}

// A client that offers only other protocols goes on without an agreed one.
int choose_protocol(SSL*, const unsigned char** out, unsigned char* out_length,
                    const unsigned char* offered, unsigned int offered_length, void*) {
    static constexpr unsigned char known[] = {8, 'h', 't', 't', 'p', '/', '1', '.', '1'};
    unsigned char* chosen = nullptr;
    if (SSL_select_next_proto(&chosen, out_length, known, sizeof known, offered, offered_length) !=
        OPENSSL_NPN_NEGOTIATED) {
        return SSL_TLSEXT_ERR_NOACK;
    }
    *out = chosen;
    return SSL_TLSEXT_ERR_OK;
}

// Lets the caller present another service's certificate for the name that the client asks for. The
// chosen service's own authorities then decide about the client's certificate.
int choose_credential(SSL* ssl, int*, void*) {
    auto* c = static_cast<channel*>(SSL_get_app_data(ssl));  // null in a rehearsal
    if (c == nullptr || c->params == nullptr || c->params->enabled == 0 ||
        c->params->callback == nullptr) {
        return SSL_TLSEXT_ERR_NOACK;
    }
    const molb_sni_request request{SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name),
                                   c->params->user_data};
    void* chosen_handle = nullptr;
    void* chosen = nullptr;
    if (c->params->callback(&request, &chosen_handle, &chosen) != at_ok) {
        return SSL_TLSEXT_ERR_NOACK;
    }
    auto* service = object_cast<credential>(chosen);
    if (service == nullptr || !service->is_service) {
        return SSL_TLSEXT_ERR_NOACK;
    }
    const openssl_ptr<SSL_CTX> context = service->owner->server_context();
    if (!context || context.get() == SSL_get_SSL_CTX(ssl)) {
        return SSL_TLSEXT_ERR_OK;
    }
    if (SSL_set_SSL_CTX(ssl, context.get()) == nullptr) {
        return SSL_TLSEXT_ERR_NOACK;
    }
    // The connection keeps the mode that it was made with unless it is told.
    SSL_set_verify(ssl, SSL_CTX_get_verify_mode(context.get()),
                   SSL_CTX_get_verify_callback(context.get()));
    c->owner = service->owner;
    return SSL_TLSEXT_ERR_OK;
}

// --- The client's certificate ---

// The one common name of a certificate; empty when there is none, or more than one to choose from.
std::string common_name(const X509* certificate) {
    const X509_NAME* subject = X509_get_subject_name(certificate);
    const int first = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (first < 0 || X509_NAME_get_index_by_NID(subject, NID_commonName, first) >= 0) {
        return {};
    }
    unsigned char* text = nullptr;
    const int length =
        ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, first)));
    if (length < 0) {
        return {};
    }
    std::string name(reinterpret_cast<const char*>(text), static_cast<std::size_t>(length));
    OPENSSL_free(text);
    return name;
}

// Acknowledges the client's last handshake message now. The server has nothing to say to it, and a
// client with Nagle's algorithm holds its request back until the delayed acknowledgement comes.
void acknowledge(const channel* c) {
    const int on = 1;
    // Fails on sockets that are not TCP, where there is no such delay.
    (void)setsockopt(c->fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
}

// A certificate that the authority has signed but that names no user is refused here, after the
// handshake: OpenSSL has no opinion about names.
std::uint32_t finish_accept(channel* c) {
    const X509* certificate = SSL_get0_peer_certificate(c->ssl.get());
    c->params = nullptr;
    if (certificate == nullptr) {
        c->state = channel_state::open;
        return at_no_credential;
    }
    const std::string name = common_name(certificate);
    const std::optional<principal> client = c->owner->certificate_user(name);
    const bool locked = client && c->owner->is_locked(certificate, name);
    if (!client || locked || SSL_get_verify_result(c->ssl.get()) != X509_V_OK) {
        report(at_log_info, "client certificate %s",
               locked ? ("of " + name + " is locked").c_str() : "without a usable common name");
        c->state = channel_state::broken;
        return at_channel_failed;
    }
    c->client = *client;
    c->client_known = true;
    c->state = channel_state::open;
    return at_ok;
}

// --- Results ---

// The most telling of what is known: the certificate's fault, then the peer's, then OpenSSL's
// reason.
std::string failure_text(const channel* c) {
    const long verdict = SSL_get_verify_result(c->ssl.get());
    const char* reason = ERR_reason_error_string(ERR_peek_error());
    std::string text = "TLS handshake failed: ";
    if (verdict != X509_V_OK) {
        text += X509_verify_cert_error_string(verdict);
    } else if (c->peer_closed) {
        text += "the peer closed the connection";
    } else if (reason != nullptr) {
        text += reason;
    } else {
        text += strerror(c->io_errno != 0 ? c->io_errno : EPROTO);
    }
    return text;
}

// What a failed read or write means to the caller; sets errno.
std::int32_t moved_nothing(channel* c, int result, bool writing) {
    switch (SSL_get_error(c->ssl.get(), result)) {
        case SSL_ERROR_WANT_READ:
        case SSL_ERROR_WANT_WRITE:
            errno = EAGAIN;
            return -1;
        case SSL_ERROR_ZERO_RETURN:
            errno = EPIPE;
            return writing ? -1 : 0;
        case SSL_ERROR_SYSCALL:
            c->state = channel_state::broken;
            errno = c->io_errno != 0 ? c->io_errno : ECONNRESET;
            if (writing && errno == ECONNRESET) {
                errno = EPIPE;
            }
            break;
        default:
            c->state = channel_state::broken;
            errno = EPROTO;
            break;
    }
    return -1;
}

// Why nothing can be moved on a channel that is not open.
std::int32_t not_open(const channel* c) {
    errno = c->state == channel_state::broken ? EPROTO : EAGAIN;
    return -1;
}

}  // namespace

void prepare_server_context(SSL_CTX* context) {
    SSL_CTX_set_alpn_select_cb(context, choose_protocol, nullptr);
    SSL_CTX_callback_ctrl(context, SSL_CTRL_SET_TLSEXT_SERVERNAME_CB,
                          reinterpret_cast<void (*)()>(choose_credential));
}

bool rehearse_handshake(SSL_CTX* server, SSL_CTX* client) {
    const openssl_ptr<SSL> service{SSL_new(server)};
    const openssl_ptr<SSL> visitor{SSL_new(client)};
    BIO* here = nullptr;
    BIO* there = nullptr;
    if (socket_method() == nullptr || !service || !visitor ||
        BIO_new_bio_pair(&here, 0, &there, 0) != 1) {
        return false;
    }
    SSL_set_bio(service.get(), here, here);
    SSL_set_bio(visitor.get(), there, there);
    for (SSL* side : {visitor.get(), service.get()}) {  // neither need trust the other
        SSL_set_verify(side, SSL_VERIFY_NONE, nullptr);
    }
    SSL_set_accept_state(service.get());
    SSL_set_connect_state(visitor.get());
    constexpr int turns_max = 8;
    bool done = false;
    for (int turn = 0; turn < turns_max && !done; ++turn) {
        const int asked = SSL_do_handshake(visitor.get());
        const int answered = SSL_do_handshake(service.get());
        done = asked == 1 && answered == 1;
    }
    return done;
}

std::uint32_t accept_step(channel* c) {
    if (c->state == channel_state::open) {
        return c->client_known ? at_ok : at_no_credential;
    }
    if (c->state == channel_state::waiting) {
        // A look that takes nothing: whoever connects and stays silent costs no TLS state.
        char first = 0;
        const ssize_t n = recv(c->fd, &first, 1, MSG_PEEK | MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            return at_again;
        }
        if (n <= 0 || !make_ssl(c, c->owner->server_context().get())) {
            return at_channel_failed;
        }
        SSL_set_accept_state(c->ssl.get());
    }
    ERR_clear_error();
    const int result = SSL_do_handshake(c->ssl.get());
    if (result == 1) {
        acknowledge(c);
        return finish_accept(c);
    }
    const int error = SSL_get_error(c->ssl.get(), result);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
        return at_again;
    }
    report(at_log_info, "%s", failure_text(c).c_str());
    ERR_clear_error();
    c->state = channel_state::broken;
    return at_channel_failed;
}

std::uint32_t connect_step(channel* c, std::string* why) {
    if (c->state == channel_state::open) {
        return at_ok;
    }
    if (c->state == channel_state::waiting) {
        const int flags = fcntl(c->fd, F_GETFL);
        if (flags < 0 || !make_ssl(c, c->owner->client_context().get())) {
            *why = flags < 0 ? strerror(errno) : "TLS is not set up";
            return at_channel_failed;
        }
        c->may_wait = (flags & O_NONBLOCK) == 0;
        SSL_set_connect_state(c->ssl.get());
    }
    ERR_clear_error();
    const int result = SSL_do_handshake(c->ssl.get());
    if (result == 1) {
        c->state = channel_state::open;
        return at_ok;
    }
    const int error = SSL_get_error(c->ssl.get(), result);
    const bool later = error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
    if (later && !c->may_wait) {
        return at_again;
    }
    *why = later ? "TLS handshake failed: the peer did not answer in time" : failure_text(c);
    ERR_clear_error();
    c->state = channel_state::broken;
    return at_channel_failed;
}

// Goes on until the buffer is full or another record would have to come from the network: what
// waits in `raw` is invisible to the caller's poll. OpenSSL itself keeps nothing back: a read that
// gets less than it asked for has emptied its record.
std::int32_t read_channel(channel* c, void* buffer, std::int32_t length) {
    if (c->state != channel_state::open) {
        return not_open(c);
    }
    if (length <= 0 || buffer == nullptr) {
        errno = EINVAL;
        return length == 0 ? 0 : -1;
    }
    std::int32_t total = 0;
    do {
        ERR_clear_error();
        c->io_errno = 0;
        const int n = SSL_read(c->ssl.get(), static_cast<char*>(buffer) + total, length - total);
        if (n <= 0) {
            return total > 0 ? total : moved_nothing(c, n, false);
        }
        total += n;
    } while (total < length && c->raw_begin < c->raw_end);
    return total;
}

std::int32_t write_channel(channel* c, const void* data, std::int32_t length) {
    if (c->state != channel_state::open) {
        return not_open(c);
    }
    if (length <= 0 || data == nullptr) {
        errno = EINVAL;
        return length == 0 ? 0 : -1;
    }
    ERR_clear_error();
    c->io_errno = 0;
    const int n = SSL_write(c->ssl.get(), data, length);
    return n > 0 ? n : moved_nothing(c, n, true);
}

std::int32_t pending_bytes(const channel* c) {
    if (c->state != channel_state::open) {
        return 0;
    }
    return SSL_pending(c->ssl.get()) + static_cast<std::int32_t>(c->raw_end - c->raw_begin);
}

void close_channel(channel* c) {
    if (c->state == channel_state::open) {
        ERR_clear_error();
        (void)SSL_shutdown(c->ssl.get());  // one goodbye; nobody waits for the answer
    }
    ERR_clear_error();
    const bool had_state = c->ssl != nullptr;
    delete c;
    if (had_state) {
        one_left();
    }
}

}  // namespace provider
