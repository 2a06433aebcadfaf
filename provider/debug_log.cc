#include "provider/debug_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace provider {
namespace {

struct debug_target {
    int level = 0;
    std::FILE* stream = nullptr;
};

// The stream stays open for the life of the process, as the library does.
debug_target open_target() {
    debug_target target;
    const char* level = std::getenv("MOLBat_API_DEBUG_LEVEL");
    target.level = level == nullptr ? 0 : std::atoi(level);
    if (target.level <= 0) {
        return target;
    }
    const char* path = std::getenv("MOLBat_API_DEBUG_FILE");
    target.stream = path == nullptr ? nullptr : std::fopen(path, "abe");
    if (target.stream == nullptr) {
        target.stream = stderr;
    }
    return target;
}

}  // namespace

// The first call opens the target; the standard makes that safe from several threads. A line is
// formatted whole before it is written, so that lines of two threads do not mix.
void debug_log(int level, const char* format, ...) {
    static const debug_target target = open_target();
    if (target.level < level || target.stream == nullptr) {
        return;
    }
    char line[512];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    (void)std::fprintf(target.stream, "dovmad-at: %s\n", line);
    (void)std::fflush(target.stream);
}

}  // namespace provider
