// Lines of a hand-written file that its reader can make nothing of: which they are, for the log,
// and what they say, so that a rewrite can save them first.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

// The numbers of some lines of a file, the first of them by name.
class line_numbers {
  public:
    void add(std::size_t number);  // in ascending order, counted from 1

    [[nodiscard]] std::size_t count() const { return count_; }

    // "line 3", "lines 3, 5 and 7", "1200 lines, the first of them 3, 5, 7, 8, 9, 11, 12 and 15".
    [[nodiscard]] std::string text() const;

  private:
    std::array<std::size_t, 8> first_{};
    std::size_t count_ = 0;
};

// Whether a line without its line break says nothing: it is blank, or a comment ("#").
[[nodiscard]] bool is_idle_line(std::string_view line);

// Appends whole lines to PATH.bak beside the file that `path` leads to, which gets the mode of that
// file when it is new; what stands in it already stays. Returns 0 once the lines are on the disk,
// else an errno value, and then nothing was appended.
[[nodiscard]] int save_lines(const char* path, std::string_view lines) noexcept;
