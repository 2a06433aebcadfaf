#include "lib/text_form.h"

#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "lib/plat.h"

namespace {

// Array, wire form, borrowed: the three bits beside a property set's datatype.
constexpr std::uint32_t type_flag_bits = 0xe0000000u;
constexpr std::uint32_t last_plain_type = 17;
constexpr std::uint32_t time_type = 0x10005u;

// ASCII only, whatever the locale says.
bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

int is_valid_key(const char* text) noexcept {
    if (text == nullptr || (!is_letter(*text) && *text != '_')) {
        return 0;
    }
    for (const char c : std::string_view(text)) {
        if (!is_letter(c) && !is_digit(c) && c != '_' && c != ' ') {
            return 0;
        }
    }
    return 1;
}

int is_valid_type(std::uint32_t code) noexcept {
    const std::uint32_t type = code & ~type_flag_bits;
    return (type >= 1 && type <= last_plain_type) || type == time_type;
}

char* format_unsafe_json_str(char* text) noexcept {
    if (text != nullptr) {
        for (char* at = std::strchr(text, '"'); at != nullptr; at = std::strchr(at, '"')) {
            *at = '\'';
        }
    }
    return text;
}

// Quotes stay: the result is element content.
char* format_unsafe_xml_str(const char* text) noexcept {
    if (text == nullptr) {
        return nullptr;
    }
    std::string escaped;
    for (const char c : std::string_view(text)) {
        switch (c) {
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '&':
                escaped += "&amp;";
                break;
            default:
                escaped += c;
        }
    }
    return qzstrdup(escaped.c_str());
}

int guidtostr(const void* guid, char* out) noexcept {
    qz_guid g = {};
    std::memcpy(&g, guid, sizeof g);  // the bytes may lie anywhere
    return std::snprintf(out, qz_guid_text_bytes,
                         "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", g.a, g.b, g.c,
                         g.d[0], g.d[1], g.d[2], g.d[3], g.d[4], g.d[5], g.d[6], g.d[7]);
}
