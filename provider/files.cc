#include "provider/files.h"

#include <fcntl.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "lib/file.h"
#include "lib/unique_fd.h"

namespace provider {
namespace {

// Nothing here is longer than a few certificate chains; a path that leads to something huge must
// not take the daemon's memory.
constexpr off_t longest_file_bytes = 1 << 20;
constexpr const char* temporary_name = ".dovmad-user.new";

// Fills `text` as far as the file goes: it may have become shorter since its size was asked for. It
// does not grow, which would leave a part of a key behind.
int fill_from(int fd, std::string* text) {
    std::size_t done = 0;
    while (done < text->size()) {
        const ssize_t n = read(fd, text->data() + done, text->size() - done);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        if (n == 0) {
            break;
        }
        done += static_cast<std::size_t>(n);
    }
    text->resize(done);
    return 0;
}

// The mode comes last but for the disk: until then nobody else can open the file, whoever owns it.
int fill_file(int fd, std::string_view text, mode_t mode, file_owner owner) {
    const int error = write_all(fd, text);
    if (error != 0) {
        return error;
    }
    const bool give = owner.user != static_cast<uid_t>(-1) || owner.group != static_cast<gid_t>(-1);
    if ((give && fchown(fd, owner.user, owner.group) != 0) || fchmod(fd, mode) != 0 ||
        fsync(fd) != 0) {
        return errno;
    }
    return 0;
}

}  // namespace

file_id id_of(const struct stat& status) {
    const auto nanoseconds = [](const timespec& time) {
        return static_cast<std::int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
    };
    return {status.st_dev, status.st_ino, status.st_size, nanoseconds(status.st_mtim),
            nanoseconds(status.st_ctim)};
}

int look_at(const std::string& path, file_id* id) {
    struct stat status {};
    *id = {};
    if (stat(path.c_str(), &status) != 0) {
        return errno == ENOENT ? 0 : errno;
    }
    *id = id_of(status);
    return 0;
}

// The capacity, not the size: shrinking leaves old bytes behind the end.
file_content::~file_content() {
    explicit_bzero(text.data(), text.capacity());
}

int read_file(const std::string& path, file_content* content) {
    struct stat status {};
    const unique_fd fd = open_regular(path.c_str(), &status);
    if (!fd) {
        return errno;
    }
    if (status.st_size > longest_file_bytes) {
        return EFBIG;
    }
    content->id = id_of(status);
    content->mode = status.st_mode;
    content->owner = status.st_uid;
    content->group = status.st_gid;
    content->text.assign(static_cast<std::size_t>(status.st_size), '\0');
    return fill_from(fd.get(), &content->text);
}

int create_file(int directory, const char* name, std::string_view text, mode_t mode,
                file_owner owner) {
    const unique_fd fd{
        openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)};
    if (!fd) {
        return errno;
    }
    const int error = fill_file(fd.get(), text, mode, owner);
    if (error != 0) {
        (void)unlinkat(directory, name, 0);  // the first error is the one to report
    }
    return error;
}

// Earlier versions gave every file a temporary name of its own: .NAME. and six letters.
bool is_leftover(std::string_view name) {
    if (name == temporary_name) {
        return true;
    }
    const std::size_t dot = name.rfind('.');
    return name.size() > 8 && name[0] == '.' && dot == name.size() - 7 &&
           name.find_first_not_of("abcdefghijkmnpqrstuvwxyz23456789", dot + 1) ==
               std::string_view::npos;
}

// The temporary file begins with a dot, which no user name does: whoever lists users skips it, also
// when a kill has left it behind. The lock makes one name enough for all.
int replace_file_in(const std::string& directory, const std::string& name, std::string_view text,
                    mode_t mode, file_owner owner) {
    const directory_ptr folder{opendir(directory.c_str())};
    if (folder == nullptr) {
        return errno;
    }
    const int fd = dirfd(folder.get());
    while (const dirent* entry = readdir(folder.get())) {
        if (is_leftover(entry->d_name)) {
            (void)unlinkat(fd, entry->d_name, 0);
        }
    }
    int error = create_file(fd, temporary_name, text, mode, owner);
    if (error != 0) {
        return error;
    }
    if (renameat(fd, temporary_name, fd, name.c_str()) != 0) {
        error = errno;
        (void)unlinkat(fd, temporary_name, 0);
        return error;
    }
    // The rename itself is on the disk only with its directory.
    return fsync(fd) == 0 ? 0 : errno;
}

}  // namespace provider
