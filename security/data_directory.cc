#include "security/data_directory.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "lib/unique_fd.h"

void prepare_data_directory(const std::string& path, const std::string& user) {
    const passwd* entry = user.empty() || geteuid() != 0 ? nullptr : getpwnam(user.c_str());
    if (entry == nullptr) {
        return;
    }
    const uid_t owner = entry->pw_uid;
    const gid_t group = entry->pw_gid;
    struct stat status {};
    // Through descriptors, and never along a link: the folder above may be the user's own, who
    // could lay a link to any folder of root's there.
    const bool made = mkdir(path.c_str(), 0700) == 0 || errno == EEXIST;
    const unique_fd directory(
        made ? open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1);
    if (directory && fstat(directory.get(), &status) == 0 &&
        (status.st_uid != 0 || fchown(directory.get(), owner, group) == 0)) {
        return;
    }
    (void)std::fprintf(stderr, "cannot give %s to %s: %s\n", path.c_str(), user.c_str(),
                       std::strerror(errno));
}
