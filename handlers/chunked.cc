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
            [[fallthrough]];
        case state::trailer_line:
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

std::size_t chunk_scanner::consume(std::string_view bytes) {
    std::size_t at = 0;
    while (at < bytes.size() && !complete() && !failed()) {
        if (state_ == state::data) {
            const auto run = std::min<std::uint64_t>(left_, bytes.size() - at);
            left_ -= run;
            at += static_cast<std::size_t>(run);
            if (left_ == 0) {
                state_ = state::data_return;
            }
        } else {
            state_ = step(bytes[at]);
            at += failed() ? 0 : 1;  // the byte that breaks the body is none of it
        }
    }
    return at;
}
