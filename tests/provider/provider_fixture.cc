#include "tests/provider/provider_fixture.h"

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "provider/clock.h"

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

std::int64_t clock_ms = 1'000'000;
std::int64_t clock_step_ms = 0;

std::int64_t provider::monotonic_ms() {
    return clock_ms += clock_step_ms;
}

std::string info_of(void* handle, void* credential) {
    molb_info* info = nullptr;
    if (molbAtExtractInfo(handle, credential, &info) != at_ok) {
        return "no info";
    }
    std::string text = std::string(info->qualifier) + "/" + info->domain + "/" + info->name;
    EXPECT_EQ(molbAtFree(info), at_ok);
    return text;
}

void provider_test::SetUp() {
    setenv("ZEL_DATA_DIR", data_dir.c_str(), 1);
    clock_step_ms = 0;
}

void provider_test::TearDown() {
    if (handle != nullptr) {
        EXPECT_EQ(molbAtTerminate(handle), at_ok);
    }
}

void provider_test::write_file(const std::filesystem::path& path, std::string_view text, int mode) {
    // A fresh file each time, as an editor or dovmad-user leaves it.
    const std::filesystem::path temporary = path.string() + ".new";
    std::ofstream(temporary) << text;
    ASSERT_EQ(chmod(temporary.c_str(), static_cast<mode_t>(mode)), 0);
    std::filesystem::rename(temporary, path);
}

std::uint32_t provider_test::start(void** started) {
    std::uint32_t result = at_ok;
    log = stderr_of([&] { result = molbAtInit(nullptr, started); });
    return result;
}

void provider_test::set_up() {
    ASSERT_EQ(start(&handle), at_ok) << log;
    root_password = first_password();
}

std::uint32_t provider_test::start_in(const std::filesystem::path& directory, void** started) {
    const molb_init init{nullptr, directory.c_str(), nullptr, nullptr};
    return molbAtInitEx(nullptr, started, &init, 0, 0, 0);
}

std::string provider_test::first_password() const {
    std::string password;
    std::getline(std::ifstream(site() / "initial-password"), password);
    return password;
}

std::string provider_test::log_in(const char* domain, const char* name,
                                  const char* password) const {
    const molb_identity identity{"localhost", domain, name, password};
    void* credential = nullptr;
    const std::uint32_t result = molbAtAuthenticate(handle, &identity, 0, &credential);
    EXPECT_EQ(result == at_ok, credential != nullptr);
    std::string who = result == at_ok ? info_of(handle, credential) : std::to_string(result);
    EXPECT_EQ(molbAtFree(credential), at_ok);
    return who;
}

void socket_pair::renew() {
    std::tie(ours_, theirs_) = connected_pair(SOCK_NONBLOCK);
}

certified_key make_certificate(const std::vector<std::string>& common_names,
                               const certified_key* issuer) {
    return make(common_names, issuer, "critical,CA:FALSE");
}

certified_key make_authority(const char* name) {
    return make({name}, nullptr, "critical,CA:TRUE");
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
