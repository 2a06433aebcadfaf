#include "lib/file.h"

#include <unistd.h>

#include <cerrno>

namespace {

constexpr std::size_t block_bytes = 65536;

file_stamp stamp(const struct stat& status) {
    return {.device = status.st_dev,
            .inode = status.st_ino,
            .size = status.st_size,
            .changed_s = status.st_ctim.tv_sec,
            .changed_ns = status.st_ctim.tv_nsec,
            .modified_s = status.st_mtim.tv_sec,
            .modified_ns = status.st_mtim.tv_nsec};
}

}  // namespace

file_stamp stamp_of(int fd) noexcept {
    struct stat status {};
    return ::fstat(fd, &status) == 0 ? stamp(status) : file_stamp{};
}

file_stamp stamp_of(const char* path) noexcept {
    struct stat status {};
    return ::stat(path, &status) == 0 ? stamp(status) : file_stamp{};
}

unique_fd open_regular(const char* path, struct stat* status) noexcept {
    struct stat unwanted {};
    struct stat* found = status != nullptr ? status : &unwanted;
    unique_fd fd(::open(path, O_RDONLY | open_at_once));
    if (!fd || ::fstat(fd.get(), found) != 0) {
        errno = errno == ENXIO ? EINVAL : errno;  // a socket
        return unique_fd();
    }
    if (!S_ISREG(found->st_mode)) {
        errno = S_ISDIR(found->st_mode) ? EISDIR : EINVAL;
        const int error = errno;
        fd.reset();
        errno = error;
    }
    return fd;
}

file_ptr stream_of(unique_fd fd, const char* mode) noexcept {
    file_ptr file(fd ? ::fdopen(fd.get(), mode) : nullptr);
    if (file != nullptr) {
        (void)fd.release();  // the stream closes it
    }
    return file;
}

int read_all(int fd, std::string* content) {
    // As much at once as the file says it holds, one byte more to meet its end.
    struct stat status {};
    std::size_t room = block_bytes;
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0) {
        room = static_cast<std::size_t>(status.st_size) + 1;
    }
    std::size_t used = content->size();
    for (;;) {
        content->resize(used + room);
        const ssize_t count = ::read(fd, content->data() + used, room);
        const int error = count < 0 ? errno : 0;
        used += count > 0 ? static_cast<std::size_t>(count) : 0;
        if (count == 0 || (error != 0 && error != EINTR)) {
            content->resize(used);
            return error;
        }
        room = block_bytes;
    }
}

int write_all(int fd, std::string_view content) noexcept {
    while (!content.empty()) {
        const ssize_t written = ::write(fd, content.data(), content.size());
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        content.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}
