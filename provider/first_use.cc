#include "provider/first_use.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "lib/file.h"
#include "lib/unique_fd.h"
#include "provider/accounts.h"
#include "provider/files.h"
#include "provider/report.h"
#include "provider/result.h"
#include "provider/self_signed.h"
#include "provider/site.h"

namespace provider {
namespace {

constexpr std::size_t password_letters = 16;  // 80 bits

std::uint32_t complain(const std::string& path, int error) {
    print_at_start("cannot set up %s: %s", path.c_str(), strerror(error));
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

constexpr const char* password_file = "initial-password";

// Only a terminal shows the password to nobody but whoever sits there: a journal, a log file or a
// pipe keeps it for others, a socket hands it to a client.
bool print_password(const char* password) {
    return isatty(STDERR_FILENO) != 0 &&
           dprintf(STDERR_FILENO, "dovmad: password: %s\n", password) > 0;
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

    [[nodiscard]] int add_password(const char* password) const {
        std::string line;
        line.reserve(password_letters + 1);
        line.append(password).append("\n");
        const int error = add(password_file, line, 0600);
        explicit_bzero(line.data(), line.size());
        return error;
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
        return error != 0 || fsync(directory) == 0 ? error : errno;
    }
};

// Takes back what build_site could have made, and nothing else; an error on the way is not the one
// to report.
void remove_site(int parent, const char* name) {
    const unique_fd directory{
        openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
    for (const char* file :
         {"server.key", "server.crt", "peer_ca.pem", "domains", "users/root", password_file}) {
        (void)unlinkat(directory.get(), file, 0);  // those that were not made yet do not matter
    }
    (void)unlinkat(directory.get(), "users", AT_REMOVEDIR);
    (void)unlinkat(parent, name, AT_REMOVEDIR);
}

// Only root may, and needs to, give files to the user that the daemon will run as: the owner of the
// data directory.
file_owner owner_of_files(int parent) {
    struct stat status {};
    return geteuid() == 0 && fstat(parent, &status) == 0 ? file_owner{status.st_uid, status.st_gid}
                                                         : file_owner{};
}

// Builds the directory under another name and gives it its own in one step. The password is in its
// file until that of the user is shown elsewhere.
int build_site(int parent, const char* password) {
    const file_owner owner = owner_of_files(parent);
    const std::string name{site_directory_name};
    // One fixed name, used under the lock alone: what a killed process left goes first.
    const std::string temporary = name + ".unfinished";
    remove_site(parent, temporary.c_str());
    if (mkdirat(parent, temporary.c_str(), 0700) != 0) {
        return errno;
    }
    const unique_fd directory{
        openat(parent, temporary.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
    const site_builder builder{directory.get(), owner};
    int error = !directory || fchown(directory.get(), owner.user, owner.group) != 0 ? errno : 0;
    error = error != 0 ? error : builder.add_all(password);
    error = error != 0 ? error : builder.add_password(password);
    if (error == 0 && renameat(parent, temporary.c_str(), parent, name.c_str()) != 0) {
        error = errno;
    }
    if (error != 0) {
        remove_site(parent, temporary.c_str());
        return error;
    }
    return fsync(parent) == 0 ? 0 : errno;
}

// Afterwards the password is in one place only.
void announce(const std::string& site_directory, const char* password) {
    const std::string file = site_directory + "/" + password_file;
    print_at_start("first start: %s created", site_directory.c_str());
    print_at_start("user: root");
    if (print_password(password)) {
        (void)unlink(file.c_str());
    } else {
        print_at_start("the password is in %s; delete the file once you have read it",
                       file.c_str());
    }
}

// --- A directory that was made while everything belonged to root ---

// Gives one file away. A name that leads to another file as well is not touched: whoever owns the
// data directory could have put it there to get that file.
void hand_over_file(int directory, const char* name, file_owner owner) {
    struct stat status {};
    const unique_fd fd{openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)};
    if (fd && fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == 0 &&
        status.st_nlink == 1 && fchown(fd.get(), owner.user, owner.group) != 0) {
        print_at_start("%s: %s", name, strerror(errno));
    }
}

void hand_over_files(int directory, file_owner owner) {
    const directory_ptr listing{fdopendir(dup(directory))};
    while (const dirent* entry = listing ? readdir(listing.get()) : nullptr) {
        hand_over_file(directory, entry->d_name, owner);
    }
}

// Daemons that give up root's rights were once set up with files of root's, which they could not
// read again later. The directory itself goes last: until then the next start begins anew.
void hand_over_site(const std::string& data_dir) {
    struct stat status {};
    const unique_fd parent{open(data_dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    const file_owner owner = owner_of_files(parent.get());
    const unique_fd site{openat(parent.get(), std::string(site_directory_name).c_str(),
                                O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
    if (owner.user == static_cast<uid_t>(-1) || owner.user == 0 || !site ||
        fstat(site.get(), &status) != 0 || status.st_uid != 0) {
        return;
    }
    const unique_fd users{
        openat(site.get(), "users", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
    for (const int directory : {users.get(), site.get()}) {
        if (directory >= 0) {
            hand_over_files(directory, owner);
            (void)!fchown(directory, owner.user, owner.group);  // else the next start tries again
        }
    }
    const std::string path = data_dir + "/" + std::string(site_directory_name);
    print_at_start("%s and its files now belong to user %u, like the directory above", path.c_str(),
                   static_cast<unsigned>(owner.user));
    report(at_log_error, "%s and its files now belong to user %u", path.c_str(),
           static_cast<unsigned>(owner.user));
}

}  // namespace

std::uint32_t set_up_on_first_use(const std::string& data_dir) {
    const std::string path = data_dir + "/" + std::string(site_directory_name);
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0) {
        hand_over_site(data_dir);
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
