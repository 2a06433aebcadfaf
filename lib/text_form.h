// Five small text routines: key and type checks, JSON and XML escaping, the text of a GUID.
#pragma once

#include <cstddef>
#include <cstdint>

struct qz_guid {
    std::uint32_t a;
    std::uint16_t b;
    std::uint16_t c;
    std::uint8_t d[8];
};

// 1 when `text` begins with an ASCII letter or '_' and goes on with letters, digits, '_' and
// blanks; else 0, also for an empty text and null.
int is_valid_key(const char* text) noexcept;

// 1 when the property-set datatype `code`, less its three top bits, is 1 to 17 or 0x10005; else 0.
int is_valid_type(std::uint32_t code) noexcept;

// Replaces every double quote by a single quote in place and returns `text`. Null gives null.
// Kept: backslashes and control characters stay, so such a text is not valid inside JSON.
char* format_unsafe_json_str(char* text) noexcept;

// Returns a new text (free with qzfree) in which <, > and & are entities. Null gives null.
// Kept: quotes stay as they are, so the result is element content and no attribute value.
[[nodiscard]] char* format_unsafe_xml_str(const char* text) noexcept;

inline constexpr std::size_t qz_guid_text_bytes = 39;  // with the terminator

// Writes the 16 bytes at `guid` as {aaaaaaaa-bbbb-cccc-dddd-dddddddddddd}, numbers in the machine's
// byte order, and returns 38. `out` has room for qz_guid_text_bytes; `guid` needs no alignment.
int guidtostr(const void* guid, char* out) noexcept;
