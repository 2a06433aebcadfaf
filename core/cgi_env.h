// The environment block handed to CGI programs, the CGI service and scheduled commands.
#pragma once

#include <cstddef>

// A fixed text area holding NAME=value strings and the pointer array for execve, which ends in a
// null pointer at all times. Plain data without allocation: build it before the fork. The pointers
// lead into the block itself, so a copy of it is of no use.
struct env_block {
    static constexpr int text_bytes = 4096;
    static constexpr int pointer_count = 64;

    char text[text_bytes] = {};
    int used = 0;
    char* pointers[pointer_count] = {};
    int count = 0;
};

// Adds one formatted variable. One that does not fit (4094 bytes in all, 62 variables) is dropped.
[[gnu::format(printf, 2, 3)]] void addenv(env_block* block, const char* format, ...);
