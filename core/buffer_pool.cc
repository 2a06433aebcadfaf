#include "core/buffer_pool.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "lib/plat.h"

namespace {

// What is kept for the next borrower, as bytes and as buffers: more are in use at once only while
// as many clients stall.
constexpr std::size_t idle_bytes_max = std::size_t{1} << 20;
constexpr std::size_t idle_buffers_max = 64;

// Under AddressSanitizer a buffer that came back is really freed, so that a stale pointer into it
// is noticed.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool keeps_buffers = false;
#elif defined(__has_feature)
constexpr bool keeps_buffers = !__has_feature(address_sanitizer);
#else
constexpr bool keeps_buffers = true;
#endif

struct buffer_pool {
    std::vector<qz_owned<char>> idle;
    std::size_t size = 0;  // of the idle ones
    std::size_t lent = 0;
};

buffer_pool pool;

}  // namespace

char* lend_buffer(std::size_t size) {
    char* buffer = nullptr;
    if (size == pool.size && !pool.idle.empty()) {
        buffer = pool.idle.back().release();
        pool.idle.pop_back();
    } else {
        buffer = static_cast<char*>(std::malloc(size + 1));
        if (buffer == nullptr) {
            std::abort();
        }
    }
    buffer[size] = '\0';
    ++pool.lent;
    return buffer;
}

void take_back_buffer(char* buffer, std::size_t size) {
    if (buffer == nullptr) {
        return;
    }
    --pool.lent;
    if (size != pool.size) {
        free_idle_buffers();  // the option has another value now
        pool.size = size;
    }
    if (keeps_buffers && pool.idle.size() < idle_buffers_max &&
        (pool.idle.size() + 1) * size <= idle_bytes_max) {
        pool.idle.emplace_back(buffer);
    } else {
        std::free(buffer);
    }
}

void free_idle_buffers() {
    pool.idle.clear();
}

std::size_t lent_buffers() {
    return pool.lent;
}
