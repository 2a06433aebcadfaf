// An authentication library whose every answer comes from a script: it shakes hands in steps, lets
// bytes through in pieces, holds some back, fails, and lies about counts. Where the script has
// ended it does what it should. It takes the place of the shim, so nothing is loaded.
#pragma once

#include <cstdint>
#include <string_view>

namespace scripted {

// What the next answers are, a byte each; others may take from it as well.
extern std::string_view script;
unsigned next();  // 0 where it has ended

// What stands for the encryption of a byte.
constexpr char sealed(char c) {
    return static_cast<char>(c ^ 0x80);
}

int open_channels();

// How many bytes have gone out through channels on the descriptor since this was asked last.
std::uint64_t take_sent(int fd);

}  // namespace scripted
