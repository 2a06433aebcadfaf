#include "provider/tool_files.h"

#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <pwd.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string_view>

#include "provider/tool.h"

namespace {

constexpr int most_links = 40;  // and the kernel's

struct stranger {
    uid_t user = 0;
    gid_t group = 0;
};

unique_fd open_place(int folder, const char* name) {
    return unique_fd(openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
}

// Goes the way step by step, links included. All before the first stranger is root's, and nobody
// else can change it meanwhile. The file at the end may be anybody's: its name is in the folder.
std::optional<stranger> first_stranger(const std::string& path) {
    std::string rest = path;
    unique_fd at = open_place(AT_FDCWD, rest.starts_with('/') ? "/" : ".");
    for (int links = 0; at && !rest.empty() && links < most_links;) {
        const std::size_t end = std::min(rest.find('/'), rest.size());
        const std::string name = rest.substr(0, end);
        rest.erase(0, std::min(end + 1, rest.size()));
        if (name.empty() || name == ".") {
            continue;
        }
        unique_fd next = open_place(at.get(), name.c_str());
        struct stat status {};
        if (!next || fstat(next.get(), &status) != 0) {
            break;  // whoever wants to use it says why
        }
        const bool is_link = S_ISLNK(status.st_mode);
        if (status.st_uid != 0 && (is_link || S_ISDIR(status.st_mode))) {
            return stranger{status.st_uid, status.st_gid};
        }
        if (is_link) {
            char target[PATH_MAX];
            const ssize_t length = readlinkat(next.get(), "", target, sizeof target);
            const std::string_view behind = rest;
            std::string joined(target, static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
            rest = joined.append("/").append(behind);
            next = rest.starts_with('/') ? open_place(AT_FDCWD, "/") : std::move(at);
            ++links;
        }
        at = std::move(next);
    }
    return std::nullopt;
}

}  // namespace

borrowed_ids::borrowed_ids(const std::vector<std::string>& paths) {
    std::optional<stranger> other;
    for (const std::string& path : paths) {
        if (!other && geteuid() == 0) {
            other = first_stranger(path);
        }
    }
    if (!other) {
        return;
    }
    const passwd* known = getpwuid(other->user);
    const gid_t group = known != nullptr ? known->pw_gid : other->group;
    group_ = getegid();
    groups_.resize(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
    (void)!getgroups(static_cast<int>(groups_.size()), groups_.data());
    if (setgroups(1, &group) != 0 || setegid(group) != 0 || seteuid(other->user) != 0) {
        (void)fail("cannot become user %u: %s", static_cast<unsigned>(other->user),
                   strerror(errno));
        std::exit(exit_failed);  // with root's rights it must not go on
    }
    borrowed_ = true;
}

borrowed_ids::~borrowed_ids() {
    if (borrowed_ && (seteuid(0) != 0 || setegid(group_) != 0 ||
                      setgroups(groups_.size(), groups_.data()) != 0)) {
        std::abort();  // the saved ids are root's
    }
}

folder_lock::folder_lock(const std::string& folder)
    : folder_(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (folder_) {
        while (flock(folder_.get(), LOCK_EX) != 0 && errno == EINTR) {
        }
    }
}
