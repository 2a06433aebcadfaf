#include "handlers/chunked.h"

#include <algorithm>

namespace {

constexpr std::uint64_t size_max = UINT64_MAX >> 8;  // one digit more can't overflow

// The value of a hexadecimal digit, -1 for anything else.
int hex_value(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

}  // namespace

chunk_scanner::state chunk_scanner::add_digit(char c) {
    const int digit = hex_value(c);
    if (digit < 0 || left_ > size_max) {
        return state::broken;
    }
    left_ = left_ * 16 + static_cast<std::uint64_t>(digit);
    return state::digits;
}

chunk_scanner::state chunk_scanner::step(char c) {
    switch (state_) {
        case state::first_digit:
            left_ = 0;
            return add_digit(c);
        case state::digits:
            if (c == '\r') {
                return state::size_end;
            }
            return c == ';' || c == ' ' || c == '\t' ? state::extension : add_digit(c);
        case state::extension:
            // A line feed of its own ends the line for some readers and not for others.
            if (c == '\n') {
                return state::broken;
            }
            return c == '\r' ? state::size_end : state::extension;
        case state::size_end:
            return c == '\n' ? after_size() : state::broken;
        case state::data_return:
            return c == '\r' ? state::data_end : state::broken;
        case state::data_end:
            return c == '\n' ? state::first_digit : state::broken;
        case state::trailer_start:
            if (c == '\r') {
                return state::last_end;
            }
            name_length_ = 0;
            [[fallthrough]];
        case state::trailer_line:
            note_trailer_byte(c);
            if (c == '\n') {
                return state::broken;
            }
            return c == '\r' ? state::trailer_end : state::trailer_line;
        case state::trailer_end:
            return c == '\n' ? state::trailer_start : state::broken;
        case state::last_end:
            return c == '\n' ? state::done : state::broken;
        case state::data:  // taken in runs by consume
        case state::done:
        case state::broken:
            break;
    }
    return state_;
}

void chunk_scanner::note_trailer_byte(char c) {
    constexpr std::array<std::string_view, 3> names = {"authorization", "plx-", "x-plx-"};
    if (name_length_ == name_.size()) {
        return;
    }
    name_[name_length_++] = c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
    const std::string_view name(name_.data(), name_length_);
    claims_identity_ =
        claims_identity_ || std::find(names.begin(), names.end(), name) != names.end();
}

// One step: a run of data, or one byte of anything else, or none when it breaks the body.
std::size_t chunk_scanner::take(std::string_view bytes) {
    if (state_ != state::data) {
        state_ = step(bytes.front());
        return failed() ? 0 : 1;  // the byte that breaks the body is none of it
    }
    const auto count = std::min<std::uint64_t>(left_, bytes.size());
    left_ -= count;
    if (left_ == 0) {
        state_ = state::data_return;
    }
    return static_cast<std::size_t>(count);
}

std::size_t chunk_scanner::consume(std::string_view bytes) {
    std::size_t at = 0;
    while (at < bytes.size() && !complete() && !failed()) {
        at += take(bytes.substr(at));
    }
    return at;
}

chunk_scanner::run chunk_scanner::next_run(std::string_view bytes) {
    std::size_t at = 0;
    bool trailer = false;
    while (at < bytes.size() && !complete() && !failed()) {
        const bool of_trailer = state_ == state::trailer_line || state_ == state::trailer_end ||
                                (state_ == state::trailer_start && bytes[at] != '\r');
        if (at > 0 && of_trailer != trailer) {
            break;
        }
        trailer = of_trailer;
        at += take(bytes.substr(at));
    }
    return {.length = at, .trailer = trailer};
}
