#include "lib/replace_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "lib/file.h"
#include "lib/on_exit.h"
#include "lib/plat.h"

namespace {

constexpr mode_t new_file_mode = 0666;
constexpr mode_t temporary_mode = 0600;
constexpr mode_t mode_bits = 07777;

// The last way out, and the only one for a device: not safe against a kill. Room for the content is
// reserved before the old one is touched, so that a full disk does not cut it.
int overwrite(int fd, std::string_view content, bool regular) {
    const auto length = static_cast<off_t>(content.size());
    if (regular && length > 0) {
        const int error = ::posix_fallocate(fd, 0, length);
        if (error == ENOSPC || error == EDQUOT) {
            return error;
        }
    }
    const int error = write_all(fd, content);
    if (error == 0 && regular && ::ftruncate(fd, length) != 0) {
        return errno;
    }
    return error;
}

// Gives a new file the owner and mode of the one it will replace. Owner first: changing it drops
// the set-id bits.
bool adopt(int fd, const struct stat& original) {
    struct stat status = {};
    if (::fstat(fd, &status) != 0) {
        return false;
    }
    if ((status.st_uid != original.st_uid || status.st_gid != original.st_gid) &&
        ::fchown(fd, original.st_uid, original.st_gid) != 0) {
        return false;
    }
    return ::fchmod(fd, original.st_mode & mode_bits) == 0;
}

enum class outcome { replaced, failed, impossible };

// Writes a second file beside `path` and renames it over. `failed` leaves errno-style `*error`: the
// disk is full, and overwriting in place would lose the old content as well. `impossible`: the
// directory or the owner does not allow a second file.
outcome replace_by_rename(const std::string& path, const struct stat& original,
                          std::string_view content, int* error) {
    // One fixed name: what a killed process left is taken over by the next one.
    const std::string temporary = path + ".new";
    (void)::unlink(temporary.c_str());
    unique_fd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        temporary_mode));
    if (!fd) {
        *error = errno;
        return *error == ENOSPC || *error == EDQUOT ? outcome::failed : outcome::impossible;
    }
    exit_guard remove_temporary([&] { (void)::unlink(temporary.c_str()); });
    if (!adopt(fd.get(), original)) {
        return outcome::impossible;
    }
    *error = write_all(fd.get(), content);
    if (*error == 0 && ::close(fd.release()) != 0) {
        *error = errno;  // some file systems report a full disk only here
    }
    if (*error != 0) {
        return outcome::failed;
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        return outcome::impossible;  // a mount point, for one
    }
    remove_temporary.cancel();
    return outcome::replaced;
}

}  // namespace

int replace_file(const char* path, std::string_view content) noexcept {
    const unique_fd fd(::open(path, O_WRONLY | O_CREAT | open_at_once, new_file_mode));
    struct stat original = {};
    if (!fd || ::fstat(fd.get(), &original) != 0) {
        return errno;
    }
    const bool regular = S_ISREG(original.st_mode);
    const qz_owned<char> resolved(regular ? ::realpath(path, nullptr) : nullptr);
    if (resolved != nullptr) {
        int error = 0;
        switch (replace_by_rename(resolved.get(), original, content, &error)) {
            case outcome::replaced:
                return 0;
            case outcome::failed:
                return error;
            case outcome::impossible:
                break;
        }
    }
    return overwrite(fd.get(), content, regular);
}
