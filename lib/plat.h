// Allocation wrappers, recursive locks and the default text comparator.
//
// Everything that the library hands to a caller is C heap and is released with qzfree, never with
// delete. Sizes are bytes.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <memory>

// --- Allocation ---

// Returns `size` bytes (one byte when `size` is 0), or null when the heap is exhausted: the caller
// checks, or goes through lib/alloc.h, which ends the process.
[[nodiscard]] void* qzalloc(std::size_t size) noexcept;

// Releases memory from qzalloc. Null is ignored.
void qzfree(void* p) noexcept;

// Returns a copy of `text` with its terminator; the caller owns it. Requires: `text` not null.
[[nodiscard]] char* qzstrdup(const char* text) noexcept;

struct qz_heap_deleter {
    void operator()(const void* p) const noexcept { qzfree(const_cast<void*>(p)); }
};

// Owns one block of library memory: qz_owned<char> name(qzstrdup("x")). Call release() on the one
// line where a container has taken the block, and only after the insert reported success.
template <class T>
using qz_owned = std::unique_ptr<T, qz_heap_deleter>;

// --- Comparison ---

// strcmp over two terminated texts, in the shape that containers take.
int compare_string(const void* a, const void* b) noexcept;

// --- Locks ---

// A process-local recursive mutex: the thread that holds it may enter again and must leave as often
// as it entered. The four functions return the pthread result (0, EPERM, EBUSY, ...).
using critical_section = pthread_mutex_t;

int init_critical_section(critical_section* section) noexcept;
int enter_critical_section(critical_section* section) noexcept;
int leave_critical_section(critical_section* section) noexcept;
int destroy_critical_section(critical_section* section) noexcept;

// Holds a critical section for the length of a scope.
class critical_section_guard {
  public:
    explicit critical_section_guard(critical_section* section) noexcept : section_(section) {
        (void)enter_critical_section(section_);  // fails only for an invalid mutex
    }
    ~critical_section_guard() { (void)leave_critical_section(section_); }
    critical_section_guard(const critical_section_guard&) = delete;
    critical_section_guard& operator=(const critical_section_guard&) = delete;
    critical_section_guard(critical_section_guard&&) = delete;
    critical_section_guard& operator=(critical_section_guard&&) = delete;

  private:
    critical_section* section_;
};
