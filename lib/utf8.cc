#include "lib/utf8.h"

#include <algorithm>

namespace {

constexpr std::size_t longest_character = 4;

unsigned byte_at(std::string_view text, std::size_t at) {
    return static_cast<unsigned char>(text[at]);
}

// The length that a first byte announces, 0 when it can't begin a character.
std::size_t announced_length(unsigned first) {
    if (first < 0x80) {
        return 1;
    }
    if (first < 0xc2 || first > 0xf4) {
        return 0;
    }
    return first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
}

// Only the second byte depends on the first: neither overlong forms, nor surrogates, nor anything
// beyond U+10FFFF.
bool may_follow(unsigned first, unsigned second) {
    const unsigned least = first == 0xe0 ? 0xa0U : first == 0xf0 ? 0x90U : 0x80U;
    const unsigned most = first == 0xed ? 0x9fU : first == 0xf4 ? 0x8fU : 0xbfU;
    return least <= second && second <= most;
}

bool needs_escape(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\';
}

void append_escaped(std::string* out, char c) {
    constexpr std::string_view digits = "0123456789abcdef";
    if (c == '"' || c == '\\') {
        out->append(1, '\\').append(1, c);
        return;
    }
    const auto byte = static_cast<unsigned char>(c);
    out->append("\\u00").append(1, digits[byte >> 4U]).append(1, digits[byte & 15U]);
}

}  // namespace

std::size_t utf8_length(std::string_view text) {
    const std::size_t length = text.empty() ? 0 : announced_length(byte_at(text, 0));
    if (length > text.size() || (length > 1 && !may_follow(byte_at(text, 0), byte_at(text, 1)))) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if ((byte_at(text, i) & 0xc0U) != 0x80) {
            return 0;
        }
    }
    return length;
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::string_view without_cut_character(std::string_view text) {
    for (std::size_t back = 1; back < longest_character && back <= text.size(); ++back) {
        const unsigned byte = byte_at(text, text.size() - back);
        if ((byte & 0xc0U) != 0x80) {
            return announced_length(byte) > back ? text.substr(0, text.size() - back) : text;
        }
    }
    return text;
}

void append_json_text(std::string* out, std::string_view text) {
    while (!text.empty()) {
        const auto odd = std::find_if(text.begin(), text.end(), [](char c) {
            return needs_escape(c) || static_cast<unsigned char>(c) >= 0x80;
        });
        const auto plain = static_cast<std::size_t>(odd - text.begin());
        out->append(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) {
            return;
        }
        const std::size_t length = utf8_length(text);
        if (length == 0) {
            out->append("\\ufffd");
        } else if (length == 1) {
            append_escaped(out, text.front());
        } else {
            out->append(text.substr(0, length));
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
}
