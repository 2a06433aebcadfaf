// The certificate files of a data directory and the TLS contexts made from them.
//
// There is one context for each direction, made when the files are read and shared by all
// connections; who begins one takes a reference, so replacing the contexts disturbs nobody. Not
// safe for use from two threads; the site that owns it holds the lock.
#pragma once

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "provider/files.h"
#include "provider/openssl_ptr.h"

namespace provider {

// What the optional file "tls" sets, for both directions.
struct tls_limits {
    int minimum = TLS1_2_VERSION;
    std::string groups = "X25519:P-256:P-384";
};

// Reads lines "minimum = 1.2" or "1.3" and "groups = X25519:P-256:..."; '#' begins a comment.
// Returns what is wrong with the first bad line, empty when there is none.
std::string parse_tls_limits(std::string_view text, tls_limits* limits);

// Reads common names and SHA-256 fingerprints in hex, colons allowed, one a line; '#' begins a
// comment. Fingerprints become 64 lower-case digits, longer than any name. Returns as above.
std::string parse_locked(std::string_view text, std::set<std::string, std::less<>>* locked);

// Whether a private key in PEM form fits the first certificate of a chain in PEM form; else what is
// wrong with which of them.
struct pair_problem {
    bool is_key = false;
    std::string what;  // empty: they fit
};
pair_problem check_key_pair(const file_content& chain, const file_content& key);

class tls_files {
  public:
    // Completes a context for clients: called whenever one is made.
    using server_finish = void (*)(SSL_CTX* context);

    // `directory` holds server.crt (the certificate and what leads to its authority), server.key
    // and, optionally, client_ca.pem (whose client certificates are logins; without it none is
    // asked for), client_crl.pem (those that were revoked), locked_certificates (those that are
    // locked here), peer_ca.pem (whom outgoing connections trust; without it nobody) and tls.
    // Reads nothing yet.
    explicit tls_files(std::string directory, server_finish finish = nullptr)
        : directory_(std::move(directory)), finish_(finish) {}

    // Reads the files again when one of them has changed. On failure the contexts stay as they
    // were, the result is an at_result and problem() says why; a missing certificate or key is
    // at_not_available, a key that others may read is at_permission_denied.
    [[nodiscard]] std::uint32_t refresh();
    [[nodiscard]] const std::string& problem() const { return problem_; }

    // What is strange about files that are in use: dates of certificates and revocation lists.
    [[nodiscard]] std::vector<std::string> warnings() const;

    // Whether this certificate of a client, with this common name, is locked.
    [[nodiscard]] bool is_locked(const X509* certificate, std::string_view common_name) const;

    // A reference of the caller's own; null when there is no key pair.
    [[nodiscard]] openssl_ptr<SSL_CTX> server() const;
    [[nodiscard]] openssl_ptr<SSL_CTX> client() const;

  private:
    // In the order in which they are read, and complained about.
    enum file_index {
        limits_file,
        certificate_file,
        key_file,
        client_ca_file,
        client_crl_file,
        locked_file,
        peer_ca_file,
        file_count
    };
    using file_set = std::array<file_content, file_count>;

    [[nodiscard]] std::string path_of(int index) const;
    [[nodiscard]] std::uint32_t load(int index, file_content* content);
    [[nodiscard]] std::uint32_t build();
    void note(int index, const char* what);
    [[nodiscard]] bool complain(int index, const char* what);
    [[nodiscard]] bool use_key_pair(SSL_CTX* context, const file_set& files);
    [[nodiscard]] bool revoke(SSL_CTX* context, const file_content& lists);
    [[nodiscard]] bool fill(SSL_CTX* server, SSL_CTX* client, const file_set& files);
    [[nodiscard]] bool trust(SSL_CTX* context, int index, const file_content& anchors,
                             bool announce);

    std::string directory_;
    server_finish finish_;
    std::string problem_;
    std::set<std::string, std::less<>> locked_;
    std::array<file_id, file_count> seen_{};  // what the contexts were made from
    openssl_ptr<SSL_CTX> server_;
    openssl_ptr<SSL_CTX> client_;
};

}  // namespace provider
