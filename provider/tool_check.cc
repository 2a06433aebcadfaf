// dovmad-user: what the daemon would say about the files of the data directory.
#include <dirent.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <pwd.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <set>

#include "lib/file.h"
#include "provider/accounts.h"
#include "provider/files.h"
#include "provider/tls_files.h"
#include "provider/tool.h"
#include "provider/tool_accounts.h"
#include "security/at_types.h"

using namespace provider;

namespace {

constexpr int days_of_notice = 30;

// Prints what is found, and remembers the worst of it.
class findings {
  public:
    [[gnu::format(printf, 2, 3)]] void error(const char* format, ...) {
        va_list arguments;
        va_start(arguments, format);
        print("error", format, arguments);
        va_end(arguments);
        failed_ = true;
    }
    [[gnu::format(printf, 2, 3)]] void warning(const char* format, ...) {
        va_list arguments;
        va_start(arguments, format);
        print("warning", format, arguments);
        va_end(arguments);
    }
    [[nodiscard]] int status() const { return failed_ ? exit_failed : exit_done; }

  private:
    static void print(const char* kind, const char* format, va_list arguments) {
        char text[1024];
        (void)std::vsnprintf(text, sizeof text, format, arguments);
        (void)std::printf("%s: %s\n", kind, text);
    }
    bool failed_ = false;
};

// --- Owners and modes ---

struct trusted_owner {
    uid_t user = 0;  // besides root
};

// The daemon's rule: the owner of the data directory and root, and nobody else, may write here.
bool check_place(const std::string& path, const trusted_owner& owner, mode_t forbidden,
                 findings* found) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        found->error("%s: %s", path.c_str(), strerror(errno));
        return false;
    }
    if (status.st_uid != 0 && status.st_uid != owner.user) {
        found->error(
            "%s: belongs to user %u, neither to root nor to user %u, whose the data "
            "directory is",
            path.c_str(), static_cast<unsigned>(status.st_uid), static_cast<unsigned>(owner.user));
    }
    if ((status.st_mode & forbidden) != 0) {
        found->error("%s: mode %04o gives others rights that they must not have (%04o)",
                     path.c_str(), static_cast<unsigned>(status.st_mode) & 07777U,
                     static_cast<unsigned>(status.st_mode & forbidden));
    }
    return true;
}

// The daemon gives up root's rights before it serves, and then has to read what it was given.
void check_daemons_user(const tool_options& options, const std::string& data_dir,
                        const trusted_owner& owner, findings* found) {
    daemon_config config;
    if (!read_config(options, &config)) {
        return;
    }
    const std::string name = config.get("runtime_uid");
    const passwd* entry = name.empty() ? nullptr : getpwnam(name.c_str());
    if (!name.empty() && entry == nullptr) {
        found->error("%s: runtime_uid %s: no such user", options.config_file.c_str(), name.c_str());
    } else if (entry != nullptr && entry->pw_uid != owner.user) {
        found->warning("%s: belongs to user %u, and the daemon will be %s; %s", data_dir.c_str(),
                       static_cast<unsigned>(owner.user), name.c_str(),
                       owner.user == 0 ? "it is handed over at the next start by root"
                                       : "it will not see changes");
    }
}

// --- Certificates ---

std::vector<openssl_ptr<X509>> certificates_of(const std::string& path) {
    std::vector<openssl_ptr<X509>> chain;
    file_content content;
    if (read_file(path, &content) != 0) {
        return chain;
    }
    const openssl_ptr<BIO> reader{
        BIO_new_mem_buf(content.text.data(), static_cast<int>(content.text.size()))};
    for (;;) {
        openssl_ptr<X509> next{PEM_read_bio_X509(reader.get(), nullptr, nullptr, nullptr)};
        if (!next) {
            return chain;
        }
        chain.push_back(std::move(next));
    }
}

void check_chain(const std::string& path, findings* found) {
    const std::vector<openssl_ptr<X509>> chain = certificates_of(path);
    if (chain.empty()) {
        return;  // has been told
    }
    X509* own = chain.front().get();
    time_t soon = time(nullptr) + days_of_notice * 24L * 3600;
    if (X509_cmp_time(X509_get0_notAfter(own), &soon) < 0 &&
        X509_cmp_current_time(X509_get0_notAfter(own)) > 0) {
        found->warning("%s: expires within %d days", path.c_str(), days_of_notice);
    }
    for (std::size_t i = 1; i < chain.size(); ++i) {
        if (X509_check_issued(chain[i].get(), chain[i - 1].get()) != X509_V_OK) {
            found->error("%s: certificate %zu has not issued the one before it", path.c_str(),
                         i + 1);
        }
    }
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) == 0 && X509_check_host(own, host, 0, 0, nullptr) != 1) {
        found->warning("%s: is not for the name of this host, %s", path.c_str(), host);
    }
    ERR_clear_error();
}

