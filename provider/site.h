// One data directory in use: its domains, its users, its key pair.
//
// Ownership: handles, credentials and channels each hold a site_ref, so they may be released in any
// order; the last one frees the site.
//
// Threads: every public function takes the site's one lock, a password check for as long as the
// hash takes. What they return is the caller's own.
//
// Files are looked at again where their content matters and read again when they have changed. What
// can no longer be read (the process has given up its rights, say) stays as it was.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "provider/accounts.h"
#include "provider/files.h"
#include "provider/password_guard.h"
#include "provider/tls_files.h"

namespace provider {

class site;
using site_ref = std::shared_ptr<site>;

// Who somebody is, as the daemon's information record says it. The daemon makes one text of it,
// name@domain.qualifier, or the name alone when the qualifier is "localhost".
struct principal {
    std::string qualifier;
    std::string domain;
    std::string name;
};

class site {
  public:
    // Loads DATA_DIR/dovmad-at. On failure *out stays empty, the result is an at_result and *why
    // names the file and the reason. `whole`: a missing key pair is a failure too.
    [[nodiscard]] static std::uint32_t open(const std::string& data_dir, bool whole, site_ref* out,
                                            std::string* why);

    // Takes changed certificate files over, and changed domains. Channels that are open keep what
    // they began with. A failure leaves the former files in use and is only logged.
    void refresh_key_pair();
    [[nodiscard]] bool has_key_pair();

    // References of the caller's own; null without a key pair.
    [[nodiscard]] openssl_ptr<SSL_CTX> server_context();
    [[nodiscard]] openssl_ptr<SSL_CTX> client_context();

    // The domains in the order of their file; the first one is for logins that name none.
    [[nodiscard]] std::vector<domain_entry> domains();

    // Who the login is; nothing when it is refused, for whatever reason: a wrong password, no such
    // domain or user, a locked one, too many attempts. May take the time of one hash.
    [[nodiscard]] std::optional<principal> check_login(const login& who);

    // Who the holder of a verified certificate with this common name is: a user of the first
    // certificate domain. Nothing when there is none, or when the name is not that of a user.
    [[nodiscard]] std::optional<principal> certificate_user(std::string_view common_name);

    // Whether the holder of this certificate, whose common name it is, may not log in any more.
    [[nodiscard]] bool is_locked(const X509* certificate, std::string_view common_name);

  private:
    struct known_user {
        file_id id;
        std::optional<user_entry> user;  // nothing: the file holds no good line
    };

    explicit site(std::string directory);

    // Below here the lock is held, or nobody else knows the site yet.
    [[nodiscard]] std::uint32_t load(bool whole);
    [[nodiscard]] std::uint32_t refresh_domains();
    [[nodiscard]] std::uint32_t check_places(bool whole);
    [[nodiscard]] bool is_ours(uid_t owner, mode_t mode) const;
    [[nodiscard]] std::uint32_t complain(const std::string& path, int error);
    void tell_once(const std::string& path, const std::string& what);
    void load_users();
    void refresh_user(std::string_view name);
    [[nodiscard]] const domain_entry* find_domain(std::string_view name) const;

    std::mutex lock_;
    const std::string directory_;
    uid_t owner_ = 0;                          // of the data directory
    std::string problem_;                      // why load failed
    std::map<std::string, std::string> told_;  // by path: what was last reported of it
    tls_files tls_;
    std::vector<std::string> warnings_;  // about the certificates, as last reported
    std::vector<domain_entry> domains_;
    file_id domains_id_;  // of the content that domains_ came from
    const std::string users_directory_;
    std::map<std::string, known_user, std::less<>> users_;
    password_guard guard_;
};

// The library's own directory below the data directory.
inline constexpr std::string_view site_directory_name = "dovmad-at";

}  // namespace provider
