// Allocation for the library's own sources: the process ends when the heap is exhausted.
//
// The public calls promise unchecked allocation; ending here gives that promise a defined place.
#pragma once

#include <cstdlib>
#include <cstring>

#include "lib/plat.h"

// Returns `p`; ends the process when it is null.
inline void* qz_need(void* p) noexcept {
    if (p == nullptr) {
        std::abort();
    }
    return p;
}

// `size` bytes from the heap, with whatever they held before.
inline void* qz_need_bytes(std::size_t size) noexcept {
    return qz_need(qzalloc(size));
}

// Resizes a block from qzalloc; a size of 0 keeps one byte, so the result is never null.
inline void* qz_need_resize(void* p, std::size_t size) noexcept {
    return qz_need(std::realloc(p, size == 0 ? 1 : size));
}

// Returns one zeroed T. Requires: T is a plain structure.
template <class T>
T* qz_need_new() noexcept {
    void* p = qz_need_bytes(sizeof(T));
    std::memset(p, 0, sizeof(T));
    return static_cast<T*>(p);
}
