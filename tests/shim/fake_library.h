// What the recording library exports besides its entry points.
#pragma once

#include <cstdint>

struct fake_call {
    int index;
    int count;
    std::uintptr_t arguments[12];
};
