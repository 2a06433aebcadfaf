// The lines of the configuration file: they are what a plain reading of the text says, what was
// accepted is read back the same, and a number among the options stays the number it was.
#include <climits>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "core/config.h"
#include "core/config_line.h"
#include "core/options.h"
#include "fuzz/check.h"

namespace {

constexpr std::size_t piece_bytes = 2047;
constexpr std::string_view white_space = " \t\n\v\f\r";

struct told_line {
    int number;
    std::string keyword;
    std::string value;
    bool operator==(const told_line&) const = default;
};

std::vector<told_line> read_lines(std::string text) {
    std::vector<told_line> lines;
    if (text.empty()) {
        return lines;
    }
    std::FILE* file = fmemopen(text.data(), text.size(), "r");
    check(file != nullptr);
    config_line line;
    while (next_config_line(file, &line)) {
        lines.push_back({line.number, line.keyword, line.value});
    }
    (void)std::fclose(file);
    return lines;
}

std::vector<told_line> read_plainly(std::string_view text) {
    std::vector<told_line> lines;
    bool goes_on = false;
    for (int number = 0; !text.empty();) {
        const std::size_t end = std::min(text.find('\n'), text.size() - 1) + 1;
        const std::string piece = visible(text.substr(0, std::min(end, piece_bytes)));
        text.remove_prefix(std::min(end, piece_bytes));
        number += goes_on ? 0 : 1;
        goes_on = piece.size() == piece_bytes && piece.back() != '\n';
        if (piece.starts_with('#') || piece.starts_with('\n')) {
            continue;
        }
        const std::string_view line =
            std::string_view(piece).substr(0, std::max<std::size_t>(piece.size(), 1) - 1);
        const std::size_t begin = std::min(line.find_first_not_of(white_space), line.size());
        const std::size_t blank = std::min(line.find_first_of(white_space, begin), line.size());
        const std::size_t next = std::min(line.find_first_not_of(white_space, blank), line.size());
        const std::string_view value = line.substr(next, line.find('#', next) - next);
        const bool whole = !value.empty();
        lines.push_back({number, std::string(whole ? line.substr(begin, blank - begin) : ""),
                         std::string(whole ? value : "")});
    }
    return lines;
}

void check_read_back(std::vector<told_line> lines) {
    std::erase_if(lines, [](const told_line& line) {
        return line.keyword.empty() || line.keyword.starts_with('#');
    });
    std::string text;
    int number = 0;
    for (told_line& line : lines) {
        line.number = ++number;
        text += line.keyword + " " + line.value + "\n";
    }
    check(read_lines(text) == lines);
}

// What leads the text, as far as an int can be.
int leading_number(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(white_space), text.size()));
    const bool negative = text.starts_with('-');
    text.remove_prefix(negative || text.starts_with('+') ? 1 : 0);
    long long value = 0;
    for (; !text.empty() && text.front() >= '0' && text.front() <= '9'; text.remove_prefix(1)) {
        value = std::min(value * 10 + (text.front() - '0'), 1LL + INT_MAX);
    }
    return static_cast<int>(negative ? -value : std::min<long long>(value, INT_MAX));
}

void check_options(const std::vector<told_line>& lines) {
    static shttpd_ctx ctx;
    for (const told_line& line : lines) {
        const option_row* row = find_option('\0', line.keyword.c_str());
        check(row == nullptr || row->keyword == line.keyword);
        const auto* field = row == nullptr ? nullptr : std::get_if<int shttpd_ctx::*>(&row->field);
        if (field != nullptr) {
            check(row->setter(&ctx, row->field, line.value.c_str()) == 0);
            check(ctx.**field == leading_number(line.value));
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz_input(data, size).rest();
    const std::vector<told_line> lines = read_lines(std::string(text));
    check(lines == read_plainly(text));
    check_read_back(lines);
    check_options(lines);
    return 0;
}
