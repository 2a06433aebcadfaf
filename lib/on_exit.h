// Runs a piece of undo work at the end of a scope: exit_guard undo([&] { unlink(path); });
//
// The work runs on every way out, early returns included, unless cancel() was called. It is stored
// by value and must not throw; what it captures by reference must outlive the guard.
#pragma once

#include <utility>

// Named apart from the C library's on_exit.
template <class F>
class exit_guard {
  public:
    explicit exit_guard(F action) noexcept : action_(std::move(action)) {}
    ~exit_guard() {
        if (armed_) {
            action_();
        }
    }
    exit_guard(const exit_guard&) = delete;
    exit_guard& operator=(const exit_guard&) = delete;
    exit_guard(exit_guard&&) = delete;
    exit_guard& operator=(exit_guard&&) = delete;

    // The work is no longer wanted.
    void cancel() noexcept { armed_ = false; }

  private:
    F action_;
    bool armed_ = true;
};
