// Gives every test of the library a data directory of its own.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "security/at_types.h"
#include "tests/provider/certificates.h"

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

    // Starts an instance on ZEL_DATA_DIR; *log gets what it says on standard error.
    static std::uint32_t start(void** handle, std::string* log);
    // As start, but has to succeed; the instance ends with the test.
    void set_up();
    // Starts an instance on another directory that is no daemon's own.
    static std::uint32_t start_in(const std::filesystem::path& directory, void** handle);
    // The password that first use printed in `log`; empty when there is none.
    static std::string password_in(const std::string& log);

    // Logs in; the credential is freed again. Returns the result and, through `who`, the info.
    std::uint32_t log_in(const char* domain, const char* name, const char* password,
                         std::string* who = nullptr) const;

    std::filesystem::path base;  // removed at the end
    std::filesystem::path data_dir;
    void* handle = nullptr;
    std::string root_password;
};

// A connected pair of non-blocking sockets: the library's end, and the other one.
class socket_pair {
  public:
    socket_pair() { renew(); }
    ~socket_pair() { close_both(); }
    socket_pair(const socket_pair&) = delete;
    socket_pair& operator=(const socket_pair&) = delete;

    [[nodiscard]] int ours() const { return fds_[0]; }
    [[nodiscard]] int theirs() const { return fds_[1]; }
    void close_theirs();
    void renew();

  private:
    void close_both();

    int fds_[2] = {-1, -1};
};
