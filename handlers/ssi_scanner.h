// Finding and reading the directives of a page: pure text in, text out.
//
// A directive begins with "<!--#", names a command and ends with "-->". Nothing here knows files or
// connections; views that are returned point into the text that was handed in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

// Looks at a page one character at a time and holds back what may become a directive.
class ssi_scanner {
  public:
    static constexpr std::size_t directive_max = 510;  // characters; a longer one is plain text

    enum class event : std::uint8_t {
        held,       // nothing to do yet
        character,  // the character that was fed is plain text
        text,       // pending() is plain text
        directive,  // pending() is a directive, from "<!--#" to "-->"
    };

    // After `text` and `directive` call clear() before the next character.
    // Kept: what is found not to be a directive is not searched for one, so "<<!--#x-->" is text.
    event feed(char c);

    // The characters held back, at most directive_max + 1.
    [[nodiscard]] std::string_view pending() const { return {text_.data(), used_}; }
    void clear() { used_ = 0; }

  private:
    std::array<char, directive_max + 1> text_{};
    std::size_t used_ = 0;
};

// The commands by what they do; their names stand in the source.
enum class ssi_command : std::uint8_t {
    unknown,
    include,
    condition_if,
    condition_elif,
    condition_else,
    condition_endif,
    call,
    exec,
};

struct ssi_directive {
    ssi_command command = ssi_command::unknown;
    std::string_view argument;  // what stands between the command's name and "-->"
};

// Reads a directive as the scanner found it. Kept: names are compared by their beginning, so
// "elsewhere" is "else".
ssi_directive parse_ssi_directive(std::string_view text);

enum class ssi_include_form : std::uint8_t {
    plain,        // "NAME": a path as it stands
    beside_page,  // file="NAME": relative to the directory of the page's URI
    below_root,   // virtual="NAME": relative to the document root
};

struct ssi_include {
    ssi_include_form form = ssi_include_form::plain;
    std::string_view name;  // URL-encoded, without its quotes
};

// Reads the argument of "include"; nothing when the form is unknown or a quote is missing.
std::optional<ssi_include> parse_ssi_include(std::string_view argument);

// The command in the quotes that enclose the argument of "exec"; nothing when they are missing.
std::optional<std::string_view> parse_ssi_exec(std::string_view argument);

// Without blanks at both ends.
std::string_view trim_blanks(std::string_view text);
