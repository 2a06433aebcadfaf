#include "lib/plat.h"

#include <cstdlib>
#include <cstring>

#include "lib/alloc.h"

void* qzalloc(std::size_t size) noexcept {
    // One byte for nothing: then null means only that the heap is exhausted.
    return std::malloc(size == 0 ? 1 : size);
}

void qzfree(void* p) noexcept {
    std::free(p);
}

char* qzstrdup(const char* text) noexcept {
    const std::size_t size = std::strlen(text) + 1;
    return static_cast<char*>(std::memcpy(qz_need_bytes(size), text, size));
}

int compare_string(const void* a, const void* b) noexcept {
    return std::strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
}

int init_critical_section(critical_section* section) noexcept {
    pthread_mutexattr_t attributes;
    int result = pthread_mutexattr_init(&attributes);
    if (result != 0) {
        return result;
    }
    result = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    if (result == 0) {
        result = pthread_mutex_init(section, &attributes);
    }
    (void)pthread_mutexattr_destroy(&attributes);  // holds nothing that could be lost
    return result;
}

int enter_critical_section(critical_section* section) noexcept {
    return pthread_mutex_lock(section);
}

int leave_critical_section(critical_section* section) noexcept {
    return pthread_mutex_unlock(section);
}

int destroy_critical_section(critical_section* section) noexcept {
    return pthread_mutex_destroy(section);
}
