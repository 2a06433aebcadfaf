// From errno to the library's result codes.
#pragma once

#include <cerrno>

#include "security/at_types.h"

namespace provider {

// What the daemon is told when a file could not be used: at_ok for 0, at_file_error for whatever
// has no code of its own. ENOENT is among those; callers for whom a missing file means "not set up"
// say so themselves.
inline at_result result_of(int error) {
    switch (error) {
        case 0:
            return at_ok;
        case EACCES:
        case EPERM:
        case EROFS:
            return at_permission_denied;
        case ENOSPC:
        case EDQUOT:
            return at_no_space;
        case ENOMEM:
            return at_no_memory;
        default:
            return at_file_error;
    }
}

}  // namespace provider
