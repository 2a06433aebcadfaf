// Small files of the data directory: read whole, written so that no reader sees a part.
//
// Results are 0 or an errno value. Every descriptor is close-on-exec.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace provider {

// Tells one content, owner and mode of a path from the next. All zero: there is no file.
struct file_id {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t modified_ns = 0;
    std::int64_t changed_ns = 0;

    friend bool operator==(const file_id&, const file_id&) = default;
};

// The identity of an open or named file whose status is known.
file_id id_of(const struct stat& status);

// What `path` (a symbolic link is followed) is now. ENOENT is no error: *id is all zero.
[[nodiscard]] int look_at(const std::string& path, file_id* id);

// A file as read_file found it.
struct file_content {
    file_id id;  // of the text below, also when the path leads elsewhere by now
    mode_t mode = 0;
    uid_t owner = 0;
    gid_t group = 0;
    std::string text;

    file_content() = default;
    file_content(const file_content&) = delete;
    file_content& operator=(const file_content&) = delete;
    file_content(file_content&&) = delete;
    file_content& operator=(file_content&&) = delete;
    ~file_content();  // wipes the text: it may be a key
};

// Reads a regular file of at most 1 MiB; never waits, whatever the path leads to. EISDIR or
// EINVAL: not a regular file; EFBIG: too long. On failure the content is unspecified.
[[nodiscard]] int read_file(const std::string& path, file_content* content);

// Whom a new file is given to; only root may give files away.
struct file_owner {
    uid_t user = static_cast<uid_t>(-1);  // -1: whoever runs the process
    gid_t group = static_cast<gid_t>(-1);
};

// Creates `name` in the open directory; EEXIST when it is there. The content is on the disk when
// the function returns 0; on failure nothing is left behind.
[[nodiscard]] int create_file(int directory, const char* name, std::string_view text, mode_t mode,
                              file_owner owner);

// Replaces (or creates) DIRECTORY/NAME in one step: readers and a crash find the old content or the
// new one. A symbolic link of that name is replaced, not followed. Requires: the caller has locked
// the directory (flock). What a process that was killed has left there is removed.
[[nodiscard]] int replace_file_in(const std::string& directory, const std::string& name,
                                  std::string_view text, mode_t mode, file_owner owner);

// Whether a file of this name is what a process that was killed has left.
[[nodiscard]] bool is_leftover(std::string_view name);

}  // namespace provider
