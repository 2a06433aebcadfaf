#include "provider/first_use.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "lib/unique_fd.h"
#include "provider/accounts.h"
#include "provider/files.h"
#include "provider/result.h"
#include "provider/self_signed.h"
#include "provider/site.h"

namespace provider {
namespace {

constexpr std::size_t password_letters = 16;  // 80 bits

std::uint32_t complain(const std::string& path, int error) {
    (void)std::fprintf(stderr, "dovmad: cannot set up %s: %s\n", path.c_str(), strerror(error));
    return result_of(error);
}

// 32 letters and digits, none of which is mistaken for another on a screen.
bool draw_password(std::array<char, password_letters + 1>* password) {
    constexpr std::string_view alphabet = "abcdefghijkmnpqrstuvwxyz23456789";
    static_assert(alphabet.size() == 32);
    std::array<unsigned char, password_letters> random{};
    if (RAND_bytes(random.data(), static_cast<int>(random.size())) != 1) {
        return false;
    }
    // 256 is a multiple of 32, so every letter is equally likely.
    for (std::size_t i = 0; i < random.size(); ++i) {
        (*password)[i] = alphabet[random[i] % alphabet.size()];
    }
    (*password)[password_letters] = '\0';
    explicit_bzero(random.data(), random.size());
    return true;
}

// A host name goes into the certificate and into a configuration value, where a comma would begin
// another name: what is not plain becomes "localhost".
std::string host_name() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0) {
        return "localhost";
    }
    const std::string_view usable =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-";
    const std::string host = name;
    return host.empty() || host.find_first_not_of(usable) != std::string::npos ? "localhost" : host;
}

// Written into the file once, so that renaming the host later does not change who its users are.
std::string first_domains(const std::string& host) {
    std::string qualifier = host.substr(0, host.find('.'));
    if (!is_qualifier(qualifier)) {
        qualifier = "host";  // "localhost" would make every user one of the system's
    }
    return "local:password:" + qualifier + "\ncert:certificate:" + qualifier + "\n";
}

// True when nobody can read what is printed: closed, or /dev/null (device 1:3), as after the daemon
// has detached.
bool stderr_is_lost() {
    struct stat status {};
    return fstat(STDERR_FILENO, &status) != 0 ||
           (S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3));
}

// Fills a directory that nobody knows yet. Results are 0 or an errno value.
struct site_builder {
    int directory = -1;
    file_owner owner;

    [[nodiscard]] int add(const char* name, std::string_view text, mode_t mode) const {
        return create_file(directory, name, text, mode, owner);
    }

    [[nodiscard]] int add_user(const char* password) const {
        user_entry administrator{.name = "root", .hash = make_password_hash(password), .os = true};
        if (administrator.hash.empty()) {
            return ENOMEM;
        }
        if (mkdirat(directory, "users", 0700) != 0) {
            return errno;
        }
        const unique_fd users{openat(directory, "users", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
        if (!users || fchown(users.get(), owner.user, owner.group) != 0) {
            return errno;
        }
        const int error = create_file(users.get(), "root", format_user(administrator), 0600, owner);
        return error != 0 || fsync(users.get()) == 0 ? error : errno;
    }

    [[nodiscard]] int add_all(const char* password) const {
        const std::string host = host_name();
        key_pair pair;
        if (!make_self_signed(host, &pair)) {
            return ENOMEM;
        }
        int error = add("server.key", pair.key_pem, 0600);
        explicit_bzero(pair.key_pem.data(), pair.key_pem.size());
        error = error != 0 ? error : add("server.crt", pair.certificate_pem, 0644);
        error = error != 0 ? error : add("peer_ca.pem", pair.certificate_pem, 0644);
        error = error != 0 ? error : add("domains", first_domains(host), 0644);
        error = error != 0 ? error : add_user(password);
        if (error == 0 && stderr_is_lost()) {
            error = add("initial-password", std::string(password) + "\n", 0600);
        }
        return error != 0 || fsync(directory) == 0 ? error : errno;
    }
};

// Takes back what build_site could have made, and nothing else; an error on the way is not the one
// to report.
void remove_site(int parent, const char* name) {
    const unique_fd directory{
        openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
    for (const char* file :
         {"server.key", "server.crt", "peer_ca.pem", "domains", "users/root", "initial-password"}) {
        (void)unlinkat(directory.get(), file, 0);  // those that were not made yet do not matter
    }
    (void)unlinkat(directory.get(), "users", AT_REMOVEDIR);
    (void)unlinkat(parent, name, AT_REMOVEDIR);
}

// Builds the directory under another name and gives it its own in one step.
int build_site(int parent, const char* password) {
    struct stat status {};
    if (fstat(parent, &status) != 0) {
        return errno;
    }
    const file_owner owner =
        geteuid() == 0 ? file_owner{status.st_uid, status.st_gid} : file_owner{};
    const std::string name{site_directory_name};
    // One fixed name, used under the lock alone: what a killed process left goes first.
    const std::string temporary = name + ".unfinished";
    remove_site(parent, temporary.c_str());
    if (mkdirat(parent, temporary.c_str(), 0700) != 0) {
        return errno;
    }
    const unique_fd directory{
        openat(parent, temporary.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
    int error = !directory || fchown(directory.get(), owner.user, owner.group) != 0 ? errno : 0;
    error = error != 0 ? error : site_builder{directory.get(), owner}.add_all(password);
    if (error == 0 && renameat(parent, temporary.c_str(), parent, name.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        remove_site(parent, temporary.c_str());
        return error;
    }
    return fsync(parent) == 0 ? 0 : errno;
}

void announce(const std::string& site_directory, const char* password) {
    (void)std::fprintf(stderr,
                       "dovmad: first start: %s created\n"
                       "dovmad: user: root\n"
                       "dovmad: password: %s\n",
                       site_directory.c_str(), password);
}

}  // namespace

std::uint32_t set_up_on_first_use(const std::string& data_dir) {
    const std::string path = data_dir + "/" + std::string(site_directory_name);
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) {
        return at_ok;
    }
    if (errno != ENOENT) {
        return complain(path, errno);
    }
    if (mkdir(data_dir.c_str(), 0700) != 0 && errno != EEXIST) {
        return complain(data_dir, errno);
    }
    // The lock is the directory's own: no lock file remains, and it ends with the descriptor.
    const unique_fd parent{open(data_dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!parent || flock(parent.get(), LOCK_EX) != 0) {
        return complain(data_dir, errno);
    }
    if (lstat(path.c_str(), &status) == 0) {
        return at_ok;  // somebody else was faster
    }
    std::array<char, password_letters + 1> password{};
    const int error = draw_password(&password) ? build_site(parent.get(), password.data()) : ENOMEM;
    if (error == 0) {
        announce(path, password.data());
    }
    explicit_bzero(password.data(), password.size());
    return error == 0 ? std::uint32_t{at_ok} : complain(path, error);
}

}  // namespace provider
