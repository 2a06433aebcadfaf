// Owns one file descriptor and closes it at the end of its scope.
//
// A negative number means none; any such number is kept as it is and never closed. Moving hands the
// descriptor over and leaves -1 behind. Whoever opens one sets O_CLOEXEC: this class does not.
#pragma once

#include <unistd.h>

#include <utility>

class unique_fd {
  public:
    explicit unique_fd(int fd = -1) noexcept : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;

    // The number for a system call; it stays owned.
    [[nodiscard]] int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

    // Gives the descriptor up without closing it.
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

    // Closes the descriptor (-1: none) and takes `fd` instead.
    void reset(int fd = -1) noexcept {
        if (fd_ >= 0) {
            (void)::close(fd_);  // a failure cannot be repaired here: the number is gone either way
        }
        fd_ = fd;
    }

  private:
    int fd_;
};
