// The scanner of the INI store: turns a memory block into tokens.
#pragma once

#include <string>

enum class conf_token { end, text, equals, semicolon, open, close };

// The block that is still to be scanned. Owns nothing.
struct conf_scanner {
    const char* next;
    const char* end;
};

// The line of the last token, 1 at the start of a parse; guarded by the store lock.
extern int conflineno;

// Returns the next token and, for a word or a quoted text, stores its characters in `*text`.
//
// A word is a run of anything but blank, ', ", ;, [, ] and newline: tabs, carriage returns and "#"
// are ordinary characters, and "=" is a token only when it stands alone. A quoted text ends on its
// own line and has no escapes; a quote that is not closed on its line is skipped.
conf_token conflex(conf_scanner* scanner, std::string* text) noexcept;

// Forgets the block.
void confcleanup(conf_scanner* scanner) noexcept;

// A copy of `text` from the heap (free with qzfree).
[[nodiscard]] char* confstrdup(const char* text) noexcept;
