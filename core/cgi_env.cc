#include "core/cgi_env.h"

#include <cstdarg>
#include <cstdio>

namespace {

constexpr int usable_bytes = env_block::text_bytes - 2;
constexpr int usable_pointers = env_block::pointer_count - 2;

}  // namespace

void addenv(env_block* block, const char* format, ...) {
    const int room = usable_bytes - block->used;
    if (room <= 0 || block->count >= usable_pointers) {
        return;
    }
    char* start = block->text + block->used;
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(start, static_cast<std::size_t>(room), format, arguments);
    va_end(arguments);
    if (length > 0 && length < room) {
        block->pointers[block->count++] = start;
        block->used += length + 1;
    }
}
