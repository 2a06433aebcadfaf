// OpenSSL objects that release themselves.
//
// Most of them are counted: releasing drops one reference. Functions of OpenSSL whose names hold a
// 0 take a reference over ("add0") or lend one ("get0"); those with a 1 take or give one of their
// own.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>

namespace provider {

// A BIO goes with everything that is chained behind it.
struct openssl_delete {
    void operator()(BIO* object) const { BIO_free_all(object); }
    void operator()(EVP_PKEY* object) const { EVP_PKEY_free(object); }
    void operator()(EVP_MAC* object) const { EVP_MAC_free(object); }
    void operator()(EVP_MAC_CTX* object) const { EVP_MAC_CTX_free(object); }
    void operator()(SSL* object) const { SSL_free(object); }
    void operator()(SSL_CTX* object) const { SSL_CTX_free(object); }
    void operator()(X509* object) const { X509_free(object); }
    void operator()(X509_CRL* object) const { X509_CRL_free(object); }
    void operator()(X509_EXTENSION* object) const { X509_EXTENSION_free(object); }
};

template <class T>
using openssl_ptr = std::unique_ptr<T, openssl_delete>;

}  // namespace provider
