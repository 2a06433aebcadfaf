// Loads the library and gives every test a data directory of its own.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "security/at_types.h"
#include "tests/provider/certificates.h"

struct provider_library {
    void* module = nullptr;
    decltype(&::molbatLibraryControl) control = nullptr;
    decltype(&::molbAtInitEx) init = nullptr;
    decltype(&::molbAtTerminate) terminate = nullptr;
    decltype(&::molbAtAuthenticate) authenticate = nullptr;
    decltype(&::molbAtExtractInfo) extract_info = nullptr;
    decltype(&::molbAtGetCredentials) get_credentials = nullptr;
    decltype(&::molbAtGetDomainInfos) get_domain_infos = nullptr;
    decltype(&::molbAtFree) release = nullptr;
    decltype(&::molbAtSecConnConnect) connect = nullptr;
    decltype(&::molbAtSecConnAcceptWithCommExtn) accept = nullptr;
    decltype(&::molbAtSecConnRead) read = nullptr;
    decltype(&::molbAtSecConnWrite) write = nullptr;
    decltype(&::molbAtDataPending) pending = nullptr;
    decltype(&::molbAtSecConnClose) close = nullptr;
    void (*advance_ms)(std::int64_t) = nullptr;  // only with the settable clock
    void (*step_ms)(std::int64_t) = nullptr;
};

enum class clock_kind { real, settable };
const provider_library& load_provider(clock_kind kind);

// Who a credential says its holder is, as "qualifier/domain/name".
std::string info_of(const provider_library& library, void* handle, void* credential);

class provider_test : public testing::Test {
  protected:
    explicit provider_test(clock_kind kind = clock_kind::real) : lib(load_provider(kind)) {}
    void SetUp() override;
    void TearDown() override;

    [[nodiscard]] std::filesystem::path site() const { return data_dir / "dovmad-at"; }
    void write_file(const std::filesystem::path& path, std::string_view text, int mode = 0644);

    // Starts an instance on ZEL_DATA_DIR; *log gets what it says on standard error.
    std::uint32_t start(void** handle, std::string* log = nullptr) const;
    // As start, but has to succeed; the instance ends with the test.
    void set_up();
    // The password that first use printed in `log`; empty when there is none.
    static std::string password_in(const std::string& log);

    // Logs in; the credential is freed again. Returns the result and, through `who`, the info.
    std::uint32_t log_in(const char* domain, const char* name, const char* password,
                         std::string* who = nullptr) const;

    const provider_library& lib;
    std::filesystem::path base;  // removed at the end
    std::filesystem::path data_dir;
    void* handle = nullptr;
    std::string root_password;
};

// A connected pair of non-blocking sockets: the library's end, and the other one.
class socket_pair {
  public:
    socket_pair();
    ~socket_pair();
    socket_pair(const socket_pair&) = delete;
    socket_pair& operator=(const socket_pair&) = delete;

    [[nodiscard]] int ours() const { return fds_[0]; }
    [[nodiscard]] int theirs() const { return fds_[1]; }
    void close_theirs();

  private:
    int fds_[2] = {-1, -1};
};
