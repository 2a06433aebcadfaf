// Text as UTF-8: what is and what is not.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// The bytes of the character that the text begins with: 1 to 4, or 0 when it begins with none (a
// stray or overlong byte, a surrogate, a character that is cut short, no byte at all).
[[nodiscard]] std::size_t utf8_length(std::string_view text);

[[nodiscard]] bool is_utf8(std::string_view text);

// What is left of a text that was cut at some byte: without the piece of a character at its end.
[[nodiscard]] std::string_view without_cut_character(std::string_view text);

// Appends the text as the inside of a JSON string. Quotes, backslashes and control characters are
// escaped, and every byte that is no UTF-8 becomes U+FFFD; any other text stays as it is.
void append_json_text(std::string* out, std::string_view text);
