// Replaces the content of a file so that a reader, or the next start after a kill at any moment,
// finds the old or the new content and never a part.
#pragma once

#include <string_view>

// Replaces the content of `path`, creating the file (mode 0666 less the umask) when it is missing.
// Returns 0, or the errno value of the step that failed, and then the old content stands.
//
// Symbolic links are followed: the file that they lead to is replaced, and the links stay. Mode and
// owner of an existing file are kept. When the directory takes no second file, or the owner cannot
// be kept, the file is overwritten in place instead: a kill in that moment can cut it short.
// The path must be writable by the process even when its directory is; otherwise nothing is
// written.
[[nodiscard]] int replace_file(const char* path, std::string_view content) noexcept;
