#include "lib/replace_file.h"

#include <sys/file.h>
#include <sys/resource.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <optional>
#include <string>

#include "lib/on_exit.h"
#include "lib/plat.h"

namespace {

constexpr mode_t new_file_mode = 0666;
constexpr mode_t temporary_mode = 0600;
constexpr mode_t mode_bits = 07777;
constexpr int lock_tries = 100;
constexpr timespec lock_pause = {.tv_sec = 0, .tv_nsec = 20'000'000};
constexpr const char* access_list = "system.posix_acl_access";

// The result of a call that sets errno.
int error_of(int result) {
    return result == 0 ? 0 : errno;
}

// --- Room ---

// Reserves room for the content behind the descriptor without changing what it holds. A write that
// the process's own limit would cut is refused here as well.
int reserve(int fd, std::size_t length) {
    rlimit limit = {};
    if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && length > limit.rlim_cur) {
        return EFBIG;
    }
    while (length > 0 && ::fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(length)) != 0) {
        if (errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL) {
            break;  // the file system knows no such thing
        }
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

// --- Properties of the old file ---

using attribute = std::optional<std::string>;  // nothing: the file has none of the name

// False when it can't be known.
bool read_attribute(int fd, const char* name, attribute* value) {
    std::string found(XATTR_SIZE_MAX, '\0');
    const ssize_t length = ::fgetxattr(fd, name, found.data(), found.size());
    if (length < 0) {
        value->reset();
        return errno == ENODATA || errno == EOPNOTSUPP;
    }
    found.resize(static_cast<std::size_t>(length));
    *value = std::move(found);
    return true;
}

// Makes an attribute of the new file what it is in the old one; a folder's default may have given
// it one that the old file has not.
bool copy_attribute(int from, int to, const char* name) {
    attribute wanted;
    attribute present;
    if (!read_attribute(from, name, &wanted)) {
        return false;
    }
    if (read_attribute(to, name, &present) && wanted == present) {
        return true;
    }
    if (!wanted) {
        return ::fremovexattr(to, name) == 0;
    }
    const std::string& value = *wanted;
    return ::fsetxattr(to, name, value.data(), value.size(), 0) == 0;
}

// Checksums of the content, which the kernel keeps itself.
bool describes_content(std::string_view name) {
    return name == "security.ima" || name == "security.evm";
}

bool copy_attributes(int from, int to) {
    if (!copy_attribute(from, to, access_list)) {
        return false;
    }
    std::string names(XATTR_LIST_MAX, '\0');
    const ssize_t length = ::flistxattr(from, names.data(), names.size());
    names.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    for (std::size_t at = 0; at < names.size();) {
        const char* name = names.c_str() + at;
        const std::string_view text(name);
        at += text.size() + 1;
        attribute value;
        const bool readable = read_attribute(from, name, &value);
        if (text != access_list && !describes_content(text) && readable &&
            !copy_attribute(from, to, name)) {
            return false;
        }
    }
    return true;
}

// Gives the new file the properties of the one that it will replace. Owner first: changing it drops
// the set-id bits. Mode last: its group bits are the mask of an access control list.
bool adopt(int from, int to, const struct stat& original) {
    struct stat status = {};
    if (::fstat(to, &status) != 0) {
        return false;
    }
    if ((status.st_uid != original.st_uid || status.st_gid != original.st_gid) &&
        ::fchown(to, original.st_uid, original.st_gid) != 0) {
        return false;
    }
    return copy_attributes(from, to) && ::fchmod(to, original.st_mode & mode_bits) == 0;
}

// --- Replacing ---

struct place {
    std::string folder;
    std::string path;
    std::string temporary;
};

// `path` is absolute. A name at the limit of its length loses its end.
place place_of(std::string path) {
    constexpr std::string_view before = ".";
    constexpr std::string_view behind = ".dovmad-new";
    const std::size_t slash = path.rfind('/');
    std::string name = path.substr(slash + 1, NAME_MAX - before.size() - behind.size());
    std::string folder = path.substr(0, slash + 1);
    std::string temporary = folder;
    temporary.append(before).append(name).append(behind);
    return {
        .folder = std::move(folder), .path = std::move(path), .temporary = std::move(temporary)};
}

// Waits a while where descriptors have run out: connections end.
int open_patiently(const char* path, int flags, mode_t mode) {
    int fd = ::open(path, flags, mode);
    for (int i = 0; i < lock_tries && fd < 0 && (errno == EMFILE || errno == ENFILE); ++i) {
        (void)::nanosleep(&lock_pause, nullptr);
        fd = ::open(path, flags, mode);
    }
    return fd;
}

// Makes the new name durable. `fd` is the file that got it.
int sync_folder(const place& where, int fd) {
    const unique_fd folder(
        open_patiently(where.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0));
    // A folder that may be written but not read is reached by way of its file system only.
    const int error = error_of(folder ? ::fsync(folder.get()) : ::syncfs(fd));
    return error == EINVAL ? 0 : error;  // no file system with something to sync
}

// Whether the folder does not let the process have a second file, or not under the old one's name:
// a folder of somebody else or with the sticky bit, a file that is mounted by itself, a folder in
// the temporary's place. Other errors (a full disk, no descriptor) will pass.
bool forbids_second_file(int error) {
    return error == EACCES || error == EPERM || error == EROFS || error == EBUSY ||
           error == EXDEV || error == EEXIST;
}

enum class outcome { replaced, failed, impossible };

// Writes a second file beside the old one and renames it over. `failed` leaves an errno value in
// `*error`: overwriting in place would fail, or lose the old content, as well. `impossible`: the
// folder does not allow a second file, or the properties can't be kept.
outcome replace_by_rename(int old, const struct stat& original, const place& where,
                          std::string_view content, file_stamp* stamp, int* error) {
    // One fixed name: what a killed process left is taken over by the next one.
    (void)::unlink(where.temporary.c_str());
    const unique_fd fd(open_patiently(where.temporary.c_str(),
                                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                      temporary_mode));
    if (!fd) {
        *error = errno;
        return forbids_second_file(*error) ? outcome::impossible : outcome::failed;
    }
    exit_guard remove_temporary([&] { (void)::unlink(where.temporary.c_str()); });
    if (!adopt(old, fd.get(), original)) {
        return outcome::impossible;
    }
    *error = reserve(fd.get(), content.size());
    if (*error == 0) {
        *error = write_all(fd.get(), content);
    }
    if (*error == 0) {
        *error = error_of(::fdatasync(fd.get()));
    }
    if (*error != 0) {
        return outcome::failed;
    }
    if (std::rename(where.temporary.c_str(), where.path.c_str()) != 0) {
        *error = errno;
        return forbids_second_file(*error) ? outcome::impossible : outcome::failed;
    }
    remove_temporary.cancel();
    *error = sync_folder(where, fd.get());
    *stamp = stamp_of(fd.get());
    return *error == 0 ? outcome::replaced : outcome::failed;
}

// The last way out, and the only one for a device. Not safe against a kill.
int overwrite(int fd, std::string_view content, bool regular) {
    int error = regular ? reserve(fd, content.size()) : 0;
    if (error == 0) {
        error = write_all(fd, content);
    }
    if (error == 0 && regular) {
        error = error_of(::ftruncate(fd, static_cast<off_t>(content.size())));
    }
    return error == 0 && regular ? error_of(::fdatasync(fd)) : error;
}

// --- Taking turns ---

enum class turn { taken, again, refused };

// Locks the file behind the path. Whoever replaces it holds the lock of the file that is going, so
// a lock counts only while the path still leads to the file that it was taken on.
turn take_turn(const unique_fd& fd, const char* path, const struct stat& status) {
    int error = 0;
    for (int i = 0; i < lock_tries; ++i) {
        error = error_of(::flock(fd.get(), LOCK_EX | LOCK_NB));
        if (error != EWOULDBLOCK) {
            break;
        }
        (void)::nanosleep(&lock_pause, nullptr);
    }
    if (error == EWOULDBLOCK) {
        return turn::refused;
    }
    // A file system without locks leaves it at that.
    struct stat now = {};
    const bool same =
        ::stat(path, &now) == 0 && now.st_dev == status.st_dev && now.st_ino == status.st_ino;
    return same ? turn::taken : turn::again;
}

// Opens the file, creating it when it is missing, and waits for its turn; 0 or an errno value.
int open_in_turn(const char* path, unique_fd* fd, struct stat* status) {
    for (int i = 0; i < lock_tries; ++i) {
        // First as it is: an existing file of somebody else in a folder for everybody must not be
        // opened with O_CREAT (fs.protected_regular).
        fd->reset(::open(path, O_WRONLY | open_at_once));
        if (!*fd && errno == ENOENT) {
            fd->reset(::open(path, O_WRONLY | O_CREAT | open_at_once, new_file_mode));
        }
        if (!*fd || ::fstat(fd->get(), status) != 0) {
            return errno;
        }
        const turn mine = S_ISREG(status->st_mode) ? take_turn(*fd, path, *status) : turn::taken;
        if (mine == turn::taken) {
            return 0;
        }
        if (mine == turn::refused) {
            return EBUSY;
        }
    }
    return EBUSY;
}

}  // namespace

int replace_file(const char* path, std::string_view content, file_stamp* stamp) noexcept {
    unique_fd fd;
    struct stat original = {};
    file_stamp unwanted;
    stamp = stamp != nullptr ? stamp : &unwanted;
    int error = open_in_turn(path, &fd, &original);
    if (error != 0) {
        return error;
    }
    const bool regular = S_ISREG(original.st_mode);
    const qz_owned<char> resolved(regular ? ::realpath(path, nullptr) : nullptr);
    if (resolved != nullptr && replace_by_rename(fd.get(), original, place_of(resolved.get()),
                                                 content, stamp, &error) != outcome::impossible) {
        return error;
    }
    error = overwrite(fd.get(), content, regular);
    *stamp = stamp_of(fd.get());
    return error;
}
