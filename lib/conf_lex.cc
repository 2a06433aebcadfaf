#include "lib/conf_lex.h"

#include <string_view>

#include "lib/plat.h"

int conflineno = 1;

namespace {

// Tabs and carriage returns are missing on purpose: they are word characters.
constexpr std::string_view delimiters = " '\n\";[]";

bool is_word_character(char c) {
    return delimiters.find(c) == std::string_view::npos;
}

// The text between a quote at `next` and the one that closes it on the same line; null when it
// stays open.
const char* closing_quote(const conf_scanner* scanner) {
    for (const char* at = scanner->next + 1; at != scanner->end && *at != '\n'; ++at) {
        if (*at == '"') {
            return at;
        }
    }
    return nullptr;
}

// The longest run wins: "=x" is one word, and only a lone "=" is the token.
conf_token take_word(conf_scanner* scanner, std::string* text) {
    const char* start = scanner->next;
    while (scanner->next != scanner->end && is_word_character(*scanner->next)) {
        ++scanner->next;
    }
    text->assign(start, scanner->next);
    return *text == "=" ? conf_token::equals : conf_token::text;
}

}  // namespace

conf_token conflex(conf_scanner* scanner, std::string* text) noexcept {
    while (scanner->next != scanner->end) {
        switch (*scanner->next) {
            case ';':
                ++scanner->next;
                return conf_token::semicolon;
            case '[':
                ++scanner->next;
                return conf_token::open;
            case ']':
                ++scanner->next;
                return conf_token::close;
            case '"':
                if (const char* end = closing_quote(scanner)) {
                    text->assign(scanner->next + 1, end);
                    scanner->next = end + 1;
                    return conf_token::text;
                }
                ++scanner->next;  // Kept: an unclosed quote vanishes, the rest of its line is read
                break;
            case '\n':
                ++conflineno;
                ++scanner->next;
                break;
            case ' ':
            case '\'':
                ++scanner->next;
                break;
            default:
                return take_word(scanner, text);
        }
    }
    return conf_token::end;
}

void confcleanup(conf_scanner* scanner) noexcept {
    *scanner = {};
}

char* confstrdup(const char* text) noexcept {
    return qzstrdup(text);
}
