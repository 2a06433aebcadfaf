#include "core/string.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char lower(char byte) {
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

// The value of a hexadecimal digit, -1 for anything else.
constexpr int hex_value(char byte) {
    if (byte >= '0' && byte <= '9') {
        return byte - '0';
    }
    const char letter = lower(byte);
    return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

// The byte that an escape at the start of `text` stands for, -1 when there is none.
int escaped_byte(std::string_view text) {
    if (text.size() < 3 || text[0] != '%') {
        return -1;
    }
    const int high = hex_value(text[1]);
    const int low = hex_value(text[2]);
    return high < 0 || low < 0 ? -1 : high * 16 + low;
}

}  // namespace

char* my_strlcpy(char* dst, const char* src, std::size_t size) {
    if (size == 0) {
        return dst;
    }
    const std::size_t length = strnlen(src, size - 1);
    std::memmove(dst, src, length);
    dst[length] = '\0';
    return dst + length;
}

int my_strncasecmp(const char* a, const char* b, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        const int left = static_cast<unsigned char>(lower(a[i]));
        const int right = static_cast<unsigned char>(lower(b[i]));
        if (left != right || left == 0) {
            return left - right;
        }
    }
    return 0;
}

char* my_strndup(const char* text, std::size_t n) {
    return strndup(text, n);
}

char* my_strdup(const char* text) {
    return strdup(text);
}

int my_snprintf(char* buffer, std::size_t size, const char* format, ...) {
    if (size == 0) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    if (wanted < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return static_cast<int>(std::min(static_cast<std::size_t>(wanted), size - 1));
}

bool match_extension(std::string_view path, std::string_view list) {
    for (std::string_view rest = list;;) {
        const std::string_view entry = next_list_entry(rest);
        if (entry.empty()) {
            return false;
        }
        if (path.size() > entry.size() &&
            equals_nocase(path.substr(path.size() - entry.size()), entry)) {
            return true;
        }
    }
}

std::size_t url_decode(const char* src, std::size_t src_length, char* dst, std::size_t dst_size) {
    if (dst_size == 0) {
        return 0;
    }
    const std::string_view source(src, src_length);
    std::size_t used = 0;
    // The destination never gets ahead of the source, which is why decoding in place works.
    for (std::size_t at = 0; at < source.size() && used < dst_size - 1; ++used) {
        const int byte = escaped_byte(source.substr(at, 3));
        if (byte >= 0) {
            dst[used] = static_cast<char>(byte);
            at += 3;
        } else {
            dst[used] = source[at] == '+' ? ' ' : source[at];
            ++at;
        }
    }
    dst[used] = '\0';
    return used;
}

bool starts_with_nocase(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() && equals_nocase(text.substr(0, prefix.size()), prefix);
}

bool equals_nocase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](char x, char y) { return lower(x) == lower(y); });
}

// Kept: only what stands behind a comma is skipped, so blanks before one stay in the entry.
std::string_view next_list_entry(std::string_view& rest) {
    const std::size_t end = std::min(rest.find(','), rest.size());
    const std::string_view entry = rest.substr(0, end);
    rest.remove_prefix(std::min(rest.find_first_not_of(", \t", end), rest.size()));
    return entry;
}
