#include "lib/base64.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace {

constexpr std::string_view alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Takes part in the arithmetic for every ASCII character outside the alphabet.
constexpr std::uint8_t outside = 255;

constexpr std::array<std::uint8_t, 128> inverse = [] {
    std::array<std::uint8_t, 128> table{};
    table.fill(outside);
    for (std::size_t i = 0; i < alphabet.size(); ++i) {
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::uint8_t>(i);
    }
    return table;
}();

char letter(unsigned bits) {
    return alphabet[bits & 63];
}

// The six ASCII characters, whatever the locale says.
bool is_space(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && is_space(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && is_space(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// Decodes one group of four into up to three bytes; -1 for a character of 128 or above among those
// that are looked at, else the number of bytes before padding. Places past the end of the text
// count as zero bytes, that is as characters outside the alphabet.
int decode_group(std::string_view group, std::uint8_t* bytes) {
    std::array<unsigned, 4> values{};
    std::size_t used = 4;
    if (group.size() == 4 && group[3] == '=') {
        used = group[2] == '=' ? 2 : 3;
    }
    for (std::size_t i = 0; i < used; ++i) {
        const auto c = static_cast<unsigned char>(i < group.size() ? group[i] : '\0');
        if (c >= inverse.size()) {
            return -1;
        }
        values[i] = inverse[c];
    }
    bytes[0] = static_cast<std::uint8_t>(values[0] << 2 | values[1] >> 4);
    bytes[1] = static_cast<std::uint8_t>(values[1] << 4 | values[2] >> 2);
    bytes[2] = static_cast<std::uint8_t>(values[2] << 6 | values[3]);
    return static_cast<int>(used) - 1;
}

}  // namespace

int base64_encode(char* out, int out_size, const void* in, int in_len) noexcept {
    const std::int64_t length = in_len > 0 ? in_len : 0;
    if (out_size < 4 * ((length + 2) / 3) + 1) {
        return -1;
    }
    const auto* bytes = static_cast<const std::uint8_t*>(in);
    char* end = out;
    std::int64_t left = length;
    // The room was checked for the whole text, so no store below needs a check.
    for (; left >= 3; left -= 3, bytes += 3) {
        const unsigned group = static_cast<unsigned>(bytes[0] << 16 | bytes[1] << 8 | bytes[2]);
        *end++ = letter(group >> 18);
        *end++ = letter(group >> 12);
        *end++ = letter(group >> 6);
        *end++ = letter(group);
    }
    if (left > 0) {
        const unsigned second = left == 2 ? bytes[1] : 0;
        *end++ = letter(bytes[0] >> 2);
        *end++ = letter(static_cast<unsigned>(bytes[0] << 4) | second >> 4);
        *end++ = left == 2 ? letter(second << 2) : '=';
        *end++ = '=';
    }
    *end = '\0';
    return static_cast<int>(end - out);
}

int base64_decode(void* out, int out_size, const char* in, int in_len) noexcept {
    std::string_view text;
    if (in_len > 0) {
        text = trimmed({in, static_cast<std::size_t>(in_len)});
    }
    if (out_size < 3 * static_cast<std::int64_t>(text.size() / 4)) {
        return -1;
    }
    auto* bytes = static_cast<std::uint8_t*>(out);
    int written = 0;
    while (!text.empty()) {
        std::uint8_t decoded[3];
        const int count = decode_group(text.substr(0, 4), decoded);
        if (count < 0) {
            return -1;
        }
        for (int i = 0; i < count; ++i) {
            if (written == out_size) {
                return -1;  // a last group that is not whole passes the check above
            }
            bytes[written++] = decoded[i];
        }
        if (count < 3 || text.size() < 4) {
            break;
        }
        text.remove_prefix(4);
    }
    return written;
}
