// Opening, reading and writing files without ever waiting for them, and owners that close them.
//
// A path may lead to a pipe, a device or a folder, whoever put it there. What is opened here never
// waits for another process, is closed in children and never becomes a controlling terminal.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "lib/unique_fd.h"

// Added to the access mode (O_RDONLY ...) in every open() of a path that may not be a plain file.
inline constexpr int open_at_once = O_NONBLOCK | O_CLOEXEC | O_NOCTTY;

struct file_closer {
    void operator()(std::FILE* file) const noexcept { (void)std::fclose(file); }
};
using file_ptr = std::unique_ptr<std::FILE, file_closer>;

struct directory_closer {
    void operator()(DIR* directory) const noexcept { (void)::closedir(directory); }
};
using directory_ptr = std::unique_ptr<DIR, directory_closer>;

// Tells whether a path still leads to the file that was seen there, unchanged since.
struct file_stamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t changed_s = 0;  // the status change, which no program can set
    std::int64_t changed_ns = 0;
    std::int64_t modified_s = 0;  // the last write, as far as programs leave it alone
    std::int64_t modified_ns = 0;

    // Whether both are of one file with one content: its rights may have been changed.
    [[nodiscard]] bool same_content(const file_stamp& other) const {
        return device == other.device && inode == other.inode && size == other.size &&
               modified_s == other.modified_s && modified_ns == other.modified_ns;
    }
    bool operator==(const file_stamp&) const = default;
};

// The stamp of an open file or of what a path leads to; all zero, which no file has, on failure.
[[nodiscard]] file_stamp stamp_of(int fd) noexcept;
[[nodiscard]] file_stamp stamp_of(const char* path) noexcept;

// Opens a regular file for reading. Anything else is refused with errno EISDIR (a folder) or EINVAL
// (a pipe, socket or device); none is read from. `status` receives what fstat says, unless null.
[[nodiscard]] unique_fd open_regular(const char* path, struct stat* status = nullptr) noexcept;

// Turns a descriptor into a stream, which then owns it; null with errno when `fd` holds none or no
// stream can be made.
[[nodiscard]] file_ptr stream_of(unique_fd fd, const char* mode) noexcept;

// Appends a descriptor's content, from its position to the end, to `content`; 0 or an errno value.
[[nodiscard]] int read_all(int fd, std::string* content);

// Writes everything, however many calls that takes; 0 or an errno value, and then a part may have
// been written.
[[nodiscard]] int write_all(int fd, std::string_view content) noexcept;
