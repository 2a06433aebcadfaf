// Keys and certificates for tests, made independently of the library's own.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <vector>

struct openssl_free {
    void operator()(BIO* object) const { BIO_free_all(object); }
    void operator()(EVP_PKEY* object) const { EVP_PKEY_free(object); }
    void operator()(SSL* object) const { SSL_free(object); }
    void operator()(SSL_CTX* object) const { SSL_CTX_free(object); }
    void operator()(X509* object) const { X509_free(object); }
};
template <class T>
using openssl_owned = std::unique_ptr<T, openssl_free>;

struct certified_key {
    openssl_owned<EVP_PKEY> key;
    openssl_owned<X509> certificate;

    [[nodiscard]] std::string certificate_pem() const;
    [[nodiscard]] std::string key_pem() const;
};

// A certificate with these common names, signed by `issuer`, or by itself when there is none.
certified_key make_certificate(const std::vector<std::string>& common_names,
                               const certified_key* issuer = nullptr, bool authority = false);
