// Files in memory for parsers that take a path, and a folder for what needs more of them.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

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

// Gone again when the run ends in order.
class memory_folder {
  public:
    memory_folder() { std::filesystem::create_directories(path); }
    ~memory_folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    memory_folder(const memory_folder&) = delete;
    memory_folder& operator=(const memory_folder&) = delete;
    memory_folder(memory_folder&&) = delete;
    memory_folder& operator=(memory_folder&&) = delete;

    const std::string path = "/dev/shm/dovmad_fuzz." + std::to_string(getpid());
};
