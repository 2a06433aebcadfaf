// Lets a whole test program, or the daemon under test, run with the other way of waiting: ctest
// sets DOVMAD_TEST_WAIT to "poll" for the second run.
#pragma once

#include <cstdlib>
#include <string_view>

#include "core/poll_set.h"

inline void choose_wait_source() {
    const char* wish = std::getenv("DOVMAD_TEST_WAIT");
    if (wish != nullptr && std::string_view(wish) == "poll") {
        prefer_wait_source(wait_source::poll);
    }
}
