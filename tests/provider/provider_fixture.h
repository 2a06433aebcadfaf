// Gives every test of the library a data directory of its own.
#pragma once

#include "provider/openssl_ptr.h"
#include "security/at_types.h"
#include "tests/support/testing.h"

// The library's clock: where it stands, and how far every look at it moves it on.
extern std::int64_t clock_ms;
extern std::int64_t clock_step_ms;

inline constexpr molb_identity service_identity{"localhost", nullptr, nullptr, nullptr};

// Who a credential says its holder is, as "qualifier/domain/name".
std::string info_of(void* handle, void* credential);

class provider_test : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    [[nodiscard]] std::filesystem::path site() const { return data_dir / "dovmad-at"; }
    static void write_file(const std::filesystem::path& path, std::string_view text,
                           int mode = 0644);

    // Starts an instance on ZEL_DATA_DIR; `log` gets what it says on standard error.
    std::uint32_t start(void** handle);
    // As start, but has to succeed; the instance ends with the test.
    void set_up();
    // Starts an instance on another directory that is no daemon's own.
    static std::uint32_t start_in(const std::filesystem::path& directory, void** handle);
    // What first use has left in its file; empty when there is none.
    [[nodiscard]] std::string first_password() const;

    // Logs in; the credential is freed again. Returns who it is, or the result that was none.
    [[nodiscard]] std::string log_in(const char* domain, const char* name,
                                     const char* password) const;
    [[nodiscard]] std::string log_in_as_root(const std::string& password) const {
        return log_in("local", "root", password.c_str());
    }
    [[nodiscard]] std::string log_in_as_service() const {
        return log_in(nullptr, nullptr, nullptr);
    }

    const std::string refused = std::to_string(at_refused);
    const std::string root = "localhost/local/root";
    const std::string the_service = "localhost/service/service";

    const temporary_folder folder_;
    const std::filesystem::path base = folder_.path();
    const std::filesystem::path data_dir = base / "sec";
    void* handle = nullptr;
    std::string log;
    std::string root_password;
};

// A key and its certificate, made independently of the library's own.
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
certified_key make_authority(const char* name = "authority");

// A connected pair of non-blocking sockets: the library's end, and the other one.
class socket_pair {
  public:
    socket_pair() { renew(); }

    [[nodiscard]] int ours() const { return ours_.get(); }
    [[nodiscard]] int theirs() const { return theirs_.get(); }
    void close_theirs() { theirs_.reset(); }
    void renew();

  private:
    unique_fd ours_;
    unique_fd theirs_;
};
