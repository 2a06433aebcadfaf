#include "provider/self_signed.h"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "provider/openssl_ptr.h"

namespace provider {
namespace {

constexpr long valid_seconds = 3650L * 24 * 3600;
// The limits of the standards for the two kinds of name; a longer host name is cut, or left out.
constexpr std::size_t longest_common_name = 64;
constexpr std::size_t longest_dns_name = 253;

bool add_extension(X509* certificate, int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    const openssl_ptr<X509_EXTENSION> extension{X509V3_EXT_conf_nid(nullptr, &context, nid, value)};
    return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

// 126 random bits: unique without anybody keeping count, and positive, as browsers insist.
bool set_random_serial(X509* certificate) {
    BIGNUM* number = BN_new();
    const bool set = number != nullptr &&
                     BN_rand(number, 126, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1 &&
                     BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate)) != nullptr;
    BN_free(number);
    return set;
}

bool set_name(X509* certificate, const std::string& host) {
    const std::string shown = host.substr(0, longest_common_name);
    X509_NAME* name = X509_get_subject_name(certificate);
    return X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                      reinterpret_cast<const unsigned char*>(shown.c_str()), -1, -1,
                                      0) == 1 &&
           X509_set_issuer_name(certificate, name) == 1;
}

bool add_extensions(X509* certificate, const std::string& host) {
    // Clients compare with these names and ignore the common name. No host goes in that holds a
    // comma: the caller has seen to it.
    std::string names = "DNS:localhost,IP:127.0.0.1,IP:::1";
    if (host != "localhost" && host.size() <= longest_dns_name) {
        names = "DNS:" + host + "," + names;
    }
    return add_extension(certificate, NID_basic_constraints, "critical,CA:FALSE") &&
           add_extension(certificate, NID_key_usage, "critical,digitalSignature") &&
           add_extension(certificate, NID_ext_key_usage, "serverAuth,clientAuth") &&
           add_extension(certificate, NID_subject_alt_name, names.c_str()) &&
           add_extension(certificate, NID_subject_key_identifier, "hash");
}

// Copies what was written; the caller wipes it when it is a key.
std::string taken_from(BIO* writer) {
    char* start = nullptr;
    const long length = BIO_get_mem_data(writer, &start);
    return {start, static_cast<std::size_t>(length)};
}

}  // namespace

bool make_self_signed(const std::string& host, key_pair* pair) {
    const openssl_ptr<EVP_PKEY> key{EVP_EC_gen("P-256")};
    const openssl_ptr<X509> certificate{X509_new()};
    const openssl_ptr<BIO> key_writer{BIO_new(BIO_s_secmem())};
    const openssl_ptr<BIO> certificate_writer{BIO_new(BIO_s_mem())};
    if (!key || !certificate || !key_writer || !certificate_writer) {
        return false;
    }
    X509* c = certificate.get();
    const bool made = X509_set_version(c, X509_VERSION_3) == 1 && set_random_serial(c) &&
                      set_name(c, host) && X509_gmtime_adj(X509_getm_notBefore(c), 0) != nullptr &&
                      X509_gmtime_adj(X509_getm_notAfter(c), valid_seconds) != nullptr &&
                      X509_set_pubkey(c, key.get()) == 1 && add_extensions(c, host) &&
                      X509_sign(c, key.get(), EVP_sha256()) != 0 &&
                      PEM_write_bio_PKCS8PrivateKey(key_writer.get(), key.get(), nullptr, nullptr,
                                                    0, nullptr, nullptr) == 1 &&
                      PEM_write_bio_X509(certificate_writer.get(), c) == 1;
    if (made) {
        pair->key_pem = taken_from(key_writer.get());
        pair->certificate_pem = taken_from(certificate_writer.get());
    }
    return made;
}

}  // namespace provider
