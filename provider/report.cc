#include "provider/report.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

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

constexpr std::size_t most_early_lines = 32;

struct log_target {
    std::mutex lock;
    molb_log_function function = nullptr;
    bool offered = false;
    std::vector<std::pair<at_log_level, std::string>> early;
};

// Never destroyed: a thread may report while the process ends.
log_target& log_state() {
    static auto* const target = new log_target;
    return *target;
}

std::string printable(const char* text) {
    std::string line;
    for (; *text != '\0'; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte < 0x20 || byte == 0x7f) {
            char escaped[5];
            (void)std::snprintf(escaped, sizeof escaped, "\\x%02X", byte);
            line += escaped;
        } else {
            line += *text;
        }
    }
    return line;
}

// inetd makes one socket the standard input, output and error.
bool stderr_is_a_client() {
    struct stat error {};
    struct stat input {};
    sockaddr_storage own{};
    socklen_t length = sizeof own;
    if (fstat(STDERR_FILENO, &error) != 0 || !S_ISSOCK(error.st_mode)) {
        return false;
    }
    const bool is_input = fstat(STDIN_FILENO, &input) == 0 && input.st_dev == error.st_dev &&
                          input.st_ino == error.st_ino;
    return is_input ||
           getsockname(STDERR_FILENO, reinterpret_cast<sockaddr*>(&own), &length) != 0 ||
           own.ss_family != AF_UNIX;  // that of a log service
}

}  // namespace

// A line is formatted whole before it is written, so that lines of two threads do not mix.
void report(at_log_level level, const char* format, ...) {
    static const debug_target target = open_target();
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::string line = printable(text);
    if (target.level >= level && target.stream != nullptr) {
        (void)std::fprintf(target.stream, "dovmad-at: %s\n", line.c_str());
        (void)std::fflush(target.stream);
    }
    log_target& log = log_state();
    const std::lock_guard guard(log.lock);
    if (log.function != nullptr) {
        log.function(level, line.c_str());
    } else if (!log.offered && log.early.size() < most_early_lines) {
        log.early.emplace_back(level, std::move(line));
    }
}

void print_at_start(const char* format, ...) {
    if (stderr_is_a_client()) {
        return;
    }
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    (void)std::fprintf(stderr, "dovmad: %s\n", text);
}

void set_log(molb_log_function function) {
    log_target& log = log_state();
    const std::lock_guard guard(log.lock);
    log.function = function;
    if (function != nullptr) {
        log.offered = true;
        for (const auto& [level, line] : std::exchange(log.early, {})) {
            function(level, line.c_str());
        }
    }
}

}  // namespace provider
