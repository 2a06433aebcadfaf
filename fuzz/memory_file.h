// A file in memory for parsers that take a path.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "fuzz/check.h"

class memory_file {
  public:
    // The file's whole content from now on.
    void write(std::string_view text) const {
        check(ftruncate(fd_, 0) == 0);
        check(pwrite(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
    }
    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    const int fd_ = memfd_create("fuzz", MFD_CLOEXEC);
    const std::string path_ = "/proc/self/fd/" + std::to_string(fd_);
};
