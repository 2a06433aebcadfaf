// Keys and certificates for tests, made independently of the library's own.
#pragma once

#include <string>
#include <vector>

#include "provider/openssl_ptr.h"

struct certified_key {
    provider::openssl_ptr<EVP_PKEY> key;
    provider::openssl_ptr<X509> certificate;

    [[nodiscard]] std::string certificate_pem() const;
    [[nodiscard]] std::string key_pem() const;
};

// A certificate with these common names, signed by `issuer`, or by itself when there is none.
certified_key make_certificate(const std::vector<std::string>& common_names,
                               const certified_key* issuer = nullptr);

// One that may sign others.
certified_key make_authority();