void check_certificates(const std::string& directory, const trusted_owner& owner, findings* found) {
    tls_files files(directory);
    if (files.refresh() != at_ok) {
        found->error("%s", files.problem().c_str());
    }
    for (const std::string& warning : files.warnings()) {
        found->error("%s", warning.c_str());
    }
    check_chain(directory + "/server.crt", found);
    for (const char* name : {"server.crt", "server.key", "client_ca.pem", "client_crl.pem",
                             "peer_ca.pem", "tls", "locked_certificates"}) {
        const std::string path = directory + "/" + name;
        if (access(path.c_str(), F_OK) == 0) {
            (void)check_place(path, owner, S_IWGRP | S_IWOTH, found);
        }
    }
    const bool asks = access((directory + "/client_ca.pem").c_str(), F_OK) == 0;
    for (const char* name : {"client_crl.pem", "locked_certificates"}) {
        if (!asks && access((directory + "/" + name).c_str(), F_OK) == 0) {
            found->warning("%s/%s: of no use without client_ca.pem", directory.c_str(), name);
        }
    }
}

// --- Domains and users ---

void check_domains(const std::string& directory, findings* found) {
    const std::string path = directory + "/domains";
    file_content content;
    if (const int error = read_file(path, &content); error != 0) {
        found->error("%s: %s", path.c_str(), strerror(error));
        return;
    }
    std::set<std::string> names;
    bool has_password_domain = false;
    std::string_view text = content.text;
    for (int number = 1; !text.empty(); ++number) {
        const std::string_view line = next_line(&text);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::optional<domain_entry> domain = parse_domain(line);
        if (!domain) {
            found->error("%s: line %d: not NAME:password:QUALIFIER or NAME:certificate:QUALIFIER",
                         path.c_str(), number);
        } else if (!names.insert(domain->name).second) {
            found->error("%s: line %d: a domain of this name stands further up", path.c_str(),
                         number);
        } else {
            has_password_domain |= domain->kind == domain_kind::password;
        }
    }
    if (names.empty()) {
        found->error("%s: no line names a domain", path.c_str());
    } else if (!has_password_domain) {
        found->warning("%s: no password domain", path.c_str());
    }
}

void check_user(const std::string& path, const std::string& name, const trusted_owner& owner,
                findings* found) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
        found->warning("%s: is a symbolic link", path.c_str());
    }
    if (!check_place(path, owner, S_IRWXG | S_IRWXO, found)) {
        return;
    }
    file_content content;
    if (const int error = read_file(path, &content); error != 0) {
        found->error("%s: %s", path.c_str(), strerror(error));
    } else if (!find_user(content.text, name)) {
        found->error(
            "%s: no line NAME:HASH[:OPTION,...] for this user with a yescrypt or SHA-512 "
            "hash and the options os and off",
            path.c_str());
    }
}

void check_users(const std::string& directory, const trusted_owner& owner, findings* found) {
    const directory_ptr folder{opendir(directory.c_str())};
    std::vector<std::string> names;
    while (const dirent* entry = folder ? readdir(folder.get()) : nullptr) {
        names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        std::string path = directory;
        path.append("/").append(name);
        if (is_user_name(name)) {
            check_user(path, name, owner, found);
        } else if (is_leftover(name)) {
            found->warning("%s: left by a dovmad-user that was killed; the next change removes it",
                           path.c_str());
        } else if (name != "." && name != "..") {
            found->warning("%s: no user can have this name", path.c_str());
        }
    }
}

}  // namespace

int command_check(const tool_options& options, const tool_arguments& /*arguments*/) {
    const std::string data_dir = find_data_dir(options);
    if (data_dir.empty()) {
        return exit_failed;
    }
    const std::string directory = data_dir + "/dovmad-at";
    struct stat status {};
    if (stat(data_dir.c_str(), &status) != 0) {
        return fail("%s: %s; start the daemon once, or name another directory with -d",
                    data_dir.c_str(), strerror(errno));
    }
    findings found;
    const trusted_owner owner{status.st_uid};
    check_daemons_user(options, data_dir, owner, &found);
    for (const std::string& path : {data_dir, directory, directory + "/users"}) {
        (void)check_place(path, owner, S_IWGRP | S_IWOTH, &found);
    }
    check_certificates(directory, owner, &found);
    check_domains(directory, &found);
    check_users(directory + "/users", owner, &found);
    if (access((directory + "/initial-password").c_str(), F_OK) == 0) {
        found.warning("%s/initial-password: still holds the first password", directory.c_str());
    }
    return found.status();
}
