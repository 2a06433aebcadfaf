#include "handlers/ssi_scanner.h"

#include <algorithm>

namespace {

constexpr std::string_view opening = "<!--#";
constexpr std::string_view closing = "-->";

struct command_row {
    std::string_view text;
    ssi_command command;
};

// In matching order; a name that ends in a blank needs one behind it.
constexpr std::array<command_row, 7> known_ssi_commands = {{
    {"include ", ssi_command::include},
    {"if ", ssi_command::condition_if},
    {"elif ", ssi_command::condition_elif},
    {"else", ssi_command::condition_else},
    {"endif", ssi_command::condition_endif},
    {"call ", ssi_command::call},
    {"exec ", ssi_command::exec},
}};

struct include_row {
    std::string_view text;
    ssi_include_form form;
};

constexpr std::array<include_row, 3> include_forms = {{
    {"\"", ssi_include_form::plain},
    {"file=\"", ssi_include_form::beside_page},
    {"virtual=\"", ssi_include_form::below_root},
}};

}  // namespace

ssi_scanner::event ssi_scanner::feed(char c) {
    if (used_ == 0 && c != opening.front()) {
        return event::character;
    }
    text_[used_++] = c;
    // Still in "<!--#": the first character that differs makes all of it text.
    if (used_ <= opening.size()) {
        return c == opening[used_ - 1] ? event::held : event::text;
    }
    if (used_ > directive_max) {
        return event::text;
    }
    return pending().ends_with(closing) ? event::directive : event::held;
}

ssi_directive parse_ssi_directive(std::string_view text) {
    text.remove_prefix(std::min(opening.size(), text.size()));
    text.remove_suffix(std::min(closing.size(), text.size()));
    for (const command_row& row : known_ssi_commands) {
        if (text.starts_with(row.text)) {
            return {row.command, text.substr(row.text.size())};
        }
    }
    return {};
}

std::optional<ssi_include> parse_ssi_include(std::string_view argument) {
    for (const include_row& row : include_forms) {
        if (!argument.starts_with(row.text)) {
            continue;
        }
        const std::string_view rest = argument.substr(row.text.size());
        const std::size_t quote = rest.find('"');
        if (quote == std::string_view::npos) {
            return std::nullopt;
        }
        return ssi_include{row.form, rest.substr(0, quote)};
    }
    return std::nullopt;
}

// The last quote ends the command, so it may contain others.
std::optional<std::string_view> parse_ssi_exec(std::string_view argument) {
    const std::string_view quoted = trim_blanks(argument);
    if (quoted.size() < 2 || quoted.front() != '"' || quoted.back() != '"') {
        return std::nullopt;
    }
    return quoted.substr(1, quoted.size() - 2);
}

std::string_view trim_blanks(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}
