// The one check of the fuzz targets: stops at once, in every build type.
#pragma once

#include <cstdlib>

inline void check(bool holds) {
    if (!holds) {
        std::abort();
    }
}
