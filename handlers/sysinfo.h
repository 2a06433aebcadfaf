// What the operating system says about itself.
#pragma once

#include <array>

// Texts as uname gives them, cut to 255 characters.
struct qz_sysinfo {
    std::array<char, 256> os_name;
    std::array<char, 256> release;
    std::array<char, 256> machine;  // the processor type
};

// Fills the three texts, each terminated. 0, or -1 when the system does not tell.
int get_qzsysinfo(qz_sysinfo* dst);
