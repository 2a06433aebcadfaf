// Decides whether a password fits a hash, and how often anybody may try.
//
// The daemon has one thread and a hash costs about 15 ms, so guessing must not be able to stop it:
// every name has its own lock-out, all names together share a budget, and a login that was right a
// moment ago is answered from memory. Refusals never wait. Not safe for use from two threads; the
// site that owns it holds the lock. What it remembers is kept out of core dumps.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "provider/openssl_ptr.h"

struct crypt_data;

namespace provider {

struct login {
    std::string_view domain;
    std::string_view name;
    const char* password;
};

class password_guard {
  public:
    password_guard() = default;
    ~password_guard();
    password_guard(const password_guard&) = delete;
    password_guard& operator=(const password_guard&) = delete;
    password_guard(password_guard&&) = delete;
    password_guard& operator=(password_guard&&) = delete;

    // Draws the key and the stand-in hash. False: no memory or no randomness.
    [[nodiscard]] bool prepare();

    // Whether the login's password has `hash`; an empty hash is a user that does not exist or may
    // not log in, and costs the caller the same time. False without hashing when the name or the
    // whole process is over its limit.
    [[nodiscard]] bool check(const login& who, const std::string& hash);

  private:
    using digest = std::array<unsigned char, 32>;
    struct remembered {
        digest key;
        std::int64_t until_ms;
    };
    struct failures {
        digest key;
        std::int64_t last_ms;
        std::int64_t locked_until_ms;
        int count;
    };
    struct secrets;

    [[nodiscard]] bool make_digest(const login& who, std::string_view hash, bool whole,
                                   digest* result);
    [[nodiscard]] bool is_remembered(const digest& key, std::int64_t now_ms) const;
    void remember(const digest& key, std::int64_t now_ms);
    failures* slot_of(const digest& key);
    void count_failure(const digest& key, std::int64_t now_ms);
    [[nodiscard]] bool take_from_budget(std::int64_t now_ms);
    [[nodiscard]] bool hash_fits(const char* password, const std::string& hash);

    secrets* secrets_ = nullptr;  // pages of their own
    openssl_ptr<EVP_MAC_CTX> mac_;
    std::string stand_in_;
    std::int64_t budget_ = 0;  // in thousandths of a hash
    std::int64_t budget_ms_ = 0;
};

}  // namespace provider
