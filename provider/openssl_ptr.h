// OpenSSL objects that release themselves.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>

namespace provider {

struct openssl_delete {
    void operator()(BIO* object) const { BIO_free_all(object); }
    void operator()(EVP_PKEY* object) const { EVP_PKEY_free(object); }
    void operator()(EVP_MAC* object) const { EVP_MAC_free(object); }
    void operator()(EVP_MAC_CTX* object) const { EVP_MAC_CTX_free(object); }
    void operator()(SSL* object) const { SSL_free(object); }
    void operator()(SSL_CTX* object) const { SSL_CTX_free(object); }
    void operator()(X509* object) const { X509_free(object); }
    void operator()(X509_EXTENSION* object) const { X509_EXTENSION_free(object); }
};

template <class T>
using openssl_ptr = std::unique_ptr<T, openssl_delete>;

}  // namespace provider
