// Bounded string helpers of the engine. ASCII rules only: the locale has no say.
#pragma once

#include <cstddef>
#include <string_view>

// Copies at most size - 1 characters of `src` and terminates. Returns the end of the copy.
char* my_strlcpy(char* dst, const char* src, std::size_t size);

// Compares at most n characters ignoring ASCII case, up to and including the end of either text.
// Returns the difference of the first unequal lower-cased bytes, 0 when equal (also for n = 0).
int my_strncasecmp(const char* a, const char* b, std::size_t n);

// Newly allocated copies (free): at most n characters, or all. Null on allocation failure.
char* my_strndup(const char* text, std::size_t n);
char* my_strdup(const char* text);

// Formats into `buffer`, always terminated; returns the number of characters stored.
[[gnu::format(printf, 3, 4)]] int my_snprintf(char* buffer, std::size_t size, const char* format,
                                              ...);

// True when `path` ends, ignoring case, in one of the entries of the comma-separated `list` and is
// longer than it. Kept: blanks do not separate, so ".a .b" is one entry.
bool match_extension(std::string_view path, std::string_view list);

// Decodes %XX and "+" into `dst` (at most dst_size - 1 bytes, terminated); decoding in place is
// allowed. Returns the decoded length.
std::size_t url_decode(const char* src, std::size_t src_length, char* dst, std::size_t dst_size);

// Whether `text` begins with `prefix`, ignoring ASCII case.
bool starts_with_nocase(std::string_view text, std::string_view prefix);

// Whether both texts are equal, ignoring ASCII case.
bool equals_nocase(std::string_view a, std::string_view b);

// Walks a comma-separated list the way every option of that kind is read: returns the next entry
// and moves `rest` behind it and behind the blanks and commas that follow. An empty entry (also at
// the end) ends the list.
std::string_view next_list_entry(std::string_view& rest);
