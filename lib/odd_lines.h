// The lines of a hand-written file, and those among them that its reader can make nothing of: which
// they are, for the log, and what they say, so that a rewrite can save them first.
#pragma once

#include <array>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>

// Reads a file line by line, long lines in pieces, as fgets() with a buffer of `size` bytes would;
// only that zero bytes are text.
class line_pieces {
  public:
    line_pieces(std::FILE* file, std::size_t size) : file_(file), most_(size - 1) {}

    bool next();  // false at the end, or when reading failed

    [[nodiscard]] std::string_view text() const { return text_; }  // without its line break
    [[nodiscard]] std::size_t number() const { return number_; }   // of its line, from 1

    // The text up to its first zero byte.
    [[nodiscard]] std::string_view visible() const { return text().substr(0, text_.find('\0')); }

  private:
    std::FILE* file_;
    std::size_t most_;
    std::string text_;
    std::size_t number_ = 0;
    bool line_ended_ = true;
};

// The numbers of some lines of a file, the first of them by name.
class line_numbers {
  public:
    // In ascending order, counted from 1; a line that is added again counts once.
    void add(std::size_t number);

    [[nodiscard]] std::size_t count() const { return count_; }

    // "line 3", "lines 3, 5 and 7", "1200 lines, the first of them 3, 5, 7, 8, 9, 11, 12 and 15".
    [[nodiscard]] std::string text() const;

  private:
    std::array<std::size_t, 8> first_{};
    std::size_t count_ = 0;
    std::size_t last_ = 0;
};

// Whether a line without its line break says nothing: it is blank, or a comment ("#").
[[nodiscard]] bool is_idle_line(std::string_view line);

// Appends whole lines to PATH.bak beside the file that `path` leads to, which gets the mode of that
// file when it is new; what stands in it already stays. Returns 0 once the lines are on the disk,
// else an errno value, and then nothing was appended.
[[nodiscard]] int save_lines(const char* path, std::string_view lines) noexcept;
