// The authentication library's data directory, before the library is started.
#pragma once

#include <string>

// Gives `path` to `user`, who the daemon will be once it has given up root's rights: what the
// library makes there belongs to the owner of the directory, and it must be able to look at its
// files again. Makes the directory (mode 0700) when it is missing. Does nothing when `user` is
// empty or unknown, or without root's rights, and leaves a directory alone that is another user's
// already, or that a symbolic link leads to. A failure is told on standard error; the library will
// say what it lacks.
void prepare_data_directory(const std::string& path, const std::string& user);
