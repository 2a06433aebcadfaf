#include "lib/odd_lines.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "lib/file.h"
#include "lib/plat.h"

namespace {

constexpr mode_t mode_bits = 0666;

// Whether what is appended would continue a line.
bool ends_inside_line(int fd, off_t size) {
    char last = '\n';
    return size > 0 && ::pread(fd, &last, 1, size - 1) == 1 && last != '\n';
}

int append_durably(int fd, std::string_view lines) {
    struct stat before {};
    if (::fstat(fd, &before) != 0) {
        return errno;
    }
    if (!S_ISREG(before.st_mode)) {
        return EINVAL;
    }
    int error = ends_inside_line(fd, before.st_size) ? write_all(fd, "\n") : 0;
    if (error == 0) {
        error = write_all(fd, lines);
    }
    if (error == 0 && ::fsync(fd) != 0) {
        error = errno;
    }
    if (error != 0) {
        (void)!::ftruncate(fd, before.st_size);
    }
    return error;
}

}  // namespace

bool line_pieces::next() {
    number_ += line_ended_ ? 1 : 0;
    text_.clear();
    line_ended_ = false;
    int byte = 0;
    for (std::size_t taken = 0; taken < most_ && !line_ended_ && byte != EOF; ++taken) {
        byte = getc_unlocked(file_);
        line_ended_ = byte == '\n';
        if (byte != EOF && !line_ended_) {
            text_.push_back(static_cast<char>(byte));
        }
    }
    return line_ended_ || !text_.empty();
}

void line_numbers::add(std::size_t number) {
    if (std::exchange(last_, number) == number) {
        return;  // another piece of a long line
    }
    if (count_ < first_.size()) {
        first_[count_] = number;
    }
    ++count_;
}

std::string line_numbers::text() const {
    const std::size_t named = std::min(count_, first_.size());
    std::string out = count_ == 1 ? "line " : "lines ";
    if (count_ > named) {
        out = std::to_string(count_) + " lines, the first of them ";
    }
    for (std::size_t i = 0; i < named; ++i) {
        out += i == 0 ? "" : i + 1 == named ? " and " : ", ";
        out += std::to_string(first_[i]);
    }
    return out;
}

bool is_idle_line(std::string_view line) {
    const std::size_t start = line.find_first_not_of(" \t\v\f\r");
    return start == std::string_view::npos || line[start] == '#';
}

int save_lines(const char* path, std::string_view lines) noexcept {
    struct stat original {};
    const qz_owned<char> resolved(::realpath(path, nullptr));
    if (resolved == nullptr || ::stat(resolved.get(), &original) != 0) {
        return errno;
    }
    const std::string backup = std::string(resolved.get()) + ".bak";
    // Nobody may lead the lines elsewhere: the name itself is opened, never what a link names.
    const unique_fd fd(::open(backup.c_str(),
                              O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | open_at_once,
                              original.st_mode & mode_bits));
    return fd ? append_durably(fd.get(), lines) : errno;
}
