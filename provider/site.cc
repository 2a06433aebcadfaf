#include "provider/site.h"

#include <openssl/err.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>

#include "lib/file.h"
#include "provider/channel.h"
#include "provider/report.h"
#include "provider/result.h"

namespace provider {
namespace {

std::string strangers_text(uid_t owner, mode_t mode) {
    char text[128];
    (void)std::snprintf(text, sizeof text,
                        "owner %u, mode %04o: only the daemon's user and root may write here",
                        static_cast<unsigned>(owner), static_cast<unsigned>(mode) & 07777U);
    return text;
}

}  // namespace

site::site(std::string directory)
    : directory_(std::move(directory)),
      tls_(directory_, prepare_server_context),
      users_directory_(directory_ + "/users") {}

std::uint32_t site::open(const std::string& data_dir, bool whole, site_ref* out, std::string* why) {
    const site_ref opened{new site(data_dir + "/" + std::string(site_directory_name))};
    const std::uint32_t result = opened->load(whole);
    if (result == at_ok) {
        *out = opened;
    } else {
        *why = opened->problem_;
    }
    return result;
}

// Whoever could write into one of these could give himself a user, or any password. What belongs to
// the owner of the data directory is as good as the daemon's own: everything here is his to
// replace.
std::uint32_t site::check_places(bool whole) {
    const std::string data_dir = directory_.substr(0, directory_.rfind('/'));
    struct stat status {};
    for (const std::string& path : {data_dir, directory_, users_directory_}) {
        if (stat(path.c_str(), &status) != 0) {
            if (!whole && path == users_directory_ && errno == ENOENT) {
                break;
            }
            return complain(path, errno);
        }
        if (path == data_dir) {
            owner_ = status.st_uid;
        }
        if (!is_ours(status.st_uid, status.st_mode)) {
            problem_ = path + ": " + strangers_text(status.st_uid, status.st_mode);
            return at_permission_denied;
        }
    }
    return at_ok;
}

bool site::is_ours(uid_t owner, mode_t mode) const {
    return (owner == 0 || owner == geteuid() || owner == owner_) &&
           (mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Reads everything at once: after the process has given up its rights this may be all that it ever
// knows. Only the daemon's own directory has to be complete; another one may have a certificate
// without users, or users without a certificate.
std::uint32_t site::load(bool whole) {
    const std::uint32_t domains = refresh_domains();
    if (domains != at_ok) {
        return domains;
    }
    if (whole && domains_.empty()) {
        problem_ = directory_ + "/domains: no line names a domain";
        return at_not_available;
    }
    const std::uint32_t keys = tls_.refresh();
    if (keys != at_ok && (whole || keys != at_not_available)) {
        problem_ = tls_.problem();
        return keys;
    }
    const std::uint32_t places = check_places(whole);
    if (places != at_ok) {
        return places;
    }
    static std::atomic<bool> rehearsed = false;
    if (!rehearsed && tls_.server()) {
        rehearsed = rehearse_handshake(tls_.server().get(), tls_.client().get());
        const char* reason = ERR_reason_error_string(ERR_peek_error());
        ERR_clear_error();
        if (!rehearsed) {
            problem_ = directory_ + ": a TLS handshake with itself fails: " +
                       (reason != nullptr ? reason : strerror(ENOMEM));
            return at_not_available;
        }
    }
    if (!guard_.prepare()) {
        return complain(directory_, ENOMEM);
    }
    load_users();
    return at_ok;
}

std::uint32_t site::complain(const std::string& path, int error) {
    problem_ = path + ": " + strerror(error);
    tell_once(path, strerror(error));
    return error == ENOENT ? std::uint32_t{at_not_available} : result_of(error);
}

// What is wrong at every look is news at the first one only.
void site::tell_once(const std::string& path, const std::string& what) {
    std::string& told = told_[path];
    if (told != what) {
        told = what;
        report(at_log_error, "%s: %s", path.c_str(), what.c_str());
    }
}

// A list that cannot be read any more, or has no good line left, stays in use; one that was never
// read is an error.
std::uint32_t site::refresh_domains() {
    const std::string path = directory_ + "/domains";
    file_id now;
    int error = look_at(path, &now);
    if (error == 0 && now == domains_id_ && now != file_id{}) {
        return at_ok;
    }
    file_content content;
    error = error != 0 ? error : read_file(path, &content);
    if (error != 0) {
        return complain(path, error);
    }
    told_.erase(path);
    domains_id_ = content.id;
    std::vector<std::string> refused;
    std::vector<domain_entry> found = parse_domains(content.text, &refused);
    for (const std::string& line : refused) {
        report(at_log_error, "%s: bad line skipped: %s", path.c_str(), line.c_str());
    }
    if (!found.empty()) {
        domains_ = std::move(found);
    } else if (!domains_.empty()) {
        report(at_log_error, "%s: no line names a domain; the former ones stay", path.c_str());
    }
    return at_ok;
}

// Everybody is read at the start: later the process may no longer be allowed to.
void site::load_users() {
    const directory_ptr directory{opendir(users_directory_.c_str())};
    if (!directory) {
        if (errno != ENOENT) {
            tell_once(users_directory_, strerror(errno));
        }
        return;
    }
    while (const dirent* entry = readdir(directory.get())) {
        if (is_user_name(entry->d_name)) {
            refresh_user(entry->d_name);
        }
    }
}

// One stat per login is what an unchanged file costs. A file that is gone takes the user with it;
// one that cannot be looked at leaves the user as known.
void site::refresh_user(std::string_view name) {
    const std::string path = users_directory_ + "/" + std::string(name);
    const auto known = users_.find(name);
    file_id now;
    if (const int error = look_at(path, &now); error != 0) {
        tell_once(users_directory_,
                  std::string(strerror(error)) + ": users stay as they were read");
        return;
    }
    if (now == file_id{}) {
        if (known != users_.end()) {
            users_.erase(known);
        }
        return;
    }
    if (known != users_.end() && known->second.id == now) {
        return;
    }
    file_content content;
    if (const int error = read_file(path, &content); error != 0) {
        tell_once(path, strerror(error));
        return;
    }
    told_.erase(path);
    known_user fresh{content.id, find_user(content.text, name)};
    if (!is_ours(content.owner, content.mode)) {
        fresh.user.reset();
        report(at_log_error, "%s: %s; nobody logs in by it", path.c_str(),
               strangers_text(content.owner, content.mode).c_str());
    } else if (!fresh.user) {
        report(at_log_error, "%s: no good line for this user", path.c_str());
    }
    users_.insert_or_assign(std::string(name), std::move(fresh));
}

const domain_entry* site::find_domain(std::string_view name) const {
    const auto found = std::find_if(domains_.begin(), domains_.end(),
                                    [&](const domain_entry& entry) { return entry.name == name; });
    return found == domains_.end() ? nullptr : &*found;
}

void site::refresh_key_pair() {
    const std::lock_guard guard(lock_);
    const std::uint32_t result = tls_.refresh();
    if (result != at_ok) {
        report(at_log_error, "certificate files kept as they were: %s", tls_.problem().c_str());
    }
    std::vector<std::string> warnings = tls_.warnings();
    if (warnings != warnings_) {
        warnings_ = std::move(warnings);
        for (const std::string& warning : warnings_) {
            report(at_log_error, "%s", warning.c_str());
        }
    }
    (void)refresh_domains();  // has reported
}

bool site::has_key_pair() {
    return server_context() != nullptr;
}

openssl_ptr<SSL_CTX> site::server_context() {
    const std::lock_guard guard(lock_);
    return tls_.server();
}

openssl_ptr<SSL_CTX> site::client_context() {
    const std::lock_guard guard(lock_);
    return tls_.client();
}

std::vector<domain_entry> site::domains() {
    const std::lock_guard guard(lock_);
    (void)refresh_domains();
    return domains_;
}

std::optional<principal> site::check_login(const login& who) {
    const std::lock_guard guard(lock_);
    (void)refresh_domains();
    const domain_entry* domain = find_domain(who.domain);
    if (domain != nullptr && domain->kind != domain_kind::password) {
        domain = nullptr;
    }
    const user_entry* user = nullptr;
    if (is_user_name(who.name)) {
        refresh_user(who.name);
        const auto known = users_.find(who.name);
        if (known != users_.end() && known->second.user && !known->second.user->off) {
            user = &*known->second.user;
        }
    }
    // The guard is asked in any case, so that impossible logins cost and count like wrong ones.
    const bool possible = domain != nullptr && user != nullptr;
    if (!guard_.check(who, possible ? user->hash : std::string()) || !possible) {
        return std::nullopt;
    }
    return principal{user->os ? "localhost" : domain->qualifier, domain->name, user->name};
}

// The authority vouches for the name alone, so all certificates belong to one domain.
std::optional<principal> site::certificate_user(std::string_view common_name) {
    const std::lock_guard guard(lock_);
    (void)refresh_domains();
    const auto domain = std::find_if(
        domains_.begin(), domains_.end(),
        [](const domain_entry& entry) { return entry.kind == domain_kind::certificate; });
    if (domain == domains_.end() || !is_user_name(common_name)) {
        return std::nullopt;
    }
    return principal{domain->qualifier, domain->name, std::string(common_name)};
}

bool site::is_locked(const X509* certificate, std::string_view common_name) {
    const std::lock_guard guard(lock_);
    return tls_.is_locked(certificate, common_name);
}

}  // namespace provider
