#include "provider/tls_files.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <string.h>

#include <cerrno>

#include "provider/channel.h"
#include "provider/result.h"

namespace provider {
namespace {

constexpr std::array file_names = {"server.crt", "server.key", "client_ca.pem", "peer_ca.pem"};
constexpr mode_t owner_only = 077;

// Keys without a passphrase only: nobody sits in front of a daemon.
int no_passphrase(char*, int, int, void*) {
    return -1;
}

// Reads from the text itself, which has to live as long: no second copy of a key.
openssl_ptr<BIO> reader_of(const file_content& content) {
    return openssl_ptr<BIO>{
        BIO_new_mem_buf(content.text.data(), static_cast<int>(content.text.size()))};
}

// Null at the end of the file and at anything that is no certificate.
openssl_ptr<X509> next_certificate(BIO* reader) {
    return openssl_ptr<X509>{PEM_read_bio_X509(reader, nullptr, no_passphrase, nullptr)};
}

// What both directions share. Renegotiation, compression, tickets and session storage are off:
// every connection proves anew who it is. A peer that closes without saying so has closed all the
// same, and may still be sent the rest of its answer.
openssl_ptr<SSL_CTX> new_context(const SSL_METHOD* method) {
    openssl_ptr<SSL_CTX> context{SSL_CTX_new(method)};
    if (!context) {
        return nullptr;
    }
    SSL_CTX* c = context.get();
    SSL_CTX_set_options(c, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_NO_TICKET |
                               SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_PRIORITIZE_CHACHA |
                               SSL_OP_IGNORE_UNEXPECTED_EOF);
    SSL_CTX_set_session_cache_mode(c, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(c, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                            SSL_MODE_RELEASE_BUFFERS);
    // The channel reads ahead itself and knows what it has; OpenSSL would hide it.
    SSL_CTX_set_read_ahead(c, 0);
    const bool set = SSL_CTX_set_min_proto_version(c, TLS1_2_VERSION) == 1 &&
                     SSL_CTX_set_num_tickets(c, 0) == 1 &&
                     SSL_CTX_set1_groups_list(c, "X25519:P-256:P-384") == 1 &&
                     SSL_CTX_set_ciphersuites(c,
                                              "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:"
                                              "TLS_CHACHA20_POLY1305_SHA256") == 1 &&
                     SSL_CTX_set_cipher_list(c, "ECDHE+AESGCM:ECDHE+CHACHA20") == 1;
    return set ? std::move(context) : nullptr;
}

openssl_ptr<SSL_CTX> share(const openssl_ptr<SSL_CTX>& context) {
    if (context) {
        SSL_CTX_up_ref(context.get());
    }
    return openssl_ptr<SSL_CTX>{context.get()};
}

}  // namespace

std::string tls_files::path_of(int index) const {
    return directory_ + "/" + file_names[static_cast<std::size_t>(index)];
}

void tls_files::note(int index, const char* what) {
    problem_ = path_of(index) + ": " + what;
}

// Adds OpenSSL's reason; always false.
bool tls_files::complain(int index, const char* what) {
    note(index, what);
    const char* reason = ERR_reason_error_string(ERR_peek_last_error());
    if (reason != nullptr) {
        problem_ += std::string(" (") + reason + ")";
    }
    ERR_clear_error();
    return false;
}

// A missing optional file leaves the content empty.
std::uint32_t tls_files::load(int index, file_content* content) {
    const int error = read_file(path_of(index), content);
    const bool needed = index == certificate_file || index == key_file;
    if (error == ENOENT && !needed) {
        return at_ok;
    }
    if (error != 0) {
        note(index, strerror(error));
        return error == ENOENT ? at_not_available : result_of(error);
    }
    if (index == key_file && (content->mode & owner_only) != 0) {
        note(index, "others than the owner have access (chmod 600)");
        return at_permission_denied;
    }
    return at_ok;
}

// The first certificate is the host's, those behind it lead to its authority.
bool tls_files::use_key_pair(SSL_CTX* context, const file_content& certificate,
                             const file_content& key) {
    const openssl_ptr<BIO> chain = reader_of(certificate);
    const openssl_ptr<X509> leaf = next_certificate(chain.get());
    if (!leaf || SSL_CTX_use_certificate(context, leaf.get()) != 1) {
        return complain(certificate_file, "no usable certificate");
    }
    for (;;) {
        openssl_ptr<X509> issuer = next_certificate(chain.get());
        if (!issuer) {
            break;
        }
        if (SSL_CTX_add0_chain_cert(context, issuer.get()) != 1) {
            return complain(certificate_file, "certificate chain");
        }
        (void)issuer.release();  // the context's now
    }
    const openssl_ptr<BIO> text = reader_of(key);
    const openssl_ptr<EVP_PKEY> pair{
        PEM_read_bio_PrivateKey(text.get(), nullptr, no_passphrase, nullptr)};
    if (!pair || SSL_CTX_use_PrivateKey(context, pair.get()) != 1 ||
        SSL_CTX_check_private_key(context) != 1) {
        return complain(key_file, "no private key that fits the certificate");
    }
    ERR_clear_error();  // the end of a PEM file counts as an error
    return true;
}

// An intermediate authority, or a single certificate, may be an anchor of its own.
bool tls_files::trust(SSL_CTX* context, int index, const file_content& anchors, bool announce) {
    X509_STORE* store = SSL_CTX_get_cert_store(context);
    X509_STORE_set_flags(store, X509_V_FLAG_PARTIAL_CHAIN);
    const openssl_ptr<BIO> reader = reader_of(anchors);
    int count = 0;
    for (;; ++count) {
        const openssl_ptr<X509> anchor = next_certificate(reader.get());
        if (!anchor) {
            break;
        }
        if (X509_STORE_add_cert(store, anchor.get()) != 1 ||
            (announce && SSL_CTX_add_client_CA(context, anchor.get()) != 1)) {
            return complain(index, "certificate not accepted");
        }
    }
    if (count == 0) {
        return complain(index, "no certificate");
    }
    ERR_clear_error();
    return true;
}

// Makes both contexts anew and keeps them only when everything fits: connections take a reference
// when they begin, so the former ones end with the last of those.
std::uint32_t tls_files::build() {
    std::array<file_content, file_count> files;
    for (int index = 0; index < file_count; ++index) {
        const std::uint32_t result = load(index, &files[static_cast<std::size_t>(index)]);
        if (result != at_ok) {
            return result;
        }
    }
    openssl_ptr<SSL_CTX> server = new_context(TLS_server_method());
    openssl_ptr<SSL_CTX> client = new_context(TLS_client_method());
    if (!server || !client) {
        problem_ = directory_ + ": OpenSSL, as it is configured, has no TLS that fits";
        ERR_clear_error();
        return at_no_memory;
    }
    const file_content& clients = files[client_ca_file];
    const file_content& peers = files[peer_ca_file];
    if (!use_key_pair(server.get(), files[certificate_file], files[key_file]) ||
        !use_key_pair(client.get(), files[certificate_file], files[key_file]) ||
        (clients.id != file_id{} && !trust(server.get(), client_ca_file, clients, true)) ||
        (peers.id != file_id{} && !trust(client.get(), peer_ca_file, peers, false))) {
        return at_file_error;
    }
    prepare_server_context(server.get(), clients.id != file_id{});
    SSL_CTX_set_verify(client.get(), SSL_VERIFY_PEER, nullptr);
    // What was read counts, not what was there before: a file that changed in between differs from
    // it at the next look.
    for (std::size_t index = 0; index < files.size(); ++index) {
        seen_[index] = files[index].id;
    }
    server_ = std::move(server);
    client_ = std::move(client);
    return at_ok;
}

std::uint32_t tls_files::refresh() {
    std::array<file_id, file_count> now;
    for (int index = 0; index < file_count; ++index) {
        const auto slot = static_cast<std::size_t>(index);
        const int error = look_at(path_of(index), &now[slot]);
        if (error != 0) {
            note(index, strerror(error));
            return result_of(error);
        }
    }
    return server_ && now == seen_ ? std::uint32_t{at_ok} : build();
}

openssl_ptr<SSL_CTX> tls_files::server() const {
    return share(server_);
}

openssl_ptr<SSL_CTX> tls_files::client() const {
    return share(client_);
}

}  // namespace provider
