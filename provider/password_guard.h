// Decides whether a password fits a hash, and how often anybody may try.
//
// The daemon has one thread and a hash costs about 15 ms, so guessing must not be able to stop it:
// every name has its own lock-out, for each peer apart, so that nobody can keep somebody else out;
// all names together share a budget, half of which is for names
// that exist, and a login that was right a moment ago is answered from memory. That memory is no
// oracle: it ends with the twentieth wrong password. Refusals never wait. Not safe for use from two
// threads; the site that owns it holds the lock. What it remembers is kept out of core dumps.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "provider/openssl_ptr.h"

struct crypt_data;

namespace provider {

// An attempt, as it came in: the texts live as long as the call that they are passed to.
struct login {
    std::string_view domain;
    std::string_view name;
    const char* password;        // ends with a zero byte; never copied
    std::string_view peer = {};  // whence, as far as known: failures there are counted apart
};

class password_guard {
  public:
    password_guard() = default;
    ~password_guard();
    password_guard(const password_guard&) = delete;
    password_guard& operator=(const password_guard&) = delete;
    password_guard(password_guard&&) = delete;
    password_guard& operator=(password_guard&&) = delete;

    // Draws the key and the stand-in settings; to be called once, before the first check. False: no
    // memory or no randomness.
    [[nodiscard]] bool prepare();

    // Whether the login's password has `hash`; an empty hash is a user that does not exist or may
    // not log in, and costs the caller the same time: every refusal that hashes does so once with
    // each of the accepted methods. False without hashing when the name (five failures in a row
    // from one peer: 1 s, then 2, 4 and up to 30) or all names together (20 checks per second) are
    // over their limit. A login that was right is right without hashing for five minutes, or until
    // its name has had 20 wrong passwords.
    [[nodiscard]] bool check(const login& who, const std::string& hash);

  private:
    using digest = std::array<unsigned char, 32>;
    // A login that was right, with the hash that it was right for: a changed hash is another key.
    struct remembered {
        digest key;
        digest name;
        std::int64_t until_ms;
        int doubts;  // wrong passwords for the name since then
    };
    // Failures in a row of one name from one peer, existing or not. Count 0: a free slot.
    struct failures {
        digest key;
        std::int64_t last_ms;
        std::int64_t locked_until_ms;
        int count;
    };
    struct secrets;

    [[nodiscard]] bool make_digest(std::initializer_list<std::string_view> texts, digest* result);
    [[nodiscard]] bool is_remembered(const digest& key, std::int64_t now_ms) const;
    void remember(const digest& key, const digest& name, std::int64_t now_ms);
    void doubt(const digest& name);
    // Names that exist have slots of their own: no number of invented ones pushes them out.
    using failure_slots = std::array<failures, 256>;
    static failures* slot_of(failure_slots* slots, const digest& key);
    static void count_failure(failure_slots* slots, const digest& key, std::int64_t now_ms);
    [[nodiscard]] bool take_from_budget(std::int64_t now_ms, bool exists);
    [[nodiscard]] bool has_hash(const char* password, const std::string& hash);
    [[nodiscard]] bool hash_fits(const char* password, const std::string& hash);

    secrets* secrets_ = nullptr;    // pages of their own
    openssl_ptr<EVP_MAC_CTX> mac_;  // HMAC-SHA-256, begun anew with the key for each digest
    // To hash against where a user's own hash is of the other kind, or does not exist.
    std::string yescrypt_stand_in_;
    std::string sha512_stand_in_;
    std::int64_t budget_ = 0;     // in thousandths of a hash
    std::int64_t budget_ms_ = 0;  // when it was last looked at
};

}  // namespace provider
