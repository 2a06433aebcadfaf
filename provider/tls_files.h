// The certificate files of a data directory and the TLS contexts made from them.
//
// There is one context for each direction, made when the files are read and shared by all
// connections; who begins one takes a reference, so replacing the contexts disturbs nobody. Not
// safe for use from two threads; the site that owns it holds the lock.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "provider/files.h"
#include "provider/openssl_ptr.h"

namespace provider {

class tls_files {
  public:
    // `directory` holds server.crt (the certificate and what leads to its authority), server.key
    // and, optionally, client_ca.pem (whose client certificates are logins; without it none is
    // asked for) and peer_ca.pem (whom outgoing connections trust; without it nobody). Reads
    // nothing yet.
    explicit tls_files(std::string directory) : directory_(std::move(directory)) {}

    // Reads the files again when one of them has changed. On failure the contexts stay as they
    // were, the result is an at_result and problem() says why; a missing certificate or key is
    // at_not_available, a key that others may read is at_permission_denied.
    [[nodiscard]] std::uint32_t refresh();
    [[nodiscard]] const std::string& problem() const { return problem_; }

    // A reference of the caller's own; null when there is no key pair.
    [[nodiscard]] openssl_ptr<SSL_CTX> server() const;
    [[nodiscard]] openssl_ptr<SSL_CTX> client() const;

  private:
    // In the order in which they are read, and complained about.
    enum file_index { certificate_file, key_file, client_ca_file, peer_ca_file, file_count };

    [[nodiscard]] std::string path_of(int index) const;
    [[nodiscard]] std::uint32_t load(int index, file_content* content);
    [[nodiscard]] std::uint32_t build();
    void note(int index, const char* what);
    [[nodiscard]] bool complain(int index, const char* what);
    [[nodiscard]] bool use_key_pair(SSL_CTX* context, const file_content& certificate,
                                    const file_content& key);
    [[nodiscard]] bool trust(SSL_CTX* context, int index, const file_content& anchors,
                             bool announce);

    std::string directory_;
    std::string problem_;
    std::array<file_id, file_count> seen_{};  // what the contexts were made from
    openssl_ptr<SSL_CTX> server_;
    openssl_ptr<SSL_CTX> client_;
};

}  // namespace provider
