// What the operating system says about itself.
#pragma once

#include <array>

struct qz_sysinfo {
    std::array<char, 256> os_name;
    std::array<char, 256> release;
    std::array<char, 256> machine;
};

// Fills the three texts, each terminated. 0, or -1 when the system does not tell.
int get_qzsysinfo(qz_sysinfo* dst);
