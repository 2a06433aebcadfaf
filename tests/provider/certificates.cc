#include "tests/provider/certificates.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

using provider::openssl_ptr;

namespace {

std::string content_of(BIO* bio) {
    char* start = nullptr;
    const long length = BIO_get_mem_data(bio, &start);
    return {start, static_cast<std::size_t>(length)};
}

certified_key make(const std::vector<std::string>& common_names, const certified_key* issuer,
                   const char* constraints) {
    static long serial = 0;
    certified_key made{openssl_ptr<EVP_PKEY>(EVP_EC_gen("P-256")), openssl_ptr<X509>(X509_new())};
    X509* certificate = made.certificate.get();
    X509_set_version(certificate, X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
    for (const std::string& name : common_names) {
        X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(name.data()),
                                   static_cast<int>(name.size()), -1, 0);
    }
    const certified_key& signer = issuer == nullptr ? made : *issuer;
    X509_set_issuer_name(certificate, X509_get_subject_name(signer.certificate.get()));
    X509_set_pubkey(certificate, made.key.get());
    const openssl_ptr<X509_EXTENSION> extension(
        X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, constraints));
    X509_add_ext(certificate, extension.get(), -1);
    X509_sign(certificate, signer.key.get(), EVP_sha256());
    return made;
}

}  // namespace

certified_key make_certificate(const std::vector<std::string>& common_names,
                               const certified_key* issuer) {
    return make(common_names, issuer, "critical,CA:FALSE");
}

certified_key make_authority() {
    return make({"authority"}, nullptr, "critical,CA:TRUE");
}

std::string certified_key::certificate_pem() const {
    const openssl_ptr<BIO> bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), certificate.get());
    return content_of(bio.get());
}

std::string certified_key::key_pem() const {
    const openssl_ptr<BIO> bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    return content_of(bio.get());
}
